// Events as the system's own, and who is woken first.

#include <gtest/gtest.h>
#include <windows.h>

#include <chrono>
#include <memory>
#include <string>

#include "OsRoles.h"
#include "os/NamedEvent.h"
#include "support/ChildProcess.h"
#include "support/System.h"
#include "support/Wait.h"
#include "support/windows/OwnedHandle.h"

namespace os {
namespace {

using tolm::test::ChildProcess;
using tolm::test::Exit;
using tolm::test::InRole;
using tolm::test::OwnedHandle;
using tolm::test::WaitFor;

using Event = std::unique_ptr<NamedEvent>;

class OsWindowsNamedEvent : public testing::Test {
 protected:
  Event Make(const std::string& name) {
    int error = 0;
    Event event = NamedEvent::Create(name, error);
    EXPECT_TRUE(event) << error;
    return event;
  }

  const std::string own_ = std::to_string(tolm::test::OwnProcessId());
  const std::string name_ = "Global\\C:/App/" + own_ + "/Agent.exe-agent";
};

TEST_F(OsWindowsNamedEvent, IsTheSystemsUnderTheNameAsItStands) {
  const Event event = Make(name_);
  const std::wstring wide(name_.begin(), name_.end());
  const OwnedHandle opened(::OpenEventW(EVENT_ALL_ACCESS, FALSE, wide.c_str()));
  ASSERT_TRUE(opened);
  ::SetEvent(opened.get());
  EXPECT_TRUE(event->Wait(0));
}

TEST_F(OsWindowsNamedEvent, BytesOfTheNameAreCharacters) {
  const Event event = Make("Global\\\xC3\xA4" + own_);
  const std::wstring wide = L"Global\\\u00C3\u00A4" + std::to_wstring(tolm::test::OwnProcessId());
  EXPECT_TRUE(OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, wide.c_str())));
}

TEST_F(OsWindowsNamedEvent, AnOpenedOneIsInheritableAndTheirHandlesAreTold) {
  const Event made = Make(name_);
  const Event opened = NamedEvent::Open(name_);
  ASSERT_TRUE(opened);
  const auto flags = [](const Event& event) {
    DWORD value = 0;
    EXPECT_TRUE(::GetHandleInformation(reinterpret_cast<HANDLE>(event->native()), &value));
    return value;
  };
  EXPECT_EQ(flags(made) & HANDLE_FLAG_INHERIT, 0u);
  EXPECT_EQ(flags(opened) & HANDLE_FLAG_INHERIT, static_cast<DWORD>(HANDLE_FLAG_INHERIT));
}

TEST_F(OsWindowsNamedEvent, AnotherKindOfObjectUnderTheNameIsNoEvent) {
  const std::wstring wide(name_.begin(), name_.end());
  const OwnedHandle mutex(::CreateMutexW(nullptr, FALSE, wide.c_str()));
  ASSERT_TRUE(mutex);
  int error = 0;
  EXPECT_FALSE(NamedEvent::Create(name_, error));
  EXPECT_EQ(error, ERROR_INVALID_HANDLE);
  EXPECT_FALSE(NamedEvent::Open(name_));
}

// Until the other one waits, each signal is this process's own again.
TEST_F(OsWindowsNamedEvent, WhoWaitsAlreadyIsWokenAndNotTheOneThatSetsItAndWaitsThen) {
  const Event event = Make(name_);
  ChildProcess child(InRole({"answer-events", name_, name_, "1"}));
  ASSERT_TRUE(child.WaitForLine("ready"));
  EXPECT_TRUE(WaitFor([&] {
    event->Set();
    return event->Wait(30'000) && child.WaitExit(std::chrono::milliseconds(0)).has_value();
  }));
  EXPECT_EQ(child.WaitExit(), (Exit{0, false}));
}

}  // namespace
}  // namespace os
