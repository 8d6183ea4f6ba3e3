#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace guard {

/// Whose port element in the frame's configuration file counts.
enum class Role { kClient, kServer };

/// Reads the frame's port from its configuration file, which is XML and may be padded with line feeds; when
/// that is missing or empty, from the file of the same name that ends in ".data". Comes to the frame's own
/// conclusions: what names no number is port 65535, larger numbers are cut to 16 bits. 0, with the reason in
/// `why`, when there is no port.
std::uint16_t ReadConfigPort(const std::filesystem::path& config, Role role, std::string& why);

}  // namespace guard
