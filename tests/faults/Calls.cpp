// The system's calls, with a say in each: also those that libraries make for us, since a program's own
// functions come before a library's. Their arguments pass unseen, so each is a machine word here.

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "Sites.h"

using tolm::faults::Fails;
using tolm::faults::Next;

namespace {

using Word = std::intptr_t;
constexpr Word kNull = 0;

// Linux shuts each of them down that there is.
bool IsLocalSocket(Word socket) {
  const int error = errno;
  int domain = 0;
  socklen_t size = sizeof domain;
  auto* const ask = reinterpret_cast<decltype(&::getsockopt)>(Next("getsockopt"));
  const bool known = ask(static_cast<int>(socket), SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0;
  errno = error;
  return known && domain == AF_UNIX;
}

// To wake who waits cannot fail.
bool IsWakeUp(Word number, Word operation) {
  const Word command = operation & FUTEX_CMD_MASK;
  return number == SYS_futex && (command == FUTEX_WAKE || command == FUTEX_WAKE_BITSET);
}

}  // namespace

/// NAME fails with RESULT and errno set, when CONDITION holds. Six words are all that fits into registers.
#define TOLM_CALL(name, result, error) TOLM_CALL_IF(true, name, result, error)
#define TOLM_CALL_IF(condition, name, result, error)                                                \
  extern "C" __attribute__((visibility("default")))                                                 \
  Word Fallible_##name(Word a, Word b, Word c, Word d, Word e, Word f) asm(#name);                  \
  Word Fallible_##name(Word a, Word b, Word c, Word d, Word e, Word f) {                            \
    static std::atomic<void*> next;                                                                 \
    if ((condition) && Fails(#name)) {                                                              \
      errno = error;                                                                                \
      return result;                                                                                \
    }                                                                                               \
    void* found = next.load(std::memory_order_relaxed);                                             \
    if (found == nullptr) next = found = Next(#name);                                               \
    return reinterpret_cast<Word (*)(Word, Word, Word, Word, Word, Word)>(found)(a, b, c, d, e, f); \
  }

// Files and folders.
TOLM_CALL(open, -1, EMFILE)
TOLM_CALL(open64, -1, EMFILE)
TOLM_CALL(openat, -1, EMFILE)
TOLM_CALL(openat64, -1, EMFILE)
TOLM_CALL(read, -1, EIO)
TOLM_CALL(pread, -1, EIO)
TOLM_CALL(pread64, -1, EIO)
TOLM_CALL(write, -1, ENOSPC)
TOLM_CALL(pwrite, -1, ENOSPC)
TOLM_CALL(pwrite64, -1, ENOSPC)
TOLM_CALL(writev, -1, ENOSPC)
TOLM_CALL(fopen, kNull, EMFILE)
TOLM_CALL(fopen64, kNull, EMFILE)
TOLM_CALL(fread, 0, EIO)
TOLM_CALL(fwrite, 0, ENOSPC)
TOLM_CALL(fflush, EOF, ENOSPC)
TOLM_CALL(fseek, -1, EIO)
TOLM_CALL(ftell, -1, EIO)
TOLM_CALL(fstat, -1, ENOMEM)
TOLM_CALL(fstat64, -1, ENOMEM)
TOLM_CALL(stat, -1, EACCES)
TOLM_CALL(stat64, -1, EACCES)
TOLM_CALL(lstat, -1, EACCES)
TOLM_CALL(lstat64, -1, EACCES)
TOLM_CALL(fstatat, -1, EACCES)
TOLM_CALL(fstatat64, -1, EACCES)
TOLM_CALL(access, -1, EACCES)
TOLM_CALL(statvfs, -1, EIO)
TOLM_CALL(mkdir, -1, ENOSPC)
TOLM_CALL(unlink, -1, EBUSY)
TOLM_CALL(unlinkat, -1, EBUSY)
TOLM_CALL(remove, -1, EBUSY)
TOLM_CALL(rename, -1, ENOSPC)
TOLM_CALL(ftruncate, -1, ENOSPC)
TOLM_CALL(ftruncate64, -1, ENOSPC)
TOLM_CALL(posix_fallocate, ENOSPC, errno)
TOLM_CALL(posix_fallocate64, ENOSPC, errno)
TOLM_CALL(fsync, -1, EIO)
TOLM_CALL(fdatasync, -1, EIO)
TOLM_CALL(chmod, -1, EPERM)
TOLM_CALL(fchmod, -1, EPERM)
TOLM_CALL(fchmodat, -1, EPERM)
TOLM_CALL(readlink, -1, EACCES)
TOLM_CALL(readlinkat, -1, EACCES)
TOLM_CALL(realpath, kNull, EACCES)
TOLM_CALL(getcwd, kNull, ENOENT)
TOLM_CALL(opendir, kNull, EMFILE)
TOLM_CALL(fdopendir, kNull, ENOMEM)
TOLM_CALL(readdir, kNull, EIO)
TOLM_CALL(readdir64, kNull, EIO)
TOLM_CALL(flock, -1, ENOLCK)
TOLM_CALL(fcntl, -1, b == F_DUPFD || b == F_DUPFD_CLOEXEC ? EMFILE : ENOLCK)
TOLM_CALL(fcntl64, -1, b == F_DUPFD || b == F_DUPFD_CLOEXEC ? EMFILE : ENOLCK)

// Sockets, and what is waited for.
TOLM_CALL(socket, -1, EMFILE)
TOLM_CALL(socketpair, -1, EMFILE)
TOLM_CALL(bind, -1, EADDRINUSE)
TOLM_CALL(listen, -1, EADDRINUSE)
TOLM_CALL(accept, -1, ENFILE)
TOLM_CALL(accept4, -1, ENFILE)
TOLM_CALL(connect, -1, ECONNREFUSED)
TOLM_CALL_IF(!IsLocalSocket(a), shutdown, -1, ENOTCONN)
TOLM_CALL(getsockname, -1, ENOBUFS)
TOLM_CALL(getpeername, -1, ENOBUFS)
TOLM_CALL(getsockopt, -1, ENOBUFS)
TOLM_CALL(setsockopt, -1, ENOBUFS)
TOLM_CALL(ioctl, -1, ENOMEM)
TOLM_CALL(recv, -1, ECONNRESET)
TOLM_CALL(recvfrom, -1, ECONNRESET)
TOLM_CALL(recvmsg, -1, ECONNRESET)
TOLM_CALL(send, -1, ENOBUFS)
TOLM_CALL(sendto, -1, ENOBUFS)
TOLM_CALL(sendmsg, -1, ENOBUFS)
TOLM_CALL(epoll_create1, -1, EMFILE)
TOLM_CALL_IF(b == EPOLL_CTL_ADD, epoll_ctl, -1, ENOSPC)
TOLM_CALL(epoll_wait, -1, EINTR)
TOLM_CALL(poll, -1, ENOMEM)
TOLM_CALL(eventfd, -1, EMFILE)
TOLM_CALL(timerfd_create, -1, EMFILE)

// Memory, threads and processes.
TOLM_CALL(mmap, -1, ENOMEM)
TOLM_CALL(mmap64, -1, ENOMEM)
TOLM_CALL(posix_memalign, ENOMEM, errno)
TOLM_CALL(aligned_alloc, kNull, ENOMEM)
TOLM_CALL(pthread_create, EAGAIN, errno)
TOLM_CALL(pthread_key_create, EAGAIN, errno)
TOLM_CALL(pthread_setname_np, ERANGE, errno)
TOLM_CALL(pipe2, -1, EMFILE)
TOLM_CALL(dup, -1, EMFILE)
TOLM_CALL(dup2, -1, EBUSY)
TOLM_CALL(dup3, -1, EBUSY)
TOLM_CALL(fork, -1, EAGAIN)
TOLM_CALL(execv, -1, ENOMEM)
TOLM_CALL(execve, -1, ENOMEM)
TOLM_CALL(waitid, -1, EINTR)
TOLM_CALL(waitpid, -1, EINTR)
TOLM_CALL(kill, -1, EPERM)
TOLM_CALL(pidfd_open, -1, EMFILE)
TOLM_CALL(pidfd_send_signal, -1, EPERM)
TOLM_CALL(prctl, -1, EINVAL)
TOLM_CALL(close_range, -1, ENOSYS)
TOLM_CALL(getentropy, -1, EIO)
TOLM_CALL(nanosleep, -1, EINTR)
TOLM_CALL(clock_nanosleep, EINTR, errno)

// The seventh word is on the stack.
extern "C" __attribute__((visibility("default"))) Word FallibleSyscall(Word number, Word a, Word b, Word c,
                                                                       Word d, Word e, Word f) asm("syscall");
Word FallibleSyscall(Word number, Word a, Word b, Word c, Word d, Word e, Word f) {
  static std::atomic<void*> next;
  if (!IsWakeUp(number, b) && Fails("syscall")) {
    errno = EINTR;
    return -1;
  }
  void* found = next.load(std::memory_order_relaxed);
  if (found == nullptr) next = found = Next("syscall");
  return reinterpret_cast<Word (*)(Word, Word, Word, Word, Word, Word, Word)>(found)(number, a, b, c, d, e,
                                                                                     f);
}

// What has to be released is released all the same.
extern "C" __attribute__((visibility("default"))) Word FallibleFclose(Word file) asm("fclose");
Word FallibleFclose(Word file) {
  static std::atomic<void*> next;
  const bool fails = Fails("fclose");
  void* found = next.load(std::memory_order_relaxed);
  if (found == nullptr) next = found = Next("fclose");
  const Word result = reinterpret_cast<Word (*)(Word)>(found)(file);
  if (!fails) return result;
  errno = ENOSPC;
  return EOF;
}
