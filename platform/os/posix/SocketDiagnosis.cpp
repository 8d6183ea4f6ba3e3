#include "SocketDiagnosis.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "Descriptor.h"

namespace os {
namespace {

/// As much as the kernel puts into one answer at most.
constexpr std::size_t kAnswerBytes = 32 * 1024;

/// What /proc/net/tcp shows: all states but that of a socket which is bound and does nothing.
constexpr std::uint32_t kShownStates = 0x1FFF;

enum class Answer { kMore, kEnd, kFailed };

bool Ask(int kernel) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 question;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.question.sdiag_family = AF_INET;
  message.question.sdiag_protocol = IPPROTO_TCP;
  message.question.idiag_states = kShownStates;
  return ::send(kernel, &message, sizeof message, 0) == static_cast<ssize_t>(sizeof message);
}

/// Nothing when what came is not the kernel's, whole answer.
std::string_view Receive(int kernel, char (&buffer)[kAnswerBytes]) {
  for (;;) {
    iovec part{buffer, sizeof buffer};
    sockaddr_nl sender{};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t got = ::recvmsg(kernel, &message, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || (message.msg_flags & MSG_TRUNC) != 0 || sender.nl_pid != 0) return {};
    return {buffer, static_cast<std::size_t>(got)};
  }
}

SocketLine Convert(const inet_diag_msg& from) {
  SocketLine line;
  line.row.local_address = from.id.idiag_src[0];
  line.row.local_port = ntohs(from.id.idiag_sport);
  line.row.remote_address = from.id.idiag_dst[0];
  line.row.remote_port = ntohs(from.id.idiag_dport);
  line.row.state = TcpState(from.idiag_state);
  line.user = from.idiag_uid;
  line.inode = from.idiag_inode;
  return line;
}

/// Whether the end, which stands at the beginning of `answer`, is one that the kernel wanted.
bool IsSuccess(const nlmsghdr& end, std::string_view answer) {
  int error = 0;
  if (end.nlmsg_len >= NLMSG_LENGTH(sizeof error)) {
    std::memcpy(&error, answer.data() + NLMSG_HDRLEN, sizeof error);
  }
  return error == 0;
}

Answer TakeLines(std::string_view answer, std::vector<SocketLine>& lines) {
  if (answer.empty()) return Answer::kFailed;
  while (answer.size() >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, answer.data(), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > answer.size()) return Answer::kFailed;
    if (header.nlmsg_type == NLMSG_DONE) return IsSuccess(header, answer) ? Answer::kEnd : Answer::kFailed;
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
      return Answer::kFailed;
    }
    inet_diag_msg socket;
    std::memcpy(&socket, answer.data() + NLMSG_HDRLEN, sizeof socket);
    lines.push_back(Convert(socket));
    answer.remove_prefix(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), answer.size()));
  }
  return Answer::kMore;
}

}  // namespace

bool AskForTcpSockets(std::vector<SocketLine>& lines) {
  const Descriptor kernel(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!kernel || !Ask(kernel.get())) return false;
  const std::size_t before = lines.size();
  alignas(nlmsghdr) char buffer[kAnswerBytes];
  Answer answer = Answer::kMore;
  while (answer == Answer::kMore) answer = TakeLines(Receive(kernel.get(), buffer), lines);
  if (answer == Answer::kFailed) lines.resize(before);
  return answer == Answer::kEnd;
}

}  // namespace os
