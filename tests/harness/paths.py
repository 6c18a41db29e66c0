"""Where the programs under test are.

A build writes the paths of the programs it made into
<build>/harness_paths.json (tests/harness/CMakeLists.txt); OSTREL_BUILD_DIR
names that build (default: build/ of the checkout). OSTREL_BIN,
OSTREL_CAMSIM, OSTREL_SCHEDSIM and OSTREL_VIEWER override single programs
(a sanitizer build's daemon, say). The checkout's own scripts (the network
namespace and the camera redirect) are found beside this package.
"""

import json
import os

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD_DIR = os.path.abspath(os.environ.get("OSTREL_BUILD_DIR") or os.path.join(SOURCE_DIR, "build"))
SIM_DIR = os.path.join(SOURCE_DIR, "tests", "sim")
NETNS = os.path.join(SIM_DIR, "ostrel-netns")
REDIRECT = os.path.join(SIM_DIR, "ostrel-camera-redirect")


def _built():
    try:
        with open(os.path.join(BUILD_DIR, "harness_paths.json")) as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


_BUILT = _built()


def _program(var, name):
    return os.environ.get(var) or _BUILT.get(name, "")


BIN = _program("OSTREL_BIN", "Ostrel")
CAMSIM = _program("OSTREL_CAMSIM", "ostrel-camsim")
SCHEDSIM = _program("OSTREL_SCHEDSIM", "ostrel-schedsim")
VIEWER = _program("OSTREL_VIEWER", "ostrel-viewer")


def built(name):
    """Path of a program of the build by its target name ("" if unknown)."""
    return _BUILT.get(name, "")
