#!/bin/sh
# Line coverage of the product code by the whole test suite: builds in
# $OSTREL_BUILD_DIR-coverage (default build-coverage/) with --coverage and
# without optimisation, runs every ctest test once (the daemon that the
# end-to-end tests start counts too), then prints the line coverage of each
# product folder and lists every product .cpp that no test runs a line of.
#
#   scripts/coverage.sh [CTEST OPTIONS...]    e.g. -E '^e2e\.' to leave out
#                                             the end-to-end tests (default:
#                                             -E '^e2e\.package$')
#
# Settings (environment): OSTREL_BUILD_DIR and OSTREL_JOBS as for every
# script (scripts/lib.sh). Installs gcovr from Debian's packages. The
# per-file figures are left in <build>/coverage.json (gcovr's summary).
# Exits non-zero when a test fails or a product .cpp is not exercised.
. "$(dirname "$0")/lib.sh"
install_packages gcovr

build=$base-coverage
# The product folders; the shipped commands and the viewer where they are
# C++ of their own folder.
folders="common net http xml conf fifo camera control daemon"
for d in deploy/bin viewer; do
    if [ -n "$(git ls-files "$d/*.cpp" 2>/dev/null)" ]; then folders="$folders $d"; fi
done

configure "$build" -DCMAKE_BUILD_TYPE=Debug -DOSTREL_WERROR=ON \
    -DCMAKE_CXX_FLAGS=--coverage -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$build" -j "$jobs"
find "$build" -name '*.gcda' -delete

# The package test builds the Debian package, which is refused for a
# coverage (Debug) build; it is left out unless CTEST OPTIONS are given.
[ $# -gt 0 ] || set -- -E '^e2e\.package$'
rc=0
(cd "$build" && ctest -j "$jobs" --timeout 600 "$@") || rc=1

filter=""
for d in $folders; do filter="$filter --filter $root/$d/"; done
# One gcovr process (its worker threads can hang after a gcov parse error)
# with a bound, so that the script always ends.
# shellcheck disable=SC2086
timeout 600 gcovr --root "$root" --object-directory "$build" $filter --gcov-ignore-parse-errors \
    --json-summary "$build/coverage.json" >/dev/null || die "gcovr failed or took over 600 s"

python3 - "$build" "$folders" "$(git ls-files '*.cpp')" <<'PY' || rc=1
import json, os, sys
build, folders, sources = sys.argv[1], sys.argv[2].split(), sys.argv[3].split()
files = {f["filename"]: f for f in json.load(open(build + "/coverage.json"))["files"]}
# Sources compiled into the build: <folder>/CMakeFiles/<target>.dir/<name>.gcno.
compiled = set()
for top, _, names in os.walk(build):
    for n in names:
        rel = os.path.relpath(os.path.join(top, n), build)
        if n.endswith(".cpp.gcno") and "/CMakeFiles/" in rel and ".dir/" in rel:
            compiled.add(rel.split("/CMakeFiles/")[0] + "/" + rel.split(".dir/", 1)[1][: -len(".gcno")])

def folder_of(path):
    for d in sorted(folders, key=len, reverse=True):
        if path.startswith(d + "/"):
            return d
    return None

print("%-12s %8s %8s %7s" % ("folder", "lines", "covered", "cover"))
total = covered = 0
for d in folders:
    t = sum(f["line_total"] for p, f in files.items() if folder_of(p) == d)
    c = sum(f["line_covered"] for p, f in files.items() if folder_of(p) == d)
    total += t
    covered += c
    print("%-12s %8d %8d %6.1f%%" % (d, t, c, 100.0 * c / t if t else 0.0))
print("%-12s %8d %8d %6.1f%%" % ("all", total, covered, 100.0 * covered / total if total else 0.0))

# A compiled file that gcov does not report has no line to run (tables of
# data only); one that was not compiled, or whose lines all stayed unrun,
# is not exercised.
product = [p for p in sources if folder_of(p)]
data_only = [p for p in product if p not in files and p in compiled]
if data_only:
    print("\ndata only, no line to run: " + " ".join(data_only))
unrun = [p for p in product if p not in data_only and files.get(p, {}).get("line_covered", 0) == 0]
if unrun:
    print("\nproduct .cpp files no test exercises:")
    for p in unrun:
        print("  " + p)
    sys.exit(1)
print("\nevery product .cpp is exercised by at least one test")
PY
exit $rc
