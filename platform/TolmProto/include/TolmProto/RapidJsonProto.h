#pragma once

#include <memory>
#include <string>

namespace proto {

/// A JSON document whose values are addressed by path.
///
/// A path is "/member/member/...": each segment names an object's member. A segment may end in "[n]",
/// which addresses element n of the array under that name; n counts from 1. Thus "/list[2]/name" is
/// the member "name" of the second element of the array "list". Names that are empty or hold "/", "[" or
/// "]" cannot be addressed. Of members with the same name the first one counts.
///
/// Texts are bytes: they are not checked to be UTF-8, and come out as they went in.
///
/// Reading never fails and never throws: a path that leads nowhere, is not well formed, or ends at a
/// value of another type gives the default. What it takes depends on the path, and not on how many members
/// the objects on the way have, as long as nothing was set since set_str. Not safe to share between threads
/// while it is changed.
class CRapidJsonProto {
 public:
  /// An empty object.
  CRapidJsonProto();
  ~CRapidJsonProto();
  CRapidJsonProto(const CRapidJsonProto&) = delete;
  CRapidJsonProto& operator=(const CRapidJsonProto&) = delete;

  /// Replaces the document by the one that `text` holds (RFC 8259). False when `text` is not one
  /// complete JSON value, or longer than 2 GiB, or holds a number too large for a double or an escape for
  /// half of a surrogate pair; the document is then an empty object. Any depth of nesting is accepted.
  bool set_str(const std::string& text);

  /// The text at `path`, NUL bytes included, or `default_value` when there is no text there.
  std::string get_v(const std::string& path, const std::string& default_value) const;

  /// The integer at `path`, or `default_value` when there is no number there that a 32-bit signed
  /// integer can hold exactly.
  int get_int_v(const std::string& path, int default_value) const;

  /// How many elements the array at `path` has; 0 when there is no array there.
  int get_cnt(const std::string& path) const;

  /// Sets the value at `path` and makes what is missing on the way: members, arrays, and array
  /// elements up to the one addressed (the ones before it as null). A value of another type that
  /// stands in the way is replaced. False, and nothing changes, when the path is not well formed or
  /// an index is 0 or above 1,000,000. A null `value` is the empty text. The memory of a replaced value
  /// is kept until set_str.
  bool set_v(const std::string& path, int value);
  bool set_v(const std::string& path, const std::string& value);
  bool set_v(const std::string& path, const char* value);

  /// The document as text: compact for `style` 0, indented otherwise. A document nested deeper than 64
  /// levels is compact in either case, since indentation would multiply its size.
  std::string get_str(int style) const;

 private:
  struct Document;
  std::unique_ptr<Document> document_;
};

}  // namespace proto
