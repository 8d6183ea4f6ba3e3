#pragma once

#include <string>
#include <utility>

#include "Descriptor.h"

namespace os {

/// Where an opened file lies.
enum class FilePlace {
  kThere,      ///< under the name
  kElsewhere,  ///< another one has the name by now, or none
  kUnknown,    ///< the system does not say; errno is set
};

/// The folder in which this user's processes keep what they share while they run: sockets, locks, events.
/// It is held open, so that what is done in it is done there, whatever lies at its path by then: in a place
/// that others may write to they can put something else in its stead.
class RuntimeFolder {
 public:
  /// Where it lies, or would lie.
  static std::string Path();
  /// Makes it, for this user alone, when it is not there, and opens it. `fault` says why it may not be used,
  /// or is empty.
  static RuntimeFolder Open(std::string& fault);
  /// Why what lies in it may not be trusted, or nothing; nothing, too, when it is not there.
  static std::string Fault();

  /// Where the file `name` lies, for people and for those calls that know nothing but paths.
  std::string PathOf(const std::string& name) const { return path_ + "/" + name; }
  /// To be read and written, closed on exec, not through a link; with `flags` besides. Nothing, with errno
  /// set, when it cannot be opened.
  Descriptor OpenFile(const std::string& name, int flags) const;
  /// Whether `file` is what lies there under `name`.
  FilePlace PlaceOf(const std::string& name, const Descriptor& file) const;
  /// The same, for those who do nothing when nobody knows.
  bool Holds(const std::string& name, const Descriptor& file) const {
    return PlaceOf(name, file) == FilePlace::kThere;
  }
  /// Makes the socket `name` this user's alone. False when none lies there, or it could not be done.
  bool ClaimSocket(const std::string& name) const;
  /// Removes the name. False, with errno set, when it could not be.
  bool Remove(const std::string& name) const;

 private:
  RuntimeFolder(std::string path, Descriptor folder) : path_(std::move(path)), folder_(std::move(folder)) {}

  std::string path_;
  Descriptor folder_;
};

/// A file name for any text: others than letters, digits, '.', '_' and '-' are escaped, and what is too
/// long for a file system becomes a hash and its end. At most 200 bytes.
std::string RuntimeFileName(const std::string& name);

}  // namespace os
