# Tests of what a host gets from the installed component (scripts/check_package):
#   package_minimal_host    install, headers on their own, the minimal host built
#                           with find_package (and pkg-config) and run
#   package_subproject      add_subdirectory brings no tests and no GoogleTest
#   package_windows_bundle  the zip of scripts/package loads in a clean Wine prefix
# Sanitizer builds are left out: a host would need their runtime too.
if(NOT TSM_BUILD_TESTS OR TSM_SANITIZE)
  return()
endif()

set(_tsm_check bash ${PROJECT_SOURCE_DIR}/scripts/check_package)
if(CMAKE_CROSSCOMPILING)
  add_test(NAME package_minimal_host COMMAND ${_tsm_check} host ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER} ${CMAKE_TOOLCHAIN_FILE})
else()
  add_test(NAME package_minimal_host COMMAND ${_tsm_check} host ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
  add_test(NAME package_subproject COMMAND ${_tsm_check} subproject ${PROJECT_SOURCE_DIR})
  set_tests_properties(package_subproject PROPERTIES TIMEOUT 300 LABELS package)
endif()
set_tests_properties(package_minimal_host PROPERTIES TIMEOUT 600 LABELS package)

if(WIN32)
  tsm_target(EXECUTABLE dll_load_check SRCS ${PROJECT_SOURCE_DIR}/platform/win/dll_load_check.cpp DEPS version)
  add_test(NAME package_windows_bundle
    COMMAND ${_tsm_check} bundle ${PROJECT_BINARY_DIR} $<TARGET_FILE:dll_load_check>)
  set_tests_properties(package_windows_bundle PROPERTIES TIMEOUT 600 LABELS package)
endif()
