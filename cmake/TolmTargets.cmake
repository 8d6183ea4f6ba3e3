# The few shapes that our targets have, so that each folder's list stays a list.

include(GoogleTest)

# tolm_platform_library(<name> ALIAS <alias> SOURCES <file>... [PUBLIC <lib>...] [PRIVATE <lib>...])
# A static library below platform/ with its public headers in include/.
function(tolm_platform_library name)
  cmake_parse_arguments(ARG "" "ALIAS" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  add_library(${ARG_ALIAS} ALIAS ${name})
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE tolm_flags ${ARG_PRIVATE})
endfunction()

# tolm_program(<name> SOURCES <file>... LIBS <lib>...)
function(tolm_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE tolm_flags ${ARG_LIBS})
  tolm_resources(${name} "TolmLPCFrame: ${name}")
endfunction()

# tolm_test(<name> SOURCES <file>... LIBS <lib>... [TIMEOUT <seconds>] [LABELS <label>...]
#           [PROPERTIES <ctest property>...] [OWN_NEW])
# A GoogleTest program; every case is a ctest of its own, named <name>.<Suite>.<Case>, and so runs
# in a process of its own. On POSIX its fallible calls can be made to fail (tests/faults), unless it replaces
# operator new itself.
function(tolm_test name)
  cmake_parse_arguments(ARG "OWN_NEW" "TIMEOUT" "SOURCES;LIBS;LABELS;PROPERTIES" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE tolm_flags ${ARG_LIBS} tolm_test_support GTest::gmock GTest::gtest_main)
  if(TARGET tolm_faults AND NOT ARG_OWN_NEW)
    target_link_libraries(${name} PRIVATE tolm_faults)
  endif()
  gtest_discover_tests(${name}
    TEST_PREFIX ${name}.
    NO_PRETTY_VALUES
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}" ${ARG_PROPERTIES})
endfunction()
