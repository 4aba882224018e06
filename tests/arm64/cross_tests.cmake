# Test build for a cross-compiled target (included from tests/CMakeLists.txt when
# CMAKE_CROSSCOMPILING). The build machine has no GoogleTest for the target, so it is built
# here from the sources of Debian's googletest package; and the test programs are linked
# statically, so that they run in a bare initramfs as well as under qemu's user mode.

set(LOGFERRY_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH
  "GoogleTest sources to build for the target (Debian package googletest)")
option(LOGFERRY_STATIC_TESTS "Link the test programs statically" ON)

if(NOT EXISTS ${LOGFERRY_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "No GoogleTest sources in ${LOGFERRY_GOOGLETEST_SOURCE_DIR} "
    "(install Debian's googletest package or set LOGFERRY_GOOGLETEST_SOURCE_DIR)")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "Do not install the GoogleTest built for the tests" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "Build GoogleMock too" FORCE)
add_subdirectory(${LOGFERRY_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(_gtest_lib gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${_gtest_lib})
    add_library(GTest::${_gtest_lib} ALIAS ${_gtest_lib})
  endif()
endforeach()

if(LOGFERRY_STATIC_TESTS)
  # Every program defined from here on in this directory is linked statically.
  add_link_options(-static)
  add_compile_definitions(LOGFERRY_STATIC_TEST_PROGRAMS)
  # The OS abstraction stand-in is a shared library; the tests take the same code as a
  # static archive instead (a static link cannot use a shared object).
  add_library(jx_osal_static STATIC ${PROJECT_SOURCE_DIR}/platform/jx_osal/jx_osal.cpp)
  target_include_directories(jx_osal_static PUBLIC ${PROJECT_SOURCE_DIR}/platform/jx_osal/include)
  get_target_property(_system_links lf_system INTERFACE_LINK_LIBRARIES)
  list(TRANSFORM _system_links REPLACE "^jx_osal$" jx_osal_static)
  set_target_properties(lf_system PROPERTIES INTERFACE_LINK_LIBRARIES "${_system_links}")
endif()

# The cross-built tests run under an emulator, whose guest clock keeps running while the host
# does not schedule it: bounds in wall-clock time are checked by the native suites only.
add_compile_definitions(LOGFERRY_EMULATED_TESTS)

# The first program of the emulated machine that runs the suite (scripts/arm64.sh).
add_executable(logferry_arm64_init ${CMAKE_CURRENT_LIST_DIR}/suite_init.cpp)
target_link_options(logferry_arm64_init PRIVATE -static)
