# What the library and the programs for Windows show and need is read on the build machine, which has the
# tools for it.
find_program(TOLM_CXXFILT x86_64-w64-mingw32-c++filt REQUIRED)
set(read_interface ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/dll_interface.py)

add_test(NAME system_test.Library.ExportsTheDocumentedOperationsAndCJsonAndNothingElse
  COMMAND ${read_interface} exports ${CMAKE_OBJDUMP} ${TOLM_CXXFILT} $<TARGET_FILE:TolmLPCFrame>
    ${CMAKE_BINARY_DIR}/cjson-include/cjson/cJSON.h
    ${PROJECT_SOURCE_DIR}/include/TolmLPCFrame.h ${PROJECT_SOURCE_DIR}/include/TolmLPCFrameDiagnostics.h)

set(programs tolm_guard tolm_agent tolm_host frame_tour tour_kitchen tour_waiter
  example_host example_clock_plugin example_relay_plugin)
list(TRANSFORM programs REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE files)
add_dependencies(system_test ${programs})
add_test(NAME system_test.Library.NeedsNothingThatIsNotExpected
  COMMAND ${read_interface} imports ${CMAKE_OBJDUMP} $<TARGET_FILE:TolmLPCFrame> ${files})

set_tests_properties(system_test.Library.ExportsTheDocumentedOperationsAndCJsonAndNothingElse
  system_test.Library.NeedsNothingThatIsNotExpected PROPERTIES TIMEOUT 60 LABELS system)
