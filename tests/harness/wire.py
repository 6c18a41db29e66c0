"""The test namespace's addresses and a raw HTTP client of the control port.

The programs run inside a private network namespace (tests/sim/ostrel-netns)
where eth0 holds 192.0.2.1, the channel's own address. The daemon listens for
its control port on the configured camera address and port and also connects
there as the camera client; tests/sim/ostrel-camera-redirect sends its own
connections (ephemeral ports 20000-29999) on to the simulated camera, so
every client of the control port binds a source port of 30000 or above.
"""

import itertools
import os
import re
import socket
import subprocess
import time

from . import paths

MYIP = "192.0.2.1"        # eth0: the channel's own address (myip)
OTHER_CAMERA_IP = "192.0.2.2"  # a second camera for address changes
FOREIGN_IP = "192.0.2.3"  # a client the daemon must not serve
CONTROL_PORT = 8080       # encoder_port: the control port and the camera's port
CAMERA_PORT = 8081        # where the simulated camera really listens
SCHED_PORT = 80           # the schedule server, on myip

_SBIN_PATH = dict(os.environ, PATH=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


def redirect_camera(control_port=CONTROL_PORT, camera_port=CAMERA_PORT, addr=MYIP, camera_addr=MYIP):
    """The daemon's own connections to addr:control_port go to the camera
    at camera_addr:camera_port."""
    subprocess.run([paths.REDIRECT, addr, str(control_port), camera_addr, str(camera_port)],
                   check=True, env=_SBIN_PATH)


def add_addresses(*addrs):
    for addr in addrs:
        subprocess.run(["ip", "addr", "add", addr + "/24", "dev", "eth0"], check=True, env=_SBIN_PATH)


def is_real_root():
    """Root of the machine, not the mapped root of a user namespace (where
    tests/sim/ostrel-netns puts an unprivileged user): only real root can act as
    other users such as www-data or nobody."""
    with open("/proc/self/uid_map") as f:
        return os.geteuid() == 0 and f.read().split()[:3] == ["0", "0", "4294967295"]


# ------------------------------------------------------------- HTTP client

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
