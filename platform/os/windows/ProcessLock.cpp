#include <string>
#include <utility>
#include <vector>

#include "Handle.h"
#include "NameHash.h"
#include "ProcessUser.h"
#include "SystemMessage.h"
#include "os/ChildProcess.h"

namespace os {
namespace {

/// A name for any text: in names of objects a backslash separates, and they end somewhere. The same in all
/// sessions of a user, and each user's own.
std::wstring ObjectName(const std::string& name) {
  const std::vector<char> user = OwnUser();
  return L"Global\\tolm-only-one-" + Widen(NameHash(std::string(user.begin(), user.end()) + name));
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
