#pragma once

// Every url that is used here, and the plugins' names.

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

inline constexpr char kServingPlugin[] = "server";
inline constexpr char kCallingPlugin[] = "caller";

/// The plugins of a host that is a process of its own, by number.
std::string PluginName(std::size_t number);

/// What each plugin of this program serves; a request may have any number for "<ID>".
std::string EchoUrl(const std::string& id);    ///< answers with the body of the request
std::string AnswerUrl(const std::string& id);  ///< answers with one byte
std::string SourceUrl(const std::string& id);  ///< answers with as many bytes as the body says
std::string CountUrl(const std::string& id);   ///< counts what arrives
/// A url that `pattern` stands for.
std::string OneOf(const std::string& pattern);

/// What the host serves.
inline constexpr char kHostUrl[] = "/bench/host/4711";
inline constexpr char kHostCountUrl[] = "/bench/host/count/4711";

/// A url that belongs to the registered pattern `number`, and one that looks alike and belongs to none.
std::string RegisteredUrl(std::uint64_t number, std::uint64_t item);
std::string UnknownUrl(std::uint64_t number, std::uint64_t item);

inline constexpr std::uint64_t kUrlsPerRegistration = 10'000;
/// The body of a registration of the patterns `first` to `end`, without that one.
std::string RegistrationOf(std::uint64_t first, std::uint64_t end);

}  // namespace bench
