"""Shared pieces of the end-to-end tests.

The tests drive the real Ostrel binary inside a private network namespace
(tests/sim/ostrel-netns) where eth0 holds 192.0.2.1, the channel's own address.
The daemon listens for its control port on the configured camera address and
port and also connects there as the camera client; tests/sim/ostrel-camera-redirect
sends its own connections (ephemeral ports 20000-29999) on to the simulated
camera, so every client of the control port binds a source port of 30000 or
above.

Paths come from the environment (set by tests/e2e/CMakeLists.txt):
OSTREL_BIN, OSTREL_CAMSIM, OSTREL_SCHEDSIM, OSTREL_TOOLS_DIR.

Waiting is always on an event (a file, a socket state, an answer) with a
generous deadline; nothing sleeps to let something happen.
"""

import itertools
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import zlib

BIN = os.environ.get("OSTREL_BIN", "")
CAMSIM = os.environ.get("OSTREL_CAMSIM", "")
SCHEDSIM = os.environ.get("OSTREL_SCHEDSIM", "")
TOOLS_DIR = os.environ.get("OSTREL_TOOLS_DIR", "")

MYIP = "192.0.2.1"        # eth0: the channel's own address (myip)
OTHER_CAMERA_IP = "192.0.2.2"  # a second camera for address changes
FOREIGN_IP = "192.0.2.3"  # a client the daemon must not serve
CONTROL_PORT = 8080       # encoder_port: the control port and the camera's port
CAMERA_PORT = 8081        # where the simulated camera really listens
SCHED_PORT = 80           # the schedule server, on myip

# Generous limits: the suite also runs under sanitizers on a busy 2-core box.
START_LIMIT = 20.0
STOP_LIMIT = 30.0


def setup_namespace():
    """Once per test file: extra addresses and the camera redirect."""
    missing = [n for n, p in (("OSTREL_BIN", BIN), ("OSTREL_CAMSIM", CAMSIM),
                              ("OSTREL_SCHEDSIM", SCHEDSIM), ("OSTREL_TOOLS_DIR", TOOLS_DIR))
               if not p]
    if missing:
        raise unittest.SkipTest("not configured: " + ", ".join(missing))
    env = dict(os.environ, PATH=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    for addr in (OTHER_CAMERA_IP, FOREIGN_IP):
        subprocess.run(["ip", "addr", "add", addr + "/24", "dev", "eth0"], check=True, env=env)
    subprocess.run([os.path.join(TOOLS_DIR, "ostrel-camera-redirect"), MYIP, str(CONTROL_PORT),
                    MYIP, str(CAMERA_PORT)], check=True, env=env)


def is_real_root():
    """Root of the machine, not the mapped root of a user namespace (where
    tests/sim/ostrel-netns puts an unprivileged user): only real root can act as
    other users such as www-data or nobody."""
    with open("/proc/self/uid_map") as f:
        return os.geteuid() == 0 and f.read().split()[:3] == ["0", "0", "4294967295"]


def wait_for(predicate, what, limit=START_LIMIT, interval=0.02):
    """Polls predicate until it returns a true value, which is returned."""
    deadline = time.monotonic() + limit
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("gave up after %.0f s waiting for %s" % (limit, what))
        time.sleep(interval)


# ---------------------------------------------------------------- sockets

def _tcp_table():
    """(local, remote, state) of every IPv4 TCP socket of this namespace."""
    rows = []
    with open("/proc/net/tcp") as f:
        next(f)
        for line in f:
            parts = line.split()
            rows.append((_hexaddr(parts[1]), _hexaddr(parts[2]), int(parts[3], 16)))
    return rows


def _hexaddr(text):
    addr, port = text.split(":")
    raw = bytes.fromhex(addr)[::-1]
    return socket.inet_ntoa(raw), int(port, 16)


TCP_ESTABLISHED, TCP_LISTEN = 1, 10


def is_listening(addr, port):
    return any(l == (addr, port) and st == TCP_LISTEN for l, _, st in _tcp_table())


def established_to(addr, port):
    """Established connections whose server side is addr:port."""
    return [r for r in _tcp_table() if r[0] == (addr, port) and r[2] == TCP_ESTABLISHED]


_source_ports = itertools.count()


def connect(src=MYIP, dst=(MYIP, CONTROL_PORT), timeout=10.0):
    """A connection to the control port from src, on a source port outside
    the range that the camera redirect rewrites."""
    for _ in range(50):
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.settimeout(timeout)
        port = 30000 + next(_source_ports) % 30000
        try:
            sock.bind((src, port))
        except OSError:
            sock.close()
            continue
        try:
            sock.connect(dst)
        except OSError:
            sock.close()
            raise
        return sock
    raise AssertionError("no free source port on %s" % src)


def exchange(raw, src=MYIP, timeout=10.0):
    """Sends raw request bytes and reads until the daemon closes."""
    sock = connect(src, timeout=timeout)
    try:
        if raw:
            sock.sendall(raw)
        return read_until_close(sock, timeout)
    finally:
        sock.close()


def read_until_close(sock, timeout):
    sock.settimeout(timeout)
    chunks = []
    while True:
        data = sock.recv(65536)
        if not data:
            return b"".join(chunks)
        chunks.append(data)


class Answer:
    """One HTTP answer: status line, header lines in order, body."""

    def __init__(self, status_line, lines, body):
        self.status_line = status_line
        self.lines = lines
        self.body = body
        self.version, code, self.reason = status_line.split(" ", 2)
        self.status = int(code)

    def header(self, name):
        """Value of the first header line "name: value" (None if absent)."""
        prefix = name.lower() + ":"
        for line in self.lines:
            if line.lower().startswith(prefix):
                return line[len(prefix):].strip()
        return None

    def __repr__(self):
        return "Answer(%r, %r, %r)" % (self.status_line, self.lines, self.body[:80])


def parse_answers(data, head_only=False):
    """Every answer in data, in order (the daemon may answer twice on one
    connection). A body runs for its Content-Length, or to the end."""
    answers = []
    pos = 0
    while pos < len(data):
        end = data.find(b"\r\n\r\n", pos)
        if end < 0:
            raise AssertionError("answer without a complete head: %r" % data[pos:pos + 200])
        head = data[pos:end].decode("latin-1").split("\r\n")
        pos = end + 4
        a = Answer(head[0], head[1:], b"")
        length = a.header("Content-Length")
        n = 0 if head_only else (int(length) if length is not None else len(data) - pos)
        a.body = data[pos:pos + n]
        if len(a.body) != n:
            raise AssertionError("body cut short: %d of %d bytes" % (len(a.body), n))
        pos += n
        answers.append(a)
    return answers


def request(target, method="GET", version="1.0", src=MYIP, extra=b"", body=b""):
    raw = ("%s %s HTTP/%s\r\n" % (method, target, version)).encode() + extra + b"\r\n" + body
    data = exchange(raw, src)
    answers = parse_answers(data, head_only=(method == "HEAD"))
    if len(answers) != 1:
        raise AssertionError("expected one answer, got %r" % answers)
    return answers[0]


def login():
    return request("/ptippreimg.cgi?img_login=1")


def logout():
    return request("/ptippreimg.cgi?img_logout=1&img_user_id=1")


def get_image(method="GET"):
    return request("/ptippreimg.cgi?get_image=1&img_user_id=1", method=method)


def trcom(query, src=MYIP):
    return request("/trcom.cgi?" + query, src=src)


HEAD_RE = re.compile(
    r"HTTP/1\.[01] (?P<status>\d{3} [^\r]*)\r\n"
    r"Date: \w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d GMT\r\n"
    r"Server: Ostrel Relay\r\n"
    r"Content-Type: (?P<type>[^\r]*)\r\n"
    r"Pragma: no-cache\r\n"
    r"(?:Content-Length: (?P<length>\d+)\r\n)?"
    r"(?P<extra>(?:[^\r]+\r\n)*?)"
    r"Connection: close\r\n\r\n$")


def check_head(answer):
    """The fixed frame of an answer head; returns the match."""
    text = "\r\n".join([answer.status_line] + answer.lines) + "\r\n\r\n"
    m = HEAD_RE.match(text)
    if not m:
        raise AssertionError("malformed answer head: %r" % text)
    return m


OPTION_RE = re.compile(r"^ 0{13}:0{5}:0{41}:([0-9a-f]{12,})$")


def local_epoch_ms():
    """Milliseconds since 1970 in local time, as the option text counts."""
    time.tzset()
    return int((time.time() - time.timezone) * 1000)


# --------------------------------------------------------------- pictures

def make_pictures(directory, count, seed=7, sizes=None):
    """Writes count distinct JPEG-framed files (SOI, JFIF APP0, comment
    segments with random bytes, EOI) into directory, in name order, and
    returns their bytes. One carries a fake multipart boundary in its data."""
    rng = random.Random(seed)
    os.makedirs(directory, exist_ok=True)
    pictures = []
    for i in range(count):
        size = sizes[i % len(sizes)] if sizes else rng.randint(2000, 60000)
        payload = rng.randbytes(size)
        if i == 1:
            payload = b"\r\n--myboundary\r\nContent-Length: 3\r\n\r\n" + payload
        out = bytearray(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00")
        out += b"\xff\xfe\x00\x10picture %06d" % i
        for off in range(0, len(payload), 65000):
            chunk = payload[off:off + 65000]
            out += b"\xff\xfe" + (len(chunk) + 2).to_bytes(2, "big") + chunk
        out += b"\xff\xd9"
        with open(os.path.join(directory, "p%04d.jpg" % i), "wb") as f:
            f.write(out)
        pictures.append(bytes(out))
    return pictures


def split_stamp(jpeg):
    """(seq, t_us, picture without the camera simulator's stamp segment)."""
    pos = 2
    while pos + 4 <= len(jpeg) and jpeg[pos] == 0xFF:
        length = int.from_bytes(jpeg[pos + 2:pos + 4], "big")
        seg = jpeg[pos + 4:pos + 2 + length]
        if jpeg[pos + 1] == 0xFE and seg.startswith(b"ostrel-stamp "):
            m = re.match(rb"ostrel-stamp seq=(\d+) t_us=(\d+)$", seg)
            if not m:
                raise AssertionError("bad stamp %r" % seg)
            return int(m.group(1)), int(m.group(2)), jpeg[:pos] + jpeg[pos + 2 + length:]
        pos += 2 + length
    raise AssertionError("picture without a stamp")


# ---------------------------------------------------------------- records

def read_records(path):
    """Requests recorded by a simulator: list of (peer, raw bytes)."""
    if not os.path.exists(path):
        return []
    with open(path, "rb") as f:
        data = f.read()
    out = []
    pos = 0
    while True:
        m = re.compile(rb"#REQUEST \d+ peer=(\S+) t_us=\d+ bytes=(\d+)\n").match(data, pos)
        if not m:
            return out
        start = m.end()
        n = int(m.group(2))
        if len(data) < start + n + 1:
            return out  # the record is still being written
        out.append((m.group(1).decode(), data[start:start + n]))
        pos = start + n + 1


# ---------------------------------------------------------------- fixture

CONFIG_KEYS = [
    ("translator_tarndatatype", "Ostrel"),
    ("encoder_ip", MYIP),
    ("encoder_port", str(CONTROL_PORT)),
    ("translator_connect_ip", MYIP),
    ("translator_connect_port", "9100"),
    ("translator_connect_camerano", "1"),
    ("channel_authentic_switch", "0"),
    ("translator_calarm_rec_postterm", "60"),
]


class RelayCase(unittest.TestCase):
    """A fresh working directory per test, with helpers that start the
    simulators and the daemon and stop whatever is left at the end."""

    channel = 1

    @classmethod
    def setUpClass(cls):
        if not BIN:
            raise unittest.SkipTest("OSTREL_BIN not set")

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="ostrel-e2e-")
        for d in ("conf", "log", "mem"):
            os.makedirs(os.path.join(self.work, d))
        self.children = []
        self.daemon_pids = []
        self.write_config()
        self._watch_sanitizers()
        self.addCleanup(self._cleanup)

    def _watch_sanitizers(self):
        # In sanitizer builds the detached daemon's standard error is
        # /dev/null: reports go to files instead, and a test fails on any.
        self.sanitizer_dir = self.path("sanitizer")
        os.makedirs(self.sanitizer_dir)
        saved = {}
        for var in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            saved[var] = os.environ.get(var)
            opts = [o for o in (saved[var] or "").split(":") if o and not o.startswith("log_path=")]
            opts.append("log_path=" + os.path.join(self.sanitizer_dir, var.split("_")[0].lower()))
            os.environ[var] = ":".join(opts)

        def restore():
            for var, value in saved.items():
                if value is None:
                    os.environ.pop(var, None)
                else:
                    os.environ[var] = value
        self.addCleanup(restore)

    def _cleanup(self):
        # Daemons still running get the operator's stop, so that every test
        # also ends in an orderly shutdown (and the sanitizers' exit checks).
        for pid in self.daemon_pids:
            try:
                os.kill(pid, signal.SIGTERM)
                self.wait_gone(pid)
            except ProcessLookupError:
                pass
            except AssertionError:
                os.kill(pid, signal.SIGKILL)
                raise
        for proc in self.children:
            if proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
                try:
                    proc.wait(10)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        reports = sorted(os.listdir(self.sanitizer_dir))
        if reports:
            with open(os.path.join(self.sanitizer_dir, reports[0]), errors="replace") as f:
                first = f.read(6000)
            raise AssertionError("sanitizer reports %s in %s:\n%s" % (reports, self.work, first))
        if os.environ.get("OSTREL_E2E_KEEP"):
            print("kept", self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    # configuration ------------------------------------------------------
    def write_config(self, channel=None, drop=(), **values):
        """conf/Config.txt for the channel; values override keys, drop
        leaves keys out."""
        suffix = "_%04d" % (self.channel if channel is None else channel)
        lines = ["# written by the end-to-end tests"]
        for key, default in CONFIG_KEYS:
            if key in drop:
                continue
            lines.append("%s%s=%s" % (key, suffix, values.pop(key, default)))
        for key, value in values.items():
            lines.append("%s%s=%s" % (key, suffix, value))
        with open(self.path("conf", "Config.txt"), "w") as f:
            f.write("\n".join(lines) + "\n")

    def write_directory_conf(self, states_dir):
        with open(self.path("Directory.Conf"), "w") as f:
            f.write("<Directory.Conf>\n <StatesDir>%s</StatesDir>\n</Directory.Conf>\n" % states_dir)

    # simulators ---------------------------------------------------------
    def start_camsim(self, *args, addr=MYIP, port=CAMERA_PORT, pictures=8, sizes=None,
                     name="cam"):
        """A simulated camera sending our own pictures; returns (pictures,
        record path)."""
        pics = make_pictures(self.path(name + "-pictures"), pictures, sizes=sizes,
                             seed=zlib.crc32(name.encode()))
        record = self.path(name + ".rec")
        self.spawn([CAMSIM, "--listen", "%s:%d" % (addr, port), "--quiet", "--images",
                    self.path(name + "-pictures"), "--record", record] + list(args))
        wait_for(lambda: is_listening(addr, port), "the camera simulator on %s:%d" % (addr, port))
        return pics, record

    def start_schedsim(self, *args):
        record = self.path("sched.rec")
        self.spawn([SCHEDSIM, "--listen", "%s:%d" % (MYIP, SCHED_PORT), "--quiet", "--no-stdout",
                    "--record", record] + list(args))
        wait_for(lambda: is_listening(MYIP, SCHED_PORT), "the schedule server simulator")
        return record

    def spawn(self, argv, **kw):
        proc = subprocess.Popen(argv, cwd=self.work, **kw)
        self.children.append(proc)
        return proc

    # the daemon ---------------------------------------------------------
    def run_ostrel(self, *args, env=None, stdin=b"", argv0=None, timeout=30):
        """Runs the program to its end (a launcher's view): (stdout, stderr)."""
        full_env = {k: v for k, v in os.environ.items()
                    if k not in ("REQUEST_METHOD", "QUERY_STRING", "CONTENT_LENGTH")}
        full_env.update(env or {})
        argv = [argv0 or BIN] + list(args)
        p = subprocess.run(argv, cwd=self.work, env=full_env, input=stdin, capture_output=True,
                           timeout=timeout, executable=BIN)
        self.assertEqual(p.returncode, 0, "main always ends with 0")
        return p.stdout, p.stderr

    def states_path(self, name="1"):
        return self.path("tmp.%s.States" % name)

    def read_states(self, name="1", path=None):
        """The states file as a dict of element texts, None when absent."""
        try:
            with open(path or self.states_path(name)) as f:
                text = f.read()
        except FileNotFoundError:
            return None
        fields = dict(re.findall(r"<(\w+)>([^<]*)</\1>", text))
        fields["_text"] = text
        return fields

    def wait_states(self, state, name="1", path=None, limit=START_LIMIT):
        def ready():
            s = self.read_states(name, path)
            # The file is rewritten in place: wait until it is complete.
            return s if s and s.get("States") == state and "</PPD.States>" in s["_text"] else None
        return wait_for(ready, "states %s" % state, limit)

    def start_forking(self, name="1"):
        """-StartUp: checks the launcher answer, returns the daemon's pid."""
        out, err = self.run_ostrel("-StartUp", name)
        self.assertEqual(out, success_answer(CONTROL_PORT), err)
        states = self.wait_states("NormalOperating", name)
        pid = int(states["ProcessId"])
        self.daemon_pids.append(pid)
        # The states file names the port before the threads exist; the pid
        # file is written once they run.
        self.wait_pid_file(pid, int(name))
        return pid

    def wait_pid_file(self, pid, channel):
        pid_file = self.path("mem", "Ostrel_%02d.pid" % channel)

        def written():
            try:
                with open(pid_file) as f:
                    return f.read() == str(pid)
            except FileNotFoundError:
                return False
        wait_for(written, "the pid file %s" % pid_file)

    def start_foreground(self, name="1"):
        proc = self.spawn([BIN, "-StartUp_NonDeamon", name], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)
        wait_for(lambda: proc.poll() is not None or
                 (self.read_states(name) or {}).get("Port") == str(CONTROL_PORT),
                 "the foreground daemon to write its states file")
        self.assertIsNone(proc.poll(), "the foreground daemon ended early")
        self.wait_pid_file(proc.pid, int(name))
        return proc

    def wait_gone(self, pid, limit=STOP_LIMIT):
        def gone():
            try:
                with open("/proc/%d/stat" % pid) as f:
                    return f.read().split(")")[-1].split()[0] in ("Z", "X")
            except FileNotFoundError:
                return True
        wait_for(gone, "process %d to end" % pid, limit)

    def stop_daemon(self, pid, sig=signal.SIGTERM):
        os.kill(pid, sig)
        self.wait_gone(pid)

    def log_text(self):
        text = ""
        for n in (0, 1):
            p = self.path("log", "Ostrel_%02d_log%d.txt" % (self.channel, n))
            if os.path.exists(p):
                with open(p, encoding="latin-1") as f:
                    text += f.read()
        return text

    def wait_log(self, line, limit=START_LIMIT):
        return wait_for(lambda: line in self.log_text(), "log line %r" % line, limit)


def launcher_answer(body):
    """The launcher's view of an answer document."""
    return b"Content-Length: %d\nContent-type: text/plain\n\n%s" % (len(body), body)


def success_answer(port):
    return launcher_answer(b"<Response>\n  <States>Success</States>\n  <Port>%d</Port>\n</Response>\n"
                           % port)


def start_failed_answer(comment):
    return launcher_answer(b"<Response>\n  <States>Err_StartFaild</States>\n  <Comment>%s</Comment>\n"
                           b"</Response>\n" % comment)
