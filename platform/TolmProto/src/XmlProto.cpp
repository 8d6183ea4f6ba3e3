#include "TolmProto/XmlProto.h"

#include <pugixml.hpp>

#include <charconv>
#include <cstddef>
#include <string_view>
#include <system_error>

namespace proto {
namespace {

using pugi::xml_node;

constexpr std::string_view kBlanks = " \t\r\n";
constexpr int kMaxIndentedDepth = 64;

// ---------------------------------------------------------------------------------------- Paths

/// Takes the first name off `path`. False when it is not well formed.
bool TakeName(std::string_view& path, std::string_view& name) {
  if (path.empty() || path.front() != '/') return false;
  path.remove_prefix(1);
  name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size());
  return !name.empty();
}

/// Whether an element may have this name. Bytes of characters beyond ASCII all count as letters.
bool IsElementName(std::string_view name) {
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
                        static_cast<unsigned char>(c) >= 0x80;
    const bool inner = (c >= '0' && c <= '9') || c == '-' || c == '.';
    if (!letter && (i == 0 || !inner)) return false;
  }
  return !name.empty();
}

bool IsElement(const xml_node& node, std::string_view name) {
  return node.type() == pugi::node_element && name == node.name();
}

bool IsText(const xml_node& node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

/// The first element of that name directly below `parent`, or none.
xml_node FindChild(const xml_node& parent, std::string_view name) {
  for (const xml_node& child : parent.children()) {
    if (IsElement(child, name)) return child;
  }
  return {};
}

xml_node Find(const xml_node& root, std::string_view path) {
  xml_node node = root;
  std::string_view name;
  do {
    if (!TakeName(path, name)) return {};
    node = FindChild(node, name);
  } while (node && !path.empty());
  return node;
}

bool IsPathToSet(const pugi::xml_document& document, std::string_view path) {
  std::string_view name;
  if (!TakeName(path, name) || !IsElementName(name)) return false;
  const xml_node root = document.document_element();
  if (root && name != root.name()) return false;
  while (!path.empty()) {
    if (!TakeName(path, name) || !IsElementName(name)) return false;
  }
  return true;
}

/// The element at a path that IsPathToSet, made with all that is missing on the way.
xml_node Make(const xml_node& root, std::string_view path) {
  xml_node node = root;
  std::string_view name;
  while (TakeName(path, name)) {
    xml_node child = FindChild(node, name);
    if (!child) {
      child = node.append_child(pugi::node_element);
      child.set_name(std::string(name).c_str());
    }
    node = child;
  }
  return node;
}

// ---------------------------------------------------------------------------------------- Texts

std::string TextOf(const xml_node& element) {
  std::string text;
  for (const xml_node& child : element.children()) {
    if (IsText(child)) text += child.value();
  }
  return text;
}

/// Replaces the text directly in `element`; elements in it stay.
void SetText(xml_node element, const std::string& text) {
  for (xml_node child = element.first_child(); child;) {
    const xml_node next = child.next_sibling();
    if (IsText(child)) element.remove_child(child);
    child = next;
  }
  if (!text.empty()) element.prepend_child(pugi::node_pcdata).set_value(text.c_str());
}

// -------------------------------------------------------------------------------------- Documents

/// Two bytes stand for one character: NUL bytes are then no NUL characters.
bool IsWide(std::string_view text) {
  return text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") ||
         text.substr(0, 4).find('\0') != std::string_view::npos;
}

/// Whether one element and no text stands at the top.
bool HasOneRoot(const pugi::xml_document& document) {
  int elements = 0;
  for (const xml_node& child : document.children()) {
    if (IsText(child)) return false;
    if (child.type() == pugi::node_element) ++elements;
  }
  return elements == 1;
}

bool ParseInto(pugi::xml_document& document, std::string_view text) {
  // The parser takes a NUL for the end.
  if (!IsWide(text) && text.find('\0') != std::string_view::npos) return false;
  // As a fragment, so that text beside the root is seen and not skipped.
  constexpr unsigned kFlags = pugi::parse_default | pugi::parse_fragment | pugi::parse_ws_pcdata_single;
  return document.load_buffer(text.data(), text.size(), kFlags) && HasOneRoot(document);
}

/// How deep elements are nested. Goes from node to node: a document may be nested deeper than a thread's
/// stack allows.
int Depth(const xml_node& root) {
  int deepest = 0;
  int depth = 0;
  xml_node node = root;
  while (true) {
    if (node.first_child()) {
      node = node.first_child();
      deepest = ++depth > deepest ? depth : deepest;
      continue;
    }
    while (depth > 0 && !node.next_sibling()) {
      node = node.parent();
      --depth;
    }
    if (depth == 0) return deepest;
    node = node.next_sibling();
  }
}

class StringWriter final : public pugi::xml_writer {
 public:
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
  std::string text;
};

}  // namespace

struct CXmlProto::Document {
  pugi::xml_document xml;
};

CXmlProto::CXmlProto() : document_(std::make_unique<Document>()) {}

CXmlProto::~CXmlProto() = default;

bool CXmlProto::set_str(const std::string& text) {
  auto parsed = std::make_unique<Document>();
  const bool complete = ParseInto(parsed->xml, text);
  document_ = complete ? std::move(parsed) : std::make_unique<Document>();
  return complete;
}

std::string CXmlProto::get_v(const std::string& path, const std::string& default_value) const {
  const xml_node element = Find(document_->xml, path);
  return element ? TextOf(element) : default_value;
}

int CXmlProto::get_int_v(const std::string& path, int default_value) const {
  const std::string text = TextOf(Find(document_->xml, path));
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return default_value;
  const char* const end = text.data() + text.find_last_not_of(kBlanks) + 1;
  int value = 0;
  const auto [behind, error] = std::from_chars(text.data() + first, end, value);
  return error == std::errc() && behind == end ? value : default_value;
}

int CXmlProto::get_cnt(const std::string& path) const {
  const xml_node first = Find(document_->xml, path);
  int count = 0;
  for (xml_node element = first; element; element = element.next_sibling()) {
    if (IsElement(element, first.name())) ++count;
  }
  return count;
}

bool CXmlProto::set_v(const std::string& path, int value) {
  return set_v(path, std::to_string(value));
}

bool CXmlProto::set_v(const std::string& path, const std::string& value) {
  if (!IsPathToSet(document_->xml, path) || value.find('\0') != std::string::npos) return false;
  SetText(Make(document_->xml, path), value);
  return true;
}

bool CXmlProto::set_v(const std::string& path, const char* value) {
  return set_v(path, std::string(value != nullptr ? value : ""));
}

std::string CXmlProto::get_str(int style) const {
  const bool indented = style != 0 && Depth(document_->xml) <= kMaxIndentedDepth;
  const unsigned flags = indented ? pugi::format_indent : 0U;
  StringWriter writer;
  document_->xml.save(writer, "  ", flags, pugi::encoding_utf8);
  return std::move(writer.text);
}

}  // namespace proto
