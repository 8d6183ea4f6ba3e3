# What is installed beside the targets' own files, and how CPack makes packages of it: one archive with
# everything, and on Linux three Debian packages too. docs/packages.md says what is in which.
#
# Components: frame (what a host needs at run time), sdk (what a build needs), apps (host, agent, guard),
# documents, licences; and copyright_*, which Debian packages have in place of licences.
if(NOT PROJECT_IS_TOP_LEVEL)
  # Whoever takes in the tree packs its own.
  return()
endif()

include(CMakePackageConfigHelpers)
include(TolmLicences)
set(templates ${PROJECT_SOURCE_DIR}/cmake/package)
set(made ${CMAKE_BINARY_DIR}/package)

# For find_package.
set(TOLM_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/TolmLPCFrame)
configure_package_config_file(${templates}/TolmLPCFrameConfig.cmake.in ${made}/TolmLPCFrameConfig.cmake
                              INSTALL_DESTINATION ${TOLM_CMAKE_FOLDER})
write_basic_package_version_file(${made}/TolmLPCFrameConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${made}/TolmLPCFrameConfig.cmake ${made}/TolmLPCFrameConfigVersion.cmake
        DESTINATION ${TOLM_CMAKE_FOLDER} COMPONENT sdk)
install(EXPORT TolmLPCFrameTargets NAMESPACE Tolm:: DESTINATION ${TOLM_CMAKE_FOLDER} COMPONENT sdk)

# For pkg-config, which finds everything from where its file lies.
if(NOT WIN32)
  set(TOLM_PC_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH TOLM_PC_PREFIX /${TOLM_PC_FOLDER} /)
  string(REGEX REPLACE "/$" "" TOLM_PC_PREFIX ${TOLM_PC_PREFIX})
  foreach(name tolmlpcframe tolmplugin)
    configure_file(${templates}/${name}.pc.in ${made}/${name}.pc @ONLY)
    install(FILES ${made}/${name}.pc DESTINATION ${TOLM_PC_FOLDER} COMPONENT sdk)
  endforeach()
endif()

# For people. The examples come with a build file that takes the package.
configure_file(${templates}/ExamplesProject.cmake.in ${made}/examples/CMakeLists.txt @ONLY)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ ${made}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        COMPONENT documents FILES_MATCHING PATTERN "*.cpp" REGEX "package/examples/CMakeLists.txt$")

set(TOLM_RUNTIME_DEB libtolmlpcframe${PROJECT_VERSION_MAJOR})
set(TOLM_DEVELOPMENT_DEB libtolmlpcframe-dev)
set(TOLM_PROGRAMS_DEB tolmlpcframe)
foreach(part RUNTIME DEVELOPMENT PROGRAMS)
  string(TOLOWER copyright_${part} component)
  install(FILES ${CMAKE_BINARY_DIR}/licences/copyright
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${TOLM_${part}_DEB} COMPONENT ${component})
endforeach()

# Everything that is packed, and nothing else: cmake --build FOLDER --target packaged
add_custom_target(packaged DEPENDS TolmLPCFrame tolm_plugin_archive tolm_host tolm_agent tolm_guard)

include(TolmCPack)
