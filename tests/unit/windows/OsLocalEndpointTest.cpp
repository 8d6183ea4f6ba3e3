// Pipes behind the names of endpoints: who holds them, who may reach them, and what is left of them.

#include <gtest/gtest.h>
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "os/LocalStream.h"
#include "support/OwnResources.h"
#include "support/TempDirectory.h"
#include "support/Wait.h"
#include "support/windows/OwnedHandle.h"

namespace os {
namespace {

using tolm::test::kDescriptorsOfLocks;
using tolm::test::OpenDescriptors;
using tolm::test::OwnedHandle;
using tolm::test::WaitFor;

struct FreeLocal {
  void operator()(void* memory) const { ::LocalFree(memory); }
};
using Descriptor = std::unique_ptr<void, FreeLocal>;

Descriptor DescriptorFrom(const wchar_t* text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ::ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr);
  return Descriptor(descriptor);
}

/// "O:...D:..." of what is behind a handle.
std::string SecurityOf(HANDLE handle) {
  constexpr SECURITY_INFORMATION kWhat = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (::GetSecurityInfo(handle, SE_KERNEL_OBJECT, kWhat, nullptr, nullptr, nullptr, nullptr, &descriptor) !=
      ERROR_SUCCESS) {
    return "none";
  }
  const Descriptor owned(descriptor);
  wchar_t* text = nullptr;
  if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text,
                                                              nullptr)) {
    return "unreadable";
  }
  const std::unique_ptr<wchar_t, FreeLocal> owned_text(text);
  return std::filesystem::path(text).string();
}

std::string OwnUser() {
  HANDLE token = nullptr;
  ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token);
  const OwnedHandle owned(token);
  std::vector<char> memory(256);
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, memory.data(), static_cast<DWORD>(memory.size()), &size);
  wchar_t* text = nullptr;
  ::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(memory.data())->User.Sid, &text);
  const std::unique_ptr<wchar_t, FreeLocal> owned_text(text);
  return std::filesystem::path(text).string();
}

class OsLocalEndpoint : public testing::Test {
 protected:
  EndpointError Listen(const std::string& name) {
    auto made = SystemTransport().Listen(name);
    listener_ = std::move(made.value);
    message_ = made.message;
    return made.error;
  }
  EndpointError Connect(const std::string& name) {
    auto made = SystemTransport().Connect(name);
    client_ = std::move(made.value);
    message_ = made.message;
    return made.error;
  }
  std::unique_ptr<Stream> Accept() {
    std::unique_ptr<Stream> stream;
    WaitFor([&] { return (stream = listener_->Accept().stream) != nullptr; });
    return stream;
  }
  /// The pipe of an endpoint on which nobody listens.
  std::wstring PipeOf(const std::string& name) {
    EXPECT_EQ(Connect(name), EndpointError::kNobodyListens) << message_;
    const std::size_t begin = message_.find("\\\\.\\pipe\\");
    return std::filesystem::path(message_.substr(begin, message_.find(": ", begin) - begin)).native();
  }
  static OwnedHandle MakePipe(const std::wstring& pipe, DWORD instances, PSECURITY_DESCRIPTOR descriptor) {
    SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
    return OwnedHandle(::CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, instances, 100,
                                          100, 0, descriptor != nullptr ? &attributes : nullptr));
  }
  static OwnedHandle OpenPipe(const std::wstring& pipe) {
    return OwnedHandle(
        ::CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  }

  const tolm::test::RuntimeDirectory directory_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<Stream> client_;
  std::string message_;
};

TEST_F(OsLocalEndpoint, APipeThatIsThereAlreadyIsNotJoined) {
  const std::wstring pipe = PipeOf("name");
  for (const DWORD instances : {DWORD{1}, DWORD{PIPE_UNLIMITED_INSTANCES}}) {
    const OwnedHandle taken = MakePipe(pipe, instances, nullptr);
    ASSERT_TRUE(taken);
    EXPECT_EQ(Listen("name"), EndpointError::kInUse) << message_;
    EXPECT_NE(message_.find("is held by a living process"), std::string::npos) << message_;
  }
  EXPECT_EQ(Listen("name"), EndpointError::kNone) << message_ << ": it is free again";
}

TEST_F(OsLocalEndpoint, APipeThatIsThereInOtherLettersIsNotJoinedEither) {
  std::wstring pipe = PipeOf("name");
  pipe.replace(pipe.size() - 4, 4, L"NaMe");
  const Descriptor descriptor = DescriptorFrom(L"D:(A;;GA;;;WD)");
  ASSERT_TRUE(descriptor);
  // Everybody may add instances to it, so the frame could, too.
  const OwnedHandle taken = MakePipe(pipe, PIPE_UNLIMITED_INSTANCES, descriptor.get());
  ASSERT_TRUE(taken) << ::GetLastError();
  EXPECT_EQ(Listen("name"), EndpointError::kInUse) << message_;
}

TEST_F(OsLocalEndpoint, NamesAreShortAndPlain) {
  for (const std::string& name : {std::string("a"), std::string("A.b-c_9"), std::string("-"),
                                  std::string("_"), std::string("a.."), std::string(64, 'x')}) {
    EXPECT_TRUE(IsEndpointName(name)) << name;
    EXPECT_EQ(Listen(name), EndpointError::kNone) << name << ": " << message_;
    EXPECT_EQ(Connect(name), EndpointError::kNone) << name << ": " << message_;
  }
  for (const std::string& name :
       {std::string(), std::string("a\\b"), std::string("\\\\.\\pipe\\a"), std::string("..\\a"),
        std::string("a:b"), std::string("a*"), std::string("a\0", 2), std::string("\xC3\xA4"),
        std::string(65, 'x'), std::string(300, 'x')}) {
    EXPECT_EQ(Listen(name), EndpointError::kNameInvalid) << name;
    EXPECT_EQ(Connect(name), EndpointError::kNameInvalid) << name;
    EXPECT_FALSE(message_.empty());
  }
}

TEST_F(OsLocalEndpoint, OfAnotherRuntimeDirectoryIsAnotherOne) {
  ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
  const std::optional<std::string> others[] = {"elsewhere", std::nullopt};
  for (const auto& other : others) {
    const tolm::test::EnvironmentValue runtime("XDG_RUNTIME_DIR", other);
    EXPECT_EQ(Connect("name"), EndpointError::kNobodyListens);
  }
  EXPECT_EQ(Connect("name"), EndpointError::kNone) << message_;
}

TEST_F(OsLocalEndpoint, EveryInstanceIsForItsUserAlone) {
  const std::wstring pipe = PipeOf("name");
  ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
  // More than wait at a time, so that later ones are among them.
  std::vector<OwnedHandle> ends;
  std::vector<std::unique_ptr<Stream>> accepted;
  for (int i = 0; i < 30; ++i) {
    ends.push_back(OpenPipe(pipe));
    ASSERT_TRUE(ends.back()) << i;
    accepted.push_back(Accept());
    ASSERT_TRUE(accepted.back()) << i;
    const std::string security = SecurityOf(ends.back().get());
    const std::string user = OwnUser();
    EXPECT_TRUE(security.starts_with("O:" + user + "D:P(A;;")) << security;
    EXPECT_TRUE(security.ends_with(";;;" + user + ")")) << security;
    EXPECT_EQ(security.find('('), security.rfind('(')) << security << ": one right, for one user";
  }
}

TEST_F(OsLocalEndpoint, AServerOfAnotherOwnerIsNotTrusted) {
  const std::wstring pipe = PipeOf("name");
  // Administrators own it, and everybody may open it.
  const Descriptor descriptor = DescriptorFrom(L"O:BAD:(A;;GA;;;WD)");
  ASSERT_TRUE(descriptor);
  const OwnedHandle server = MakePipe(pipe, PIPE_UNLIMITED_INSTANCES, descriptor.get());
  if (!server && ::GetLastError() == ERROR_INVALID_OWNER) {
    GTEST_SKIP() << "this user may make nothing that belongs to somebody else";
  }
  ASSERT_TRUE(server) << ::GetLastError();
  EXPECT_EQ(Connect("name"), EndpointError::kFailed);
  EXPECT_NE(message_.find("belongs to another user"), std::string::npos) << message_;
}

TEST_F(OsLocalEndpoint, SomebodyListensAtEveryMomentOfAFlood) {
  ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
  constexpr int kThreads = 4;
  constexpr int kTimes = 100;
  std::atomic<int> connected{0};
  std::atomic<int> ended{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kTimes; ++i) {
        const auto made = SystemTransport().Connect("name");
        if (made.value) ++connected;
        // All instances may be waiting to be accepted on a machine that is slow.
        EXPECT_TRUE(made.value || made.error == EndpointError::kBusy) << made.message;
      }
      ++ended;
    });
  }
  int accepted = 0;
  while (ended < kThreads) {
    if (listener_->Accept().stream) ++accepted;
  }
  for (auto& thread : threads) thread.join();
  EXPECT_GT(accepted, 0);
  EXPECT_GT(connected, kThreads * kTimes / 2);
  ASSERT_EQ(Connect("name"), EndpointError::kNone) << message_;
}

TEST_F(OsLocalEndpoint, OfManyThatWantANameOneHasItAtATime) {
  std::atomic<int> holders{0};
  std::atomic<int> listened{0};
  std::atomic<bool> together{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        auto made = SystemTransport().Listen("name");
        if (!made.value) {
          EXPECT_EQ(made.error, EndpointError::kInUse) << made.message;
          continue;
        }
        if (++holders > 1) together = true;
        ++listened;
        EXPECT_TRUE(SystemTransport().Connect("name").value);
        --holders;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(together);
  EXPECT_GT(listened, 0);
}

// ------------------------------------------------------------------ what is left behind

/// Reads ahead and a write that the other side has no room for are under way when it goes.
void EndInTheMiddle(Listener& listener, Poller& poller, bool client_first) {
  auto client = SystemTransport().Connect("name").value;
  ASSERT_TRUE(client);
  std::unique_ptr<Stream> server;
  ASSERT_TRUE(WaitFor([&] { return (server = listener.Accept().stream) != nullptr; }));
  ASSERT_TRUE(poller.Arm(*client, 1, Poller::kRead));
  ASSERT_TRUE(poller.Arm(*server, 2, 0));
  const std::string much(64 << 10, 'm');
  const ConstBuffer buffer{much.data(), much.size()};
  while (server->Write(&buffer, 1).status == IoStatus::kDone) {
  }
  ASSERT_TRUE(poller.Arm(*server, 2, Poller::kWrite));
  for (auto* stream : {client_first ? &client : &server, client_first ? &server : &client}) {
    poller.Remove(**stream);
    stream->reset();
  }
  // What the system has to tell of the end is taken by whoever waits.
  while (poller.Wait(0)) {
  }
}

TEST_F(OsLocalEndpoint, AnEndInTheMiddleOfReadingAndWritingLeavesNothingBehind) {
  ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
  const auto poller = SystemTransport().CreatePoller();
  for (const bool client_first : {true, false}) EndInTheMiddle(*listener_, *poller, client_first);
  const long before = OpenDescriptors();
  ASSERT_GT(before, 0);
  for (int i = 0; i < 100; ++i) EndInTheMiddle(*listener_, *poller, i % 2 == 0);
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= before + kDescriptorsOfLocks; }))
      << OpenDescriptors() << " instead of " << before;
}

TEST_F(OsLocalEndpoint, AListenerThatEndsWhileItWaitsLeavesNothingBehind) {
  const auto once = [this] {
    ASSERT_EQ(Listen("name"), EndpointError::kNone) << message_;
    const auto poller = SystemTransport().CreatePoller();
    ASSERT_TRUE(poller->Arm(*listener_, 1, Poller::kRead));
    ASSERT_FALSE(poller->Wait(0));
    poller->Remove(*listener_);
    listener_.reset();
  };
  once();
  const long before = OpenDescriptors();
  ASSERT_GT(before, 0);
  for (int i = 0; i < 100; ++i) once();
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() <= before + kDescriptorsOfLocks; }))
      << OpenDescriptors() << " instead of " << before;
}

}  // namespace
}  // namespace os
