#!/bin/sh
# Builds the fuzz targets (fuzz/*_fuzz.cpp) as libFuzzer binaries with clang,
# AddressSanitizer and UBSan in $OSTREL_BUILD_DIR-fuzz (default build-fuzz/),
# then runs each one for a bounded time starting from its seed corpus
# fuzz/corpus/<parser>/.
#
#   scripts/fuzz.sh [PARSER...]
#
# Settings (environment): OSTREL_FUZZ_SECONDS, seconds per target (default
# 15); OSTREL_BUILD_DIR and OSTREL_JOBS as for every script (scripts/lib.sh).
# Without PARSER names every target runs. The corpus is copied to a temporary
# directory first, so the inputs libFuzzer adds are not left in the source
# tree: an input worth keeping (a crash turned regression) is copied into
# fuzz/corpus/ by hand. A crashing, hanging or leaking input is saved under
# <build>/artifacts/ and the script exits non-zero after running the
# remaining targets.
#
# Needs clang and its fuzzer runtime (Debian: clang, libclang-rt-14-dev).
. "$(dirname "$0")/lib.sh"

build=$base-fuzz
secs=${OSTREL_FUZZ_SECONDS:-15}
case $secs in '' | *[!0-9]*) die "OSTREL_FUZZ_SECONDS must be a number, not '$secs'" ;; esac

CC=${CC:-clang}
CXX=${CXX:-clang++}
command -v "$CXX" >/dev/null 2>&1 || die "$CXX not found (install clang and libclang-rt-14-dev)"

if [ $# -gt 0 ]; then
    parsers="$*"
else
    parsers=$(cd "$root/fuzz" && ls ./*_fuzz.cpp | sed 's|^\./||; s|_fuzz\.cpp$||')
fi
targets=""
for p in $parsers; do targets="$targets ${p}_fuzz"; done

CC=$CC CXX=$CXX configure "$build" -DOSTREL_FUZZ=ON -DOSTREL_SANITIZE=address >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" -j "$jobs" --target $targets

mkdir -p "$build/artifacts"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
failed=""
for p in $parsers; do
    rm -rf "${work:?}/$p"
    mkdir -p "$work/$p"
    cp "$root/fuzz/corpus/$p/"* "$work/$p/" 2>/dev/null || true
    echo "fuzz: $p for ${secs}s"
    if ! "$build/fuzz/${p}_fuzz" -max_total_time="$secs" -timeout=20 -rss_limit_mb=2048 \
        -max_len=8192 -print_final_stats=1 -artifact_prefix="$build/artifacts/$p-" \
        "$work/$p" >"$build/artifacts/$p.log" 2>&1; then
        tail -n 60 "$build/artifacts/$p.log" >&2
        failed="$failed $p"
    else
        grep -E '^stat::(number_of_executed_units|new_units_added)' "$build/artifacts/$p.log" || true
    fi
done

if [ -n "$failed" ]; then
    echo "fuzz: FAILED:$failed (inputs in $build/artifacts/)" >&2
    exit 1
fi
echo "fuzz: all targets ran clean"
