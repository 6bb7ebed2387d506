# Third-party pieces, all from Debian packages.
find_package(Threads REQUIRED)

# RapidJSON is header-only (rapidjson-dev).
find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h
          PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
set(TSM_RAPIDJSON_INCLUDE ${RAPIDJSON_INCLUDE_DIR})
if(CMAKE_CROSSCOMPILING)
  # /usr/include also holds the build machine's C library headers, which the
  # cross compiler must never see: it gets a folder with only rapidjson/ in it.
  set(TSM_RAPIDJSON_INCLUDE ${CMAKE_BINARY_DIR}/third_party/rapidjson_include)
  file(MAKE_DIRECTORY ${TSM_RAPIDJSON_INCLUDE})
  if(NOT EXISTS ${TSM_RAPIDJSON_INCLUDE}/rapidjson)
    file(CREATE_LINK ${RAPIDJSON_INCLUDE_DIR}/rapidjson ${TSM_RAPIDJSON_INCLUDE}/rapidjson SYMBOLIC)
  endif()
endif()
add_library(tsm_rapidjson INTERFACE)
target_include_directories(tsm_rapidjson SYSTEM INTERFACE ${TSM_RAPIDJSON_INCLUDE})

# GoogleTest: the installed libraries natively; built from Debian's
# googletest sources for the cross build. tsm_gtest comes without main, for
# benchmarks that include the test support (testing/manager_fixture.h).
# Only for the tests and benchmarks (not for a project that embeds this one).
if(TSM_BUILD_TESTS OR TSM_BENCHMARKS)
  if(CMAKE_CROSSCOMPILING)
    set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    # Our own main: the test thread enters the multithreaded apartment first.
    add_library(tsm_gtest_main INTERFACE)
    target_sources(tsm_gtest_main INTERFACE ${PROJECT_SOURCE_DIR}/testing/win/test_main_win.cpp)
    target_link_libraries(tsm_gtest_main INTERFACE gmock ole32)
    add_library(tsm_gtest INTERFACE)
    target_link_libraries(tsm_gtest INTERFACE gtest)
  else()
    find_package(GTest REQUIRED)
    add_library(tsm_gtest_main INTERFACE)
    target_link_libraries(tsm_gtest_main INTERFACE GTest::gmock GTest::gtest_main Threads::Threads)
    add_library(tsm_gtest INTERFACE)
    target_link_libraries(tsm_gtest INTERFACE GTest::gtest Threads::Threads)
  endif()
endif()

if(TSM_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  if(TSM_FUZZ)
    # Coverage for the fuzzer everywhere; its main only in the fuzz programs.
    add_compile_options(-fsanitize=fuzzer-no-link)
    # clang's C++20 warning on RapidJSON's iterator comparisons.
    add_compile_options(-Wno-ambiguous-reversed-operator)
    add_compile_options(-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/ubsan_ignore.txt)
  endif()
elseif(TSM_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(WIN32)
  # One self-contained binary per target: without -static the programs import
  # libwinpthread-1.dll and do not start under Wine.
  add_link_options(-static)
  add_compile_definitions(UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX)
endif()

# Google Benchmark natively (libbenchmark-dev). Debian has no Windows build of
# it: the cross build's benchmarks get the small runner of
# testing/benchmark_lite, which takes the same sources.
if(TSM_BENCHMARKS)
  add_library(tsm_benchmark_main INTERFACE)
  if(CMAKE_CROSSCOMPILING AND WIN32)
    tsm_target(LIBRARY tsm_benchmark_lite SRCS ${PROJECT_SOURCE_DIR}/testing/benchmark_lite/benchmark_lite.cpp)
    target_include_directories(tsm_benchmark_lite PUBLIC ${PROJECT_SOURCE_DIR}/testing/benchmark_lite/include)
    target_link_libraries(tsm_benchmark_main INTERFACE tsm_benchmark_lite)
  else()
    find_package(benchmark REQUIRED)
    target_link_libraries(tsm_benchmark_main INTERFACE benchmark::benchmark_main Threads::Threads)
  endif()
endif()
