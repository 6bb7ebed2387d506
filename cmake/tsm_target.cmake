# One helper declares every target of the tree, so that foo.h, foo.cpp,
# foo_test.cpp and foo_benchmark.cpp sit together and are built alike.
#
#   tsm_target(LIBRARY   name SRCS ... [DEPS ...] [PUBLIC_DEPS ...])
#   tsm_target(SHARED    name SRCS ... [DEPS ...])
#   tsm_target(EXECUTABLE name SRCS ... [DEPS ...])
#   tsm_target(TEST      name SRCS ... [DEPS ...] [LABELS ...])
#   tsm_target(BENCHMARK name SRCS ... [DEPS ...])
#
# TEST targets link GoogleTest and are registered with CTest (run under Wine
# in the Windows cross build through CMAKE_CROSSCOMPILING_EMULATOR); they
# exist only when TSM_BUILD_TESTS is on. BENCHMARK targets exist only when
# TSM_BENCHMARKS is on.
#
# SHARED targets are what a host links: they show only include/ (and the
# generated version header) to their users, under an alias
# TradeSliceManager::<name>, and carry a version resource on Windows.

set(TSM_WARNINGS -Wall -Wextra -Wno-unused-parameter)

# Headers that differ by operating system live in platform/<os>/os/ and are
# included as "os/<name>.h"; the build picks the folder.
if(WIN32)
  set(TSM_OS_DIR win)
else()
  set(TSM_OS_DIR posix)
endif()

function(_tsm_common target)
  target_compile_options(${target} PRIVATE ${TSM_WARNINGS})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                              $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                              $<BUILD_INTERFACE:${TSM_GENERATED_INCLUDE}>
                                              $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/${TSM_OS_DIR}>)
endfunction()

function(_tsm_shared target)
  target_compile_options(${target} PRIVATE ${TSM_WARNINGS})
  target_include_directories(${target}
    PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform/${TSM_OS_DIR}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<BUILD_INTERFACE:${TSM_GENERATED_INCLUDE}>
           $<INSTALL_INTERFACE:include>)
  # The public headers are C++17; the component itself is built as C++20.
  target_compile_features(${target} INTERFACE cxx_std_17)
  add_library(TradeSliceManager::${target} ALIAS ${target})
  tsm_version_resource(${target})
endfunction()

function(tsm_target kind name)
  cmake_parse_arguments(T "" "" "SRCS;DEPS;PUBLIC_DEPS;LABELS" ${ARGN})
  if(kind STREQUAL "LIBRARY")
    add_library(${name} STATIC ${T_SRCS})
    _tsm_common(${name})
    target_link_libraries(${name} PUBLIC ${T_PUBLIC_DEPS} PRIVATE ${T_DEPS})
  elseif(kind STREQUAL "SHARED")
    add_library(${name} SHARED ${T_SRCS})
    _tsm_shared(${name})
    set_target_properties(${name} PROPERTIES PREFIX "" CXX_VISIBILITY_PRESET hidden)
    target_link_libraries(${name} PUBLIC ${T_PUBLIC_DEPS} PRIVATE ${T_DEPS})
  elseif(kind STREQUAL "EXECUTABLE")
    add_executable(${name} ${T_SRCS})
    _tsm_common(${name})
    target_link_libraries(${name} PRIVATE ${T_DEPS})
  elseif(kind STREQUAL "TEST")
    if(NOT TSM_BUILD_TESTS)
      return()
    endif()
    # The fuzz configuration builds and runs only the tests labelled "fuzz";
    # the others stay declared, built on request.
    set(only_on_request)
    if(TSM_FUZZ AND NOT "fuzz" IN_LIST T_LABELS)
      set(only_on_request EXCLUDE_FROM_ALL)
    endif()
    add_executable(${name} ${only_on_request} ${T_SRCS})
    _tsm_common(${name})
    target_link_libraries(${name} PRIVATE ${T_DEPS} tsm_gtest_main)
    if(only_on_request)
      return()
    endif()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS "${T_LABELS}")
  elseif(kind STREQUAL "BENCHMARK")
    if(TSM_BENCHMARKS)
      add_executable(${name} ${T_SRCS})
      _tsm_common(${name})
      target_link_libraries(${name} PRIVATE ${T_DEPS} tsm_benchmark_main)
    endif()
  else()
    message(FATAL_ERROR "tsm_target: unknown kind ${kind}")
  endif()
endfunction()

# Type libraries a target builds, to be installed beside the import libraries
# (cmake/tsm_install.cmake installs what was registered here).
function(tsm_install_type_library)
  set_property(GLOBAL APPEND PROPERTY TSM_TYPE_LIBRARIES ${ARGN})
endfunction()
