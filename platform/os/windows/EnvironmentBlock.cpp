#include "EnvironmentBlock.h"

#include "WideText.h"

namespace os {
namespace {

struct WithoutCase {
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
  }
};

using Variables = std::map<std::wstring, std::wstring, WithoutCase>;

Variables OwnVariables() {
  Variables variables;
  wchar_t* const own = ::GetEnvironmentStringsW();
  if (own == nullptr) return variables;
  for (const wchar_t* entry = own; *entry != L'\0';) {
    const std::wstring text = entry;
    // The names of the folders of the drives begin with an equals sign.
    const std::size_t equals = text.find(L'=', 1);
    if (equals != std::wstring::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
    entry += text.size() + 1;
  }
  ::FreeEnvironmentStringsW(own);
  return variables;
}

}  // namespace

std::wstring EnvironmentBlock(const std::map<std::string, std::string>& added) {
  Variables variables = OwnVariables();
  for (const auto& [name, value] : added) variables[FromUtf8(name)] = FromUtf8(value);
  std::wstring block;
  for (const auto& [name, value] : variables) block += name + L"=" + value + L'\0';
  return block + L'\0';
}

}  // namespace os
