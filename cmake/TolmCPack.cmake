# CPack's variables, and the include of CPack at the end.
string(TOLOWER ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR} system)

# Debian asks for somebody to write to.
set(TOLM_PACKAGE_CONTACT "TolmLPCFrame maintainers <maintainers@tolmlpcframe.invalid>" CACHE STRING
    "Whom the packages name as their maintainer")

set(CPACK_PACKAGE_NAME TolmLPCFrame)
set(CPACK_PACKAGE_VENDOR "TolmLPCFrame maintainers")
set(CPACK_PACKAGE_CONTACT ${TOLM_PACKAGE_CONTACT})
set(CPACK_PACKAGE_FILE_NAME TolmLPCFrame-${PROJECT_VERSION}-${system})
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)
# Whatever the umask of whoever packs.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/package/CPackGenerators.cmake)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR TGZ DEB)
endif()

set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)

# Debian packages: the library for hosts that were built with it, what builds hosts and plugins, and the
# ready-made programs; dpkg-shlibdeps finds which libraries of the distribution each of them loads.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(same_version "${TOLM_RUNTIME_DEB} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${TOLM_RUNTIME_DEB})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The shared library that a host application loads.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${TOLM_DEVELOPMENT_DEB})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "What hosts and plugins are built with: headers, the C++ SDK for plugins, files for CMake and pkg-config, guides and examples.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME ${TOLM_PROGRAMS_DEB})
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS "${same_version}")
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION
    "Ready-made programs, in a folder to copy: a host to try plugins with, and the agent and the guard that keep plugins running.")

include(CPack)
foreach(part runtime development programs)
  cpack_add_component_group(${part})
  cpack_add_component(copyright_${part} GROUP ${part})
endforeach()
cpack_add_component(frame GROUP runtime)
cpack_add_component(sdk GROUP development)
cpack_add_component(documents GROUP development)
cpack_add_component(apps GROUP programs)
cpack_add_component(licences)
