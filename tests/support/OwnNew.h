#pragma once

#include <cstddef>

namespace tolm::test {

/// Asked before each allocation with `new` in a program that is linked with OwnNew.cpp, which replaces the
/// global one; false refuses it. Each such program defines it. On any thread; must not allocate.
bool MayAllocate(std::size_t size) noexcept;

}  // namespace tolm::test
