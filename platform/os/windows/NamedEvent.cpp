#include "os/NamedEvent.h"

#include "Handle.h"
#include "os/Mutex.h"

#include <winternl.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace os {
namespace {

/// The name as the system has it: byte by byte as it stands, where it can. A backslash behind the name of
/// the space would be looked for as a folder, and a zero would end the text: each has a character of its own
/// that no byte becomes.
std::wstring ObjectName(const std::string& name) {
  constexpr wchar_t kFirstOfNobody = 0xF000;
  std::wstring wide = Widen(name);
  std::size_t begin = 0;
  for (const std::wstring_view space : {L"Global\\", L"Local\\"}) {
    if (wide.starts_with(space)) begin = space.size();
  }
  for (std::size_t i = begin; i < wide.size(); ++i) {
    if (wide[i] == L'\\' || wide[i] == L'\0') wide[i] = static_cast<wchar_t>(wide[i] + kFirstOfNobody);
  }
  return wide;
}

/// Whether this handle is the only one of its object.
bool IsHeldByNobodyElse(const Handle& handle) {
  PUBLIC_OBJECT_BASIC_INFORMATION information{};
  return ::NtQueryObject(handle.get(), ObjectBasicInformation, &information, sizeof information, nullptr) >=
             0 &&
         information.HandleCount == 1;
}

/// An event that somebody else has made.
class FoundEvent final : public NamedEvent {
 public:
  explicit FoundEvent(Handle event) : event_(std::move(event)) {}

  void Set() override { ::SetEvent(event_.get()); }
  bool Wait(int timeout_ms) override {
    const DWORD timeout = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    return ::WaitForSingleObject(event_.get(), timeout) == WAIT_OBJECT_0;
  }
  void GiveUpName() override {}  // it is its maker's
  std::intptr_t native() const override { return reinterpret_cast<std::intptr_t>(event_.get()); }

 private:
  const Handle event_;
};

/// An event with which its maker can go on when it has given up the name.
class OwnEvent final : public NamedEvent {
 public:
  explicit OwnEvent(Handle event) : object_(std::make_shared<Object>(std::move(event))) {}

  void Set() override { ::SetEvent(Current()->event.get()); }

  // The kernel releases waits in the order in which they began.
  bool Wait(int timeout_ms) override {
    const ULONGLONG begin = ::GetTickCount64();
    for (;;) {
      const auto object = Current();
      const HANDLE handles[] = {object->event.get(), object->given_up.get()};
      const DWORD outcome = ::WaitForMultipleObjects(2, handles, FALSE, Left(begin, timeout_ms));
      if (outcome != WAIT_OBJECT_0 + 1) return outcome == WAIT_OBJECT_0;
    }
  }

  // A kernel object's name goes with its last handle. When that is ours, this holder goes on with an event
  // that has no name; somebody else who holds it hears and is heard as before, and the name lasts.
  void GiveUpName() override {
    const MutexLock lock(mutex_);
    if (!IsHeldByNobodyElse(object_->event)) return;
    Handle nameless(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!nameless) return;
    const auto named = std::exchange(object_, std::make_shared<Object>(std::move(nameless)));
    ::SetEvent(named->given_up.get());
  }

  std::intptr_t native() const override { return reinterpret_cast<std::intptr_t>(Current()->event.get()); }

 private:
  struct Object {
    explicit Object(Handle of_event) : event(std::move(of_event)) {}
    const Handle event;
    /// Set when another object has taken this one's place; closed, as the event is, by the last that waits.
    const Handle given_up{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  };

  std::shared_ptr<Object> Current() const {
    const MutexLock lock(mutex_);
    return object_;
  }

  static DWORD Left(ULONGLONG begin, int timeout_ms) {
    if (timeout_ms < 0) return INFINITE;
    const ULONGLONG end = begin + static_cast<ULONGLONG>(timeout_ms);
    return static_cast<DWORD>(end - std::min(end, ::GetTickCount64()));
  }

  mutable Mutex mutex_;
  std::shared_ptr<Object> object_ TOLM_GUARDED_BY(mutex_);
};

}  // namespace

std::unique_ptr<NamedEvent> NamedEvent::Create(const std::string& name, int& error) {
  error = 0;
  if (name.empty()) {
    error = ERROR_INVALID_NAME;  // the system would make an event that nobody can open
    return nullptr;
  }
  Handle event(::CreateEventW(nullptr, FALSE, FALSE, ObjectName(name).c_str()));
  if (!event) {
    error = static_cast<int>(::GetLastError());
    return nullptr;
  }
  return std::make_unique<OwnEvent>(std::move(event));
}

std::unique_ptr<NamedEvent> NamedEvent::Open(const std::string& name) {
  if (name.empty()) return nullptr;
  Handle event(::OpenEventW(EVENT_ALL_ACCESS, TRUE, ObjectName(name).c_str()));
  if (!event) return nullptr;
  return std::make_unique<FoundEvent>(std::move(event));
}

}  // namespace os
