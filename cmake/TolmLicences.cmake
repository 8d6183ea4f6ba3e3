# The licences of what is linked in: texts that come with the packages of the build machine. Each has to be
# there when a package is made, not when something is built.

# Boost's file has the licences of all its tests and documents too; this leaves the one of its libraries.
function(tolm_boost_licence file)
  set(all /usr/share/doc/libboost1.81-dev/copyright)
  if(NOT EXISTS ${all})
    return()
  endif()
  file(READ ${all} text)
  string(FIND "${text}" "\nLicense: BSL-1.0\n Boost Software License" start)
  if(start EQUAL -1)
    return()
  endif()
  string(SUBSTRING "${text}" ${start} -1 text)
  string(FIND "${text}" "\n\nLicense:" end)
  string(SUBSTRING "${text}" 0 ${end} text)
  file(WRITE ${file} "Boost 1.81\n${text}\n")
endfunction()

set(TOLM_BOOST_LICENCE ${CMAKE_BINARY_DIR}/licences/Boost.txt)
tolm_boost_licence(${TOLM_BOOST_LICENCE})

# Pairs of a name and a file.
set(TOLM_LICENCES
  Boost ${TOLM_BOOST_LICENCE}
  CLI11 /usr/share/doc/libcli11-dev/copyright
  cJSON ${TOLM_CJSON_SOURCE}/LICENSE
  fmt /usr/share/doc/libfmt-dev/copyright
  libwebsockets /usr/share/doc/libwebsockets-dev/copyright
  pugixml /usr/share/doc/libpugixml-dev/copyright
  RapidJSON /usr/share/doc/rapidjson-dev/copyright
  spdlog /usr/share/doc/libspdlog-dev/copyright)
if(MINGW)
  # winpthreads is part of MinGW-w64.
  list(APPEND TOLM_LICENCES
    GCC-runtime /usr/share/doc/gcc-mingw-w64-base/copyright
    GPL-3 /usr/share/common-licenses/GPL-3
    MinGW-w64-and-winpthreads /usr/share/doc/mingw-w64-common/copyright)
endif()

# Side by side for archives, one file for each Debian package.
set(copyright "What TolmLPCFrame ${PROJECT_VERSION} contains of other projects, and on what terms.\n")
set(names ${TOLM_LICENCES})
while(names)
  list(POP_FRONT names name file)
  install(FILES ${file} DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences RENAME ${name}.txt COMPONENT licences)
  if(EXISTS ${file})
    file(READ ${file} text)
    string(APPEND copyright "\n======== ${name} ========\n\n${text}")
  endif()
endwhile()
file(WRITE ${CMAKE_BINARY_DIR}/licences/copyright "${copyright}")
