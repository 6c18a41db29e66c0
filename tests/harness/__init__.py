"""The one test harness of the daemon: starts, waits for, stops and cleans
up the daemon and its simulators, writes their files and talks to the
control port. Used by the end-to-end tests (tests/e2e/), the reliability
runs (tests/reliability/), the benchmarks (bench/run_bench.py) and the demo
(scripts/demo.sh, through `python3 -m harness`). The package is found
through PYTHONPATH=<checkout>/tests, which CMake's tests and the scripts set.

Waiting is always on an event (a file, a socket state, an answer) with a
generous deadline; nothing sleeps to let something happen.

    paths   where the programs are (from the build's harness_paths.json)
    wait    wait_for, process and socket states of the namespace
    wire    the namespace's addresses, the camera redirect, an HTTP client
    files   working directory, Config.txt, states and pid files, pictures
    procs   Processes: start and stop the simulators and the daemon
    case    RelayCase, the unittest fixture
"""

from .paths import BIN, CAMSIM, SCHEDSIM, SOURCE_DIR, VIEWER  # noqa: F401
from .wait import alive, established_to, is_listening, run_parallel, wait_for, wait_gone  # noqa: F401
from .wire import (CAMERA_PORT, CONTROL_PORT, FOREIGN_IP, MYIP, OPTION_RE, OTHER_CAMERA_IP,  # noqa: F401
                   Answer, check_head, connect, exchange, get_image, http, is_real_root, local_epoch_ms,
                   login, logout, parse_answers, pull, read_until_close, redirect_camera, request, trcom,
                   trcom_command)
from .files import (ALREADY_ANSWER, CONFIG_KEYS, TEMPLATE_ANSWER, cgi_env, complete_states,  # noqa: F401
                    launcher_answer, make_pictures, read_records, split_stamp, start_failed_answer,
                    success_answer)
from .procs import Processes  # noqa: F401
from .case import RelayCase, setup_namespace  # noqa: F401
