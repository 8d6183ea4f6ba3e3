#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

#include "Handle.h"
#include "ProcessUser.h"
#include "SystemMessage.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

/// A name for any text: in names of objects a backslash separates, and they end somewhere. The same in all
/// sessions of a user, and each user's own.
std::wstring ObjectName(const std::string& name) {
  std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  const auto add = [&hash](char c) { hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3; };
  for (const char c : OwnUser()) add(c);
  for (const char c : name) add(c);
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return L"Global\\tolm-only-one-" + Widen(text);
}

/// That the mutex exists is the lock; nobody owns it, since only the thread that does could give it back.
class WindowsProcessLock final : public ProcessLock {
 public:
  explicit WindowsProcessLock(Handle mutex) : mutex_(std::move(mutex)) {}

 private:
  const Handle mutex_;  // not inheritable
};

}  // namespace

std::unique_ptr<ProcessLock> ProcessLock::TryTake(const std::string& name, std::string& why) {
  why.clear();
  Handle mutex(::CreateMutexW(nullptr, FALSE, ObjectName(name).c_str()));
  const DWORD error = ::GetLastError();
  if (mutex && error != ERROR_ALREADY_EXISTS) return std::make_unique<WindowsProcessLock>(std::move(mutex));
  if (!mutex) why = SystemMessage("making the lock " + name, error);
  return nullptr;
}

}  // namespace os
