#pragma once

#include <memory>
#include <string>

namespace proto {

/// An XML document whose elements are addressed by path: "/Config/ServerPort" is the element ServerPort
/// within the root element Config; the first one of that name counts. Names that are empty or hold "/"
/// cannot be addressed. An element's value is the text directly in it.
///
/// Reading never fails and never throws: a path that leads nowhere gives the default. Not safe to share
/// between threads while it is changed.
class CXmlProto {
 public:
  /// An empty document.
  CXmlProto();
  ~CXmlProto();
  CXmlProto(const CXmlProto&) = delete;
  CXmlProto& operator=(const CXmlProto&) = delete;

  /// Replaces the document by the one that `text` holds (XML 1.0). False when it is not well formed; the
  /// document is then empty, never a part of it. External entities are not looked at; DTDs are skipped. A
  /// '&' that begins no reference known without a DTD stands for itself, and attributes are not compared.
  /// Any depth of nesting is accepted.
  bool set_str(const std::string& text);

  /// The text of the element at `path`, or `default_value` when there is no such element.
  std::string get_v(const std::string& path, const std::string& default_value) const;
  /// The integer that is the element's whole text, blanks around it aside; `default_value` when there is
  /// none that a 32-bit signed integer can hold.
  int get_int_v(const std::string& path, int default_value) const;
  /// How many elements stand at `path` (all of the last name below the first parent).
  int get_cnt(const std::string& path) const;

  /// Sets the text of the element at `path` and makes what is missing on the way. False, and nothing
  /// changes, when the path is not well formed, a name in it cannot be an element's, or it names another
  /// root than the document has, or when the value holds a NUL.
  bool set_v(const std::string& path, int value);
  bool set_v(const std::string& path, const std::string& value);
  bool set_v(const std::string& path, const char* value);

  /// The document as text, with a declaration, each element on a line of its own, and a line feed at the
  /// end; indented unless `style` is 0 or it is nested deeper than 64 levels, where indentation would
  /// multiply its size.
  std::string get_str(int style) const;

 private:
  struct Document;
  std::unique_ptr<Document> document_;
};

}  // namespace proto
