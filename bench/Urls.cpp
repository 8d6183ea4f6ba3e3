#include "Urls.h"

namespace bench {
namespace {

constexpr char kId[] = "<ID>";

std::string UrlOf(const std::string& id, const char* what) {
  return "/bench/" + id + '/' + what + '/' + kId;
}

std::string ServiceUrl(std::uint64_t number, const char* what, const std::string& item) {
  return "/api/v1/service-" + std::to_string(number) + '/' + what + '/' + item;
}

}  // namespace

std::string PluginName(std::size_t number) {
  return "plugin-" + std::to_string(number);
}

std::string EchoUrl(const std::string& id) {
  return UrlOf(id, "echo");
}
std::string AnswerUrl(const std::string& id) {
  return UrlOf(id, "answer");
}
std::string SourceUrl(const std::string& id) {
  return UrlOf(id, "source");
}
std::string CountUrl(const std::string& id) {
  return UrlOf(id, "count");
}

std::string OneOf(const std::string& pattern) {
  std::string url = pattern;
  return url.replace(url.find(kId), sizeof kId - 1, "4711");
}

std::string RegisteredUrl(std::uint64_t number, std::uint64_t item) {
  return ServiceUrl(number, "items", std::to_string(item));
}

std::string UnknownUrl(std::uint64_t number, std::uint64_t item) {
  return ServiceUrl(number, "orders", std::to_string(item));
}

std::string RegistrationOf(std::uint64_t first, std::uint64_t end) {
  std::string body = R"({"RegisterInfo":{"SupportUrlList":[)";
  for (std::uint64_t number = first; number < end; ++number) {
    if (number > first) body += ',';
    body += R"({"Url":")" + ServiceUrl(number, "items", kId) + R"(","Timeout":5000})";
  }
  return body + "]}}";
}

}  // namespace bench
