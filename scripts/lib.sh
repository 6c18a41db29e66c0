# Shared by the project's scripts; sourced, never run on its own:
#
#   . "$(dirname "$0")/lib.sh"
#
# Sourcing it changes to the checkout's top directory and sets:
#   root   that directory
#   base   the normal build directory, OSTREL_BUILD_DIR (default build/);
#          the other builds live beside it: $base-asan, $base-tsan,
#          $base-i386, $base-fuzz, $base-bench, $base-coverage
#   jobs   compile jobs and parallel tests, OSTREL_JOBS (default: the number
#          of processors)
# Every script reads these same settings; none has a name of its own for them.

set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

# die MESSAGE: the script's name and the message on standard error; exit 1.
die() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# abspath PATH: PATH made absolute against the checkout's top directory.
abspath() {
    case $1 in
        /*) echo "$1" ;;
        *) echo "$root/$1" ;;
    esac
}

base=$(abspath "${OSTREL_BUILD_DIR:-build}")
jobs=${OSTREL_JOBS:-$(nproc)}
case $jobs in
    '' | *[!0-9]*) die "OSTREL_JOBS must be a number, not '$jobs'" ;;
esac

# configure DIR [CMAKE OPTIONS...]: (re)configures DIR with Ninja and the
# release type; the options given win over what DIR had.
configure() {
    dir=$1
    shift
    command -v ninja >/dev/null || die "ninja not found (scripts/setup.sh installs it)"
    cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
}

# configure_once DIR [CMAKE OPTIONS...]: configures DIR only when it has not
# been configured yet, so a script can build in a directory set up earlier
# (with other options) without changing it.
configure_once() {
    [ -f "$1/build.ninja" ] || configure "$@"
}

# configure_simulators DIR: configure_once, and the simulators of tests/sim/
# built in DIR whatever its other options (they are off with tests off).
configure_simulators() {
    configure_once "$1" -DOSTREL_DEMO=ON
    grep -q '^OSTREL_DEMO:BOOL=ON' "$1/CMakeCache.txt" || cmake "$1" -DOSTREL_DEMO=ON >/dev/null
}

# install_packages [--optional] PACKAGE...: installs, from Debian's packages,
# those not installed yet (as root, or through sudo). A missing package that
# cannot be installed is an error; with --optional only a warning (the
# caller says what is then skipped). Returns 1 for such an optional package.
install_packages() {
    optional=false
    if [ "${1:-}" = --optional ]; then
        optional=true
        shift
    fi
    missing=""
    for p in "$@"; do
        dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
    done
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" = 0 ]; then
        sudo=""
    elif command -v sudo >/dev/null; then
        sudo=sudo
    elif $optional; then
        echo "$(basename "$0"): optional packages missing:$missing (run as root to install them)" >&2
        return 1
    else
        die "packages missing:$missing (run as root to install them)"
    fi
    echo "$(basename "$0"): installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    # The package lists are read once per run of a script.
    if [ -z "${ostrel_apt_updated:-}" ]; then
        $sudo apt-get update -q
        ostrel_apt_updated=1
    fi
    # shellcheck disable=SC2086
    if ! $sudo apt-get install -y -q --no-install-recommends $missing; then
        $optional || die "could not install$missing"
        echo "$(basename "$0"): could not install$missing" >&2
        return 1
    fi
}

# show_reports DIR TITLE: prints every sanitizer report file under DIR after
# the line "== TITLE" and leaves their list in $found; succeeds when there
# was one, so that the caller fails its run.
show_reports() {
    found=$(find "$1" -type f | sort)
    [ -n "$found" ] || return 1
    echo "== $2"
    for f in $found; do
        echo "-- $f"
        cat "$f"
    done
}
