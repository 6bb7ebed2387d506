# Shared steps of scripts/test and scripts/demo.

JOBS=${JOBS:-$(nproc)}
# Several working copies of the build can live side by side (BUILD_ROOT=build-x).
BUILD_ROOT=${BUILD_ROOT:-build}

ensure_packages() {
  local want_windows=${1:-0} want_fuzz=${2:-0}
  local pkgs=(cmake ninja-build g++ pkgconf rapidjson-dev googletest libgtest-dev libgmock-dev libbenchmark-dev)
  [ "$want_windows" = 1 ] && pkgs+=(mingw-w64 mingw-w64-tools wine wine64 libwine-dev)
  [ "$want_fuzz" = 1 ] && pkgs+=(clang-14 libfuzzer-14-dev)
  local missing=()
  for p in "${pkgs[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

# What scripts/perf needs besides the build: callgrind and its annotator.
ensure_perf_packages() {
  dpkg -s valgrind >/dev/null 2>&1 && return 0
  echo "installing: valgrind"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends valgrind >/dev/null
}

cmake_args_for() {
  case "$1" in
    debug) echo "-DCMAKE_BUILD_TYPE=Debug" ;;
    release) echo "-DCMAKE_BUILD_TYPE=Release -DTSM_BENCHMARKS=ON" ;;
    asan) echo "-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTSM_SANITIZE=address" ;;
    tsan) echo "-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTSM_SANITIZE=thread" ;;
    # libFuzzer targets under ASan+UBSan; its tests run each target from its corpus.
    fuzz) echo "-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14" \
            "-DTSM_SANITIZE=address -DTSM_FUZZ=ON" ;;
    # TSM_WINDOWS_BENCHMARKS=1 also builds the benchmarks (testing/benchmark_lite).
    windows) echo "-DCMAKE_BUILD_TYPE=Release -DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/mingw-w64-x86_64.cmake" \
               "-DTSM_BENCHMARKS=$([ "${TSM_WINDOWS_BENCHMARKS:-0}" = 1 ] && echo ON || echo OFF)" ;;
    *) echo "unknown configuration: $1" >&2; return 1 ;;
  esac
}

configure_and_build() {
  local config=$1 dir=$BUILD_ROOT/$1 args
  args=$(cmake_args_for "$config") || return 1
  mkdir -p "$BUILD_ROOT"
  # shellcheck disable=SC2086
  cmake -S . -B "$dir" -G Ninja $args >"$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$JOBS" 2>&1 | grep -E 'error|warning|FAILED' | head -50
  cmake --build "$dir" -j "$JOBS" >/dev/null 2>&1
}

start_wine() {
  export WINEPREFIX=$PWD/$BUILD_ROOT/windows/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  mkdir -p "$WINEPREFIX"
  wineserver -p 30
  wine wineboot </dev/null >/dev/null 2>&1
}

stop_wine() {
  wineserver -k >/dev/null 2>&1 || true
}

# Runs CTest in build/$1; sets CTEST_PASSED and CTEST_FAILED.
run_ctest() {
  local config=$1 dir=$BUILD_ROOT/$1 log
  log=$(mktemp)
  local env_prefix=() ctest_args=()
  case "$config" in
    asan|fuzz) export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
          export LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp
          # The fuzz configuration runs its fuzz targets and their regression test only.
          [ "$config" = fuzz ] && ctest_args=(-L fuzz) ;;
    tsan) export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
          # ThreadSanitizer needs the classic address layout on kernels with high mmap entropy.
          env_prefix=(setarch "$(uname -m)" -R) ;;
    windows) start_wine ;;
  esac
  (cd "$dir" && "${env_prefix[@]}" ctest --output-on-failure -j "$JOBS" --timeout 600 "${ctest_args[@]}") >"$log" 2>&1
  [ "$config" = windows ] && stop_wine
  grep -E 'tests passed|Failed|\*\*\*|Timeout|Exception' "$log" | grep -v '^ *[0-9]*/[0-9]* Test.*Passed' | tail -40
  CTEST_PASSED=$(grep -cE '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed' "$log")
  CTEST_FAILED=$(grep -cE '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .*(\*\*\*|Failed|Timeout|Exception)' "$log")
  if grep -q 'No tests were found' "$log"; then CTEST_FAILED=$((CTEST_FAILED + 1)); fi
  rm -f "$log"
}
