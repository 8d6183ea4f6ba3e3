# cJSON, from the distribution's source package: the distribution ships no static library, and the
# frame exports the whole API from its own shared library. "./dev setup" puts the source in place.
set(TOLM_CJSON_SOURCE "${PROJECT_SOURCE_DIR}/build/deps/cjson" CACHE PATH "Unpacked cJSON source")
if(NOT EXISTS ${TOLM_CJSON_SOURCE}/cJSON.c)
  message(FATAL_ERROR "No cJSON source in ${TOLM_CJSON_SOURCE}: run ./dev setup first")
endif()

# The header is reached as <cjson/cJSON.h>, as where it is installed.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cjson-include/cjson)
configure_file(${TOLM_CJSON_SOURCE}/cJSON.h ${CMAKE_BINARY_DIR}/cjson-include/cjson/cJSON.h COPYONLY)

add_library(tolm_cjson STATIC ${TOLM_CJSON_SOURCE}/cJSON.c)
add_library(Tolm::cJSON ALIAS tolm_cjson)
# Both definitions are cJSON's own way of saying "exported although everything else is hidden".
target_compile_definitions(tolm_cjson PRIVATE CJSON_EXPORT_SYMBOLS CJSON_API_VISIBILITY)
target_compile_options(tolm_cjson PRIVATE -w)
if(TOLM_SANITIZE MATCHES "thread")
  # Every parse notes where it failed in a global, for cJSON_GetErrorPtr, which nobody here calls.
  target_compile_options(tolm_cjson PRIVATE -fno-sanitize=thread)
endif()
target_include_directories(tolm_cjson SYSTEM PUBLIC $<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/cjson-include>)
