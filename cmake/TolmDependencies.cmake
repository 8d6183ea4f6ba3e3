# Every library that we call, under one target name each, whatever the system calls it.
#
#   Boost::headers  CLI11::CLI11  spdlog::spdlog_header_only  pugixml::pugixml
#   Tolm::BoostThread  Tolm::RapidJSON  Tolm::WebSockets  Tolm::cJSON  and, for tests, GTest::*  Python3::Interpreter
find_package(Threads REQUIRED)
find_package(pugixml REQUIRED)
add_library(tolm_rapidjson INTERFACE)
add_library(Tolm::RapidJSON ALIAS tolm_rapidjson)
# Of Boost.Thread the shared mutex alone, which is in its headers.
add_library(tolm_boost_thread INTERFACE)
add_library(Tolm::BoostThread ALIAS tolm_boost_thread)

if(WIN32 AND CMAKE_CROSSCOMPILING)
  # Libraries that are headers only come from a folder of links to the build machine's, whose CMake
  # packages speak of its own binaries ("./dev windows" lays it out).
  list(GET CMAKE_FIND_ROOT_PATH 0 prefix)
  foreach(name Boost::headers CLI11::CLI11 fmt::fmt-header-only spdlog::spdlog_header_only)
    add_library(${name} INTERFACE IMPORTED)
    target_include_directories(${name} SYSTEM INTERFACE ${prefix}/include)
  endforeach()
  target_compile_definitions(Boost::headers INTERFACE BOOST_ALL_NO_LIB)
  target_compile_definitions(tolm_boost_thread INTERFACE BOOST_THREAD_USE_LIB)
  target_compile_definitions(fmt::fmt-header-only INTERFACE FMT_HEADER_ONLY=1)
  target_compile_definitions(spdlog::spdlog_header_only INTERFACE SPDLOG_FMT_EXTERNAL)
  target_link_libraries(spdlog::spdlog_header_only INTERFACE fmt::fmt-header-only)
  target_include_directories(tolm_rapidjson SYSTEM INTERFACE ${prefix}/include)
  find_package(libwebsockets REQUIRED CONFIG PATHS ${prefix}/cmake NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  add_library(tolm_websockets INTERFACE)
  add_library(Tolm::WebSockets ALIAS tolm_websockets)
  target_include_directories(tolm_websockets SYSTEM INTERFACE ${prefix}/include)
  target_link_libraries(tolm_websockets INTERFACE websockets ws2_32 userenv psapi iphlpapi crypt32)
else()
  find_package(Boost 1.81 REQUIRED)
  # The later shared mutex: a reader takes one plain mutex on the way in and one on the way out, the earlier
  # one takes two and four. And no interruptions: for these each wait looks for the thread's data, under a key
  # of which nobody sees whether the system had one left. On Windows there is another one, and this says nothing.
  target_compile_definitions(tolm_boost_thread INTERFACE BOOST_THREAD_V2_SHARED_MUTEX
                                                         BOOST_THREAD_DONT_PROVIDE_INTERRUPTIONS)
  if(TOLM_SANITIZE MATCHES "thread")
    # Fences are beyond ThreadSanitizer. What Asio hands from thread to thread is under its locks as well.
    target_compile_definitions(Boost::headers INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
  find_package(CLI11 REQUIRED)
  find_package(fmt REQUIRED)
  find_package(spdlog REQUIRED)
  find_package(RapidJSON REQUIRED)
  target_include_directories(tolm_rapidjson SYSTEM INTERFACE ${RapidJSON_INCLUDE_DIRS} ${RAPIDJSON_INCLUDE_DIRS})
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(LIBWEBSOCKETS REQUIRED IMPORTED_TARGET GLOBAL libwebsockets)
  add_library(Tolm::WebSockets ALIAS PkgConfig::LIBWEBSOCKETS)
endif()

target_link_libraries(tolm_boost_thread INTERFACE Boost::headers Threads::Threads)

include(TolmCJson)

if(TOLM_BUILD_TESTS)
  find_package(GTest REQUIRED)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
endif()
