// Any request of a client: it is granted only when it is what RFC 6455 asks for, from a program of this
// machine, and its answer is one whole answer.

#include <algorithm>

#include "UpgradeCheck.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

bool IsControl(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
}

bool IsOneAnswer(const std::string& answer) {
  return answer.starts_with("HTTP/1.1 ") && answer.find("\r\n\r\n") == answer.size() - 4;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string head(reinterpret_cast<const char*>(data), size);
  Tolm::Net::IsLoopbackHost(head);
  const auto request = Tolm::Net::ParseRequest(head);
  if (!request) return 0;
  Require(head.find("\r\n\r\n") != std::string::npos, "a request has its empty line");
  for (const std::string* text : {&request->method, &request->target, &request->host, &request->key}) {
    Require(std::none_of(text->begin(), text->end(), IsControl), "nothing of it can forge a line");
  }
  Require(request->version.size() == 8 && request->version.starts_with("HTTP/1."), "a request has a version");

  const char* const why = Tolm::Net::WhyForbidden(*request);
  if (why == nullptr) {
    Require(!request->has_origin && request->host_count == 1 && Tolm::Net::IsLoopbackHost(request->host),
            "only programs of this machine may have it");
  }
  std::string_view status;
  if (Tolm::Net::IsProperUpgrade(*request, status)) {
    Require(request->method == "GET" && request->has_connection_upgrade &&
                request->websocket_version == "13" && request->key.size() == 24,
            "it is what is asked for");
    Require(IsOneAnswer(Tolm::Net::UpgradeAnswer(*request)), "it is granted in one answer");
  } else {
    Require(status.starts_with("400 ") || status.starts_with("426 "), "the refusal says why");
    Require(IsOneAnswer(Tolm::Net::ErrorAnswer(status)), "it is refused in one answer");
  }
  return 0;
}
