# Debian packages made by "cpack -G DEB" (scripts/package.sh). They are laid out under /usr
# whatever CMAKE_INSTALL_PREFIX the build was configured with (the default /usr/local included):
# every install destination is relative to the prefix, the library directory is lib/<multiarch>
# for any prefix (top-level CMakeLists.txt), and the CMake package and the pkg-config files find
# their prefix from where they lie. One package per install component:
#
#   runtime      liblogferry2      the shared libraries (liblogferry.so.2 and what ships beside it)
#   development  liblogferry-dev   headers, CMake package, pkg-config files, the .so links
#   tools        logferry-tools    logferry-monitor, its manual page, systemd unit, user and
#                                  run-state directory
#
# Whatever a target installs with one of these components lands in its package; nothing here
# names the files of the first two, so further libraries only need their COMPONENT arguments.
# The version is the project's (project() in the top-level CMakeLists.txt).

set(_pkg ${CMAKE_CURRENT_LIST_DIR}/../packaging)
set(LOGFERRY_MAINTAINER "logferry developers <logferry-developers@lists.logferry.dev>")
set(LOGFERRY_DEB_RUNTIME liblogferry2)
set(LOGFERRY_DEB_DEVELOPMENT liblogferry-dev)
set(LOGFERRY_DEB_TOOLS logferry-tools)

# Compressed documentation as Debian expects it: gzip -9, no name or time stamp in the header.
find_program(LOGFERRY_GZIP gzip)
if(NOT LOGFERRY_GZIP)
  message(FATAL_ERROR "gzip is needed for the manual page and the changelog")
endif()
function(logferry_gzip target source output)
  add_custom_command(OUTPUT ${output}
    COMMAND ${LOGFERRY_GZIP} -9 -n -c ${source} > ${output}
    DEPENDS ${source}
    VERBATIM)
  add_custom_target(${target} ALL DEPENDS ${output})
endfunction()

set(_man ${CMAKE_CURRENT_BINARY_DIR}/logferry-monitor.1.gz)
logferry_gzip(logferry_manual ${CMAKE_CURRENT_SOURCE_DIR}/docs/logferry-monitor.1 ${_man})
install(FILES ${_man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# The service: unit, its user and group, its run-state directory. systemd looks for them under
# /usr/lib whatever the library directory is.
install(FILES ${_pkg}/logferry-monitor.service DESTINATION lib/systemd/system COMPONENT tools)
install(FILES ${_pkg}/logferry.sysusers DESTINATION lib/sysusers.d RENAME logferry.conf COMPONENT tools)
install(FILES ${_pkg}/logferry.tmpfiles DESTINATION lib/tmpfiles.d RENAME logferry.conf COMPONENT tools)

# Copyright and changelog in every package's documentation directory.
configure_file(${_pkg}/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog @ONLY)
set(_changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz)
logferry_gzip(logferry_changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog ${_changelog})
foreach(component runtime development tools)
  string(TOUPPER ${component} _upper)
  install(FILES ${_pkg}/copyright ${_changelog}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${LOGFERRY_DEB_${_upper}} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME logferry)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${LOGFERRY_MAINTAINER}")
set(CPACK_PACKAGE_VENDOR "The logferry developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE logferry)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://logferry.dev/")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Dependencies on the system's libraries from dpkg-shlibdeps; the project's own libraries are
# looked up in the build tree, and the packages among each other depend on the exact version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${LOGFERRY_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The linker cache is refreshed by the ldconfig trigger; the maintainer scripts only say so
# (without them CPack would generate scripts that call ldconfig directly).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${_pkg}/runtime/triggers ${_pkg}/runtime/postinst ${_pkg}/runtime/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "client-side logging library of an Adaptive platform\n\
liblogferry hands an application's log messages, as compact binary records,\n\
through a POSIX shared-memory channel to the platform's log daemon, which\n\
finds the channels through a system-wide listener list.\n\
.\n\
This package holds the shared libraries applications run with.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${LOGFERRY_DEB_DEVELOPMENT})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "client-side logging library of an Adaptive platform (development files)\n\
liblogferry hands an application's log messages, as compact binary records,\n\
through a POSIX shared-memory channel to the platform's log daemon.\n\
.\n\
This package holds the C++ headers, the CMake package and the pkg-config\n\
files needed to build applications against liblogferry.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${LOGFERRY_DEB_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${_pkg}/tools/postinst ${_pkg}/tools/prerm ${_pkg}/tools/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "log daemon side of liblogferry: logferry-monitor\n\
logferry-monitor takes the log daemon's role for applications that log\n\
through liblogferry: it holds the listener list and its lock file, attaches\n\
to every application's channel and shows or serves what they log.\n\
.\n\
This package also holds its systemd unit, with the daemon's user, group and\n\
run-state directory, and its manual page.")

include(CPack)
