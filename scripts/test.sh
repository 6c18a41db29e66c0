#!/bin/sh
# The project's test command: set up a fresh Debian machine, then build the
# daemon, its tools and the whole test suite and run it with ctest, once in
# each of these builds (warnings are errors in all of them):
#
#   normal   build/        RelWithDebInfo
#   asan     build-asan/   AddressSanitizer, LeakSanitizer and
#                          UndefinedBehaviorSanitizer
#   tsan     build-tsan/   ThreadSanitizer
#   i386     build-i386/   32-bit x86 (g++ -m32, GoogleTest built from source)
#   fuzz     build-fuzz/   every parser's libFuzzer target (clang, ASan, UBSan)
#                          run from its seed corpus for OSTREL_FUZZ_SECONDS
#                          (default 15) each
#
# and two bounded reliability runs (scripts/reliability.sh) of the real
# daemon with that build's own binaries, each right after its build:
#
#   reliability        build/        every fault, load and life-cycle test
#   reliability-asan   build-asan/   of tests/reliability/ but the whole
#                                    camera back-off sequence
#                                    (OSTREL_RELIABILITY_QUICK=1), a soak
#                                    of OSTREL_SOAK_MINUTES (default 1) and a
#                                    chaos run of OSTREL_CHAOS_MINUTES
#                                    (default 2)
#
# Each test file has a limit of 1500 s (the soak its minutes on top). Their
# logs, result rows and report go to <build>/reliability/ (docs/RELIABILITY.md
# is left alone), the sanitizer reports to <build>/sanitizer/reliability/.
# A reliability step configures and builds what it needs, so it also runs
# without its build in the list.
#
#   scripts/test.sh                            all seven, in the order
#                                              normal reliability asan
#                                              reliability-asan tsan i386 fuzz
#   OSTREL_TEST_BUILDS="asan tsan" scripts/test.sh   only these builds
#
# Settings (environment): OSTREL_TEST_BUILDS (default "normal reliability asan
# reliability-asan tsan i386 fuzz"), OSTREL_BUILD_DIR (build directory of the
# normal build and prefix of the others, default build), OSTREL_JOBS (compile
# jobs and parallel tests, default: the number of processors).
#
# Every build runs even when an earlier one failed; the script ends with a
# line per build and fails if any build failed. A sanitizer report anywhere,
# also in a daemon that has closed its standard error, fails the build: the
# reports are written to <build>/sanitizer/ and shown at the end of its run.
. "$(dirname "$0")/lib.sh"
scripts/setup.sh

builds=${OSTREL_TEST_BUILDS:-normal reliability asan reliability-asan tsan i386 fuzz}

# sanitizer_options LOGS: exports the sanitizers' options. halt_on_error:
# the first report ends the process with a failure code, so the test that
# triggered it fails. log_path: the daemon points its standard error at
# /dev/null once started, so reports go to files LOGS/asan.PID, ...
sanitizer_options() {
    export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1:log_path=$1/asan" \
        UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$1/ubsan" \
        TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan-suppressions.txt:log_path=$1/tsan"
}

# run_build NAME DIR [CMAKE OPTIONS...]: configures, builds and tests one
# build; returns non-zero when any step fails or a sanitizer reported.
run_build() {
    name=$1 dir=$2
    shift 2
    echo "== $name build in $dir"
    configure "$dir" -DOSTREL_WERROR=ON "$@" || return 1
    cmake --build "$dir" -j "$jobs" || return 1

    logs=$dir/sanitizer
    rm -rf "$logs"
    mkdir -p "$logs"
    rc=0
    (
        cd "$dir" &&
        sanitizer_options "$logs" &&
        ctest --output-on-failure -j "$jobs" --timeout 600
    ) || rc=1
    if show_reports "$logs" "$name build: sanitizer reports"; then
        rc=1
    fi
    return $rc
}

# run_reliability NAME DIR [CMAKE OPTIONS...]: the bounded reliability runs
# against the daemon and tools of one build (configured and built here if
# needed); non-zero when a test failed, hung or a sanitizer reported
# (scripts/reliability.sh prints the failed files' logs and the reports).
run_reliability() {
    name=$1 dir=$2
    shift 2
    echo "== $name: reliability runs with $dir"
    configure "$dir" -DOSTREL_WERROR=ON "$@" || return 1
    (
        sanitizer_options "$dir/sanitizer/reliability" &&
        OSTREL_RELIABILITY_QUICK=1 OSTREL_BUILD_DIR=$dir \
            scripts/reliability.sh --soak-minutes "${OSTREL_SOAK_MINUTES:-1}" \
            --chaos-minutes "${OSTREL_CHAOS_MINUTES:-2}" --timeout 1500 \
            --out "$dir/reliability" --report "$dir/reliability/RELIABILITY.md"
    )
}

# run_i386 NAME DIR [CMAKE OPTIONS...]: the 32-bit build. A kernel without
# 32-bit support (no IA32 emulation) cannot start any 32-bit program; there
# the build is still compiled with warnings as errors, and the line below
# says loudly that its tests did not run.
run_i386() {
    probe=$(mktemp -d)
    if printf 'int main(void) { return 0; }\n' | gcc -m32 -x c - -o "$probe/a" 2>/dev/null && "$probe/a" 2>/dev/null; then
        rm -rf "$probe"
        run_build "$@"
        return
    fi
    rm -rf "$probe"
    echo "== $1 build in $2: THIS KERNEL CANNOT RUN 32-BIT PROGRAMS; compiled only, its tests are NOT run"
    configure "$2" -DOSTREL_WERROR=ON "$3" && cmake --build "$2" -j "$jobs"
}

summary=""
status=0
for b in $builds; do
    start=$(date +%s)
    case $b in
        normal) run_build "$b" "$base" ;;
        asan)   run_build "$b" "$base-asan" -DOSTREL_SANITIZE=address ;;
        reliability)      run_reliability "$b" "$base" ;;
        reliability-asan) run_reliability "$b" "$base-asan" -DOSTREL_SANITIZE=address ;;
        tsan)   run_build "$b" "$base-tsan" -DOSTREL_SANITIZE=thread ;;
        i386)   run_i386 "$b" "$base-i386" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/i386-linux-gnu.cmake" ;;
        fuzz)   echo "== fuzz build in $base-fuzz"
                scripts/fuzz.sh ;;
        *)      echo "test.sh: unknown build '$b' (normal, reliability, asan, reliability-asan, tsan, i386, fuzz)" >&2
                false ;;
    esac && result=passed || result=FAILED
    [ "$result" = passed ] || status=1
    summary="$summary$(printf '%-16s %s in %d s' "$b" "$result" $(( $(date +%s) - start )))
"
done
printf '\n== summary\n%s' "$summary"
exit $status
