#pragma once

namespace lpc {

/// The calling thread's latest code; both ends of the transport share it.
inline int& LastError() {
  thread_local int error = 0;
  return error;
}

/// Leaves `error` for GetLPCLastError and says whether there was none.
inline bool Conclude(int error) {
  LastError() = error;
  return error == 0;
}

}  // namespace lpc
