# Everything that a person may choose, and the flags that all of our own code is compiled with.
option(TOLM_BUILD_TESTS "Build the tests" ON)
option(TOLM_BUILD_BENCH "Build the measurements" OFF)
option(TOLM_BUILD_TRUST "Build the programs of ./dev trust" ${TOLM_BUILD_TESTS})
option(TOLM_BUILD_FUZZ "Build the fuzz targets (clang only)" OFF)
option(TOLM_HARDEN "Protect what is built for release against faults in memory" ON)
option(TOLM_COVERAGE "Count which lines are executed (clang only)" OFF)
set(TOLM_SANITIZE "" CACHE STRING "Sanitizers for everything, for instance address,undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

find_program(TOLM_CCACHE ccache)
if(TOLM_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${TOLM_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${TOLM_CCACHE})
endif()

# What every target of ours is compiled with. Third-party code gets none of it.
add_library(tolm_flags INTERFACE)
target_compile_options(tolm_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror
  # Log lines and messages name source files from the project's root, on every machine alike.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 sees overlaps in std::string's operator+ that are not there (its bug 105651).
  target_compile_options(tolm_flags INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Inherited constructors and designated initialisers trip these without a fault in the code.
  target_compile_options(tolm_flags INTERFACE -Wno-missing-field-initializers
    # What is used without its lock (platform/os/include/os/ThreadSafety.h).
    -Wthread-safety)
endif()
target_link_libraries(tolm_flags INTERFACE Threads::Threads)

if(WIN32)
  # Windows 10 and newer, no macros named min and max, nothing of windows.h that is not asked for.
  add_compile_definitions(_WIN32_WINNT=0x0A00 WINVER=0x0A00 NOMINMAX WIN32_LEAN_AND_MEAN)
endif()
if(MINGW)
  # What is built needs nothing beside Windows itself.
  add_link_options(-static)
  # printf as the standard has it, %zu included.
  add_compile_definitions(__USE_MINGW_ANSI_STDIO=1)
  # Templates make more sections than the usual object format can count.
  add_compile_options(-Wa,-mbig-obj)
endif()

# Debug builds ask the standard library to look at what it is given: indices, empty optionals, null pointers.
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

# What makes a fault in memory end the process instead of serving somebody, in all that ships: third-party code that
# is linked in, too. tests/package reads them off the binaries. Indirect branches are not marked (-fcf-protection):
# the system's C library has no marks, and one library without makes the loader ignore all.
if(TOLM_HARDEN AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT TOLM_SANITIZE)
  add_compile_options(-fstack-protector-strong)
  add_link_options(-fstack-protector-strong)  # MinGW has the guards in a library of their own
  add_compile_definitions(_FORTIFY_SOURCE=2)
  if(NOT WIN32)
    # Windows looks at each page of a large frame by itself; there the option ends GCC 12 in an internal error.
    add_compile_options(-fstack-clash-protection)
    add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
  endif()
endif()

if(TOLM_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # What the sanitizers add hides from GCC that the standard library's own code initialises everything.
  target_compile_options(tolm_flags INTERFACE -Wno-maybe-uninitialized)
endif()
# For tests: a sanitizer takes more memory, stack and time.
set(TOLM_IS_SANITIZED 0)
if(TOLM_SANITIZE)
  set(TOLM_IS_SANITIZED 1)
  add_compile_options(-fsanitize=${TOLM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TOLM_SANITIZE})
endif()
if(TOLM_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()
