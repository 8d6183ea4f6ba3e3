#include "ProcessUser.h"

namespace os {
namespace {

std::vector<char> UserOfProcess(HANDLE process) {
  HANDLE opened = nullptr;
  if (!::OpenProcessToken(process, TOKEN_QUERY, &opened)) return {};
  const Handle token(opened);
  alignas(TOKEN_USER) char memory[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  if (!::GetTokenInformation(token.get(), TokenUser, memory, sizeof memory, &size)) return {};
  const PSID sid = reinterpret_cast<const TOKEN_USER*>(memory)->User.Sid;
  const auto* const bytes = static_cast<const char*>(sid);
  return {bytes, bytes + ::GetLengthSid(sid)};
}

}  // namespace

std::vector<char> UserOf(const Handle& process) {
  return process ? UserOfProcess(process.get()) : std::vector<char>();
}

std::vector<char> OwnUser() {
  return UserOfProcess(::GetCurrentProcess());
}

}  // namespace os
