#include "OutputPipe.h"

#include <atomic>
#include <string>
#include <utility>

namespace os {
namespace {

constexpr DWORD kBufferSize = 64 * 1024;

/// Pipes of this kind need a name. Whoever takes it first makes the start fail, and learns nothing.
std::wstring UnusedName() {
  static std::atomic<unsigned> count{0};
  return L"\\\\.\\pipe\\tolm-output-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
         std::to_wstring(++count);
}

}  // namespace

/// What the system writes to while a reading is under way; it must not move.
struct OutputPipe::State {
  State() = default;
  ~State() {
    DWORD count = 0;
    if (pipe && !has_ended && ::CancelIoEx(pipe.get(), &reading)) {
      ::GetOverlappedResult(pipe.get(), &reading, &count, TRUE);
    }
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void BeginReading() {
    if (!::ReadFile(pipe.get(), incoming.get(), kBufferSize, nullptr, &reading) &&
        ::GetLastError() != ERROR_IO_PENDING) {
      has_ended = true;
      ::SetEvent(ready.get());
    }
  }

  Handle ready;
  Handle pipe;
  OVERLAPPED reading{};
  bool has_ended = false;
  std::unique_ptr<char[]> incoming = std::make_unique<char[]>(kBufferSize);
  std::unique_ptr<char[]> taken = std::make_unique<char[]>(kBufferSize);
};

OutputPipe::OutputPipe() = default;
OutputPipe::~OutputPipe() = default;
OutputPipe::OutputPipe(OutputPipe&&) noexcept = default;
OutputPipe& OutputPipe::operator=(OutputPipe&&) noexcept = default;

Handle OutputPipe::Open() {
  auto state = std::make_unique<State>();
  state->ready = Handle(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!state->ready) return {};
  const std::wstring name = UnusedName();
  state->pipe = Handle(::CreateNamedPipeW(
      name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 0, kBufferSize, 0,
      nullptr));
  if (!state->pipe) return {};
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  Handle written(::CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inheritable, OPEN_EXISTING, 0, nullptr));
  if (!written) return {};
  state->reading.hEvent = state->ready.get();
  state_ = std::move(state);
  return written;
}

void OutputPipe::Begin() {
  state_->BeginReading();
}

bool OutputPipe::is_open() const {
  return state_ != nullptr;
}

HANDLE OutputPipe::ready() const {
  return state_->ready.get();
}

OutputPipe::Came OutputPipe::Take(std::string_view& piece) {
  if (::WaitForSingleObject(state_->ready.get(), 0) != WAIT_OBJECT_0) return Came::kNothing;
  DWORD count = 0;
  if (state_->has_ended || !::GetOverlappedResult(state_->pipe.get(), &state_->reading, &count, FALSE)) {
    state_->has_ended = true;
    Close();
    return Came::kEnd;
  }
  std::swap(state_->incoming, state_->taken);
  piece = {state_->taken.get(), count};
  state_->BeginReading();
  return Came::kPiece;
}

void OutputPipe::Close() {
  state_.reset();
}

}  // namespace os
