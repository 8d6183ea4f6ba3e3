#include "PipeSecurity.h"

#include <aclapi.h>
#include <sddl.h>

#include <memory>
#include <vector>

#include "ProcessUser.h"

namespace os {
namespace {

struct FreeLocal {
  void operator()(void* memory) const { ::LocalFree(memory); }
};

std::wstring UserText() {
  std::vector<char> user = OwnUser();
  wchar_t* text = nullptr;
  if (user.empty() || !::ConvertSidToStringSidW(user.data(), &text)) return {};
  const std::unique_ptr<wchar_t, FreeLocal> owned(text);
  return text;
}

SECURITY_ATTRIBUTES* MakeOwnerOnly() {
  // Owner: the user, also where the system would choose a group; all rights to him; nothing inherited.
  const std::wstring text = L"O:" + OwnUserText() + L"D:P(A;;GA;;;" + OwnUserText() + L")";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (OwnUserText().empty() || !::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                                   text.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
    return nullptr;
  }
  static SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof attributes;
  attributes.lpSecurityDescriptor = descriptor;
  attributes.bInheritHandle = FALSE;
  return &attributes;
}

}  // namespace

const std::wstring& OwnUserText() {
  static const std::wstring& text = *new std::wstring(UserText());
  return text;
}

SECURITY_ATTRIBUTES* OwnerOnly() {
  static SECURITY_ATTRIBUTES* const attributes = MakeOwnerOnly();
  return attributes;
}

bool IsOwnedByThisUser(const Handle& pipe) {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (::GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                        nullptr, &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const std::unique_ptr<void, FreeLocal> owned(descriptor);
  std::vector<char> user = OwnUser();
  return owner != nullptr && !user.empty() && ::EqualSid(owner, user.data());
}

}  // namespace os
