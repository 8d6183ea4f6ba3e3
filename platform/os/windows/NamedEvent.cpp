#include "os/NamedEvent.h"

#include "Handle.h"

namespace os {
namespace {

class KernelEvent final : public NamedEvent {
 public:
  explicit KernelEvent(Handle event) : event_(std::move(event)) {}

  void Set() override { ::SetEvent(event_.get()); }

  // The kernel releases waits in the order in which they began.
  bool Wait(int timeout_ms) override {
    const DWORD timeout = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    return ::WaitForSingleObject(event_.get(), timeout) == WAIT_OBJECT_0;
  }

  void GiveUpName() override {}  // a kernel object's name goes with its last handle

  std::intptr_t native() const override { return reinterpret_cast<std::intptr_t>(event_.get()); }

 private:
  const Handle event_;
};

}  // namespace

std::unique_ptr<NamedEvent> NamedEvent::Create(const std::string& name, int& error) {
  error = 0;
  if (name.empty()) {
    error = ERROR_INVALID_NAME;  // the system would make an event that nobody can open
    return nullptr;
  }
  Handle event(::CreateEventW(nullptr, FALSE, FALSE, Widen(name).c_str()));
  if (!event) {
    error = static_cast<int>(::GetLastError());
    return nullptr;
  }
  return std::make_unique<KernelEvent>(std::move(event));
}

std::unique_ptr<NamedEvent> NamedEvent::Open(const std::string& name) {
  if (name.empty()) return nullptr;
  Handle event(::OpenEventW(EVENT_ALL_ACCESS, TRUE, Widen(name).c_str()));
  if (!event) return nullptr;
  return std::make_unique<KernelEvent>(std::move(event));
}

}  // namespace os
