#pragma once

#include <cstddef>
#include <string_view>

namespace proto {

/// Where an escape in a JSON text stands for one half of a surrogate pair without the other: no UTF-8 has
/// such a character, so whoever writes down what was read would write no text. npos when there is none. What
/// a text that is not JSON gives means nothing.
std::size_t FindUnpairedSurrogate(std::string_view json);

}  // namespace proto
