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
from .wait import wait_for

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


def connect(src=MYIP, dst=(MYIP, CONTROL_PORT), timeout=10.0, rcvbuf=None):
    """A connection to the control port from src, on a source port outside
    the range that the camera redirect rewrites. rcvbuf: a small receive
    window, so that a big picture is still being sent when the client stops
    reading or goes away."""
    for _ in range(50):
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.settimeout(timeout)
        if rcvbuf:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
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


def exchange(raw, src=MYIP, timeout=10.0, dst=(MYIP, CONTROL_PORT)):
    """Sends raw request bytes and reads until the daemon closes."""
    sock = connect(src, dst, timeout=timeout)
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


def request(target, method="GET", version="1.0", src=MYIP, extra=b"", body=b"", dst=(MYIP, CONTROL_PORT)):
    raw = ("%s %s HTTP/%s\r\n" % (method, target, version)).encode() + extra + b"\r\n" + body
    data = exchange(raw, src, dst=dst)
    answers = parse_answers(data, head_only=(method == "HEAD"))
    if len(answers) != 1:
        raise AssertionError("expected one answer, got %r" % answers)
    return answers[0]


def login():
    """The viewer's login, which must succeed; its answer."""
    a = request("/ptippreimg.cgi?img_login=1")
    if a.body != b"LOGIN_SUCCESS:1:\r\n":
        raise AssertionError("img_login answered %r" % a)
    return a


def logout():
    """The viewer's logout, which must succeed; its answer."""
    a = request("/ptippreimg.cgi?img_logout=1&img_user_id=1")
    if a.body != b"LOGOUT_SUCCESS:1:IMAGE\r\n":
        raise AssertionError("img_logout answered %r" % a)
    return a


def get_image(method="GET"):
    return request("/ptippreimg.cgi?get_image=1&img_user_id=1", method=method)


def trcom(query, src=MYIP):
    return request("/trcom.cgi?" + query, src=src)


def trcom_command(command, src=MYIP):
    return trcom("p_name=TrCommunicate&p_version=1&command=" + command, src=src)


def pull(count=1, limit=40.0, until=None, rising=True):
    """Polls get_image as a viewer does until count pictures came (or
    until(pictures) holds): a list of (seq, picture without the camera
    simulator's stamp, answer). ERROR_TRANSLATOR_RECEIVE: is "not yet";
    any other text fails, and so does a sequence number that does not rise
    when rising."""
    from .files import split_stamp  # files builds on this module
    got = []

    def more():
        a = get_image()
        if a.header("Content-Type") == "image/jpeg":
            seq, _, picture = split_stamp(a.body)
            if rising and got and seq <= got[-1][0]:
                raise AssertionError("picture %d after %d" % (seq, got[-1][0]))
            got.append((seq, picture, a))
        elif a.body != b"ERROR_TRANSLATOR_RECEIVE:":
            raise AssertionError("get_image answered %r" % a.body[:200])
        return until(got) if until else len(got) >= count
    wait_for(more, "pictures (%d came)" % len(got), limit, interval=0)
    return got


def http(addr, port, target, method="GET", body=b"", src=None, version="1.0", timeout=20.0):
    """One request to a web server, read until it closes the connection:
    (status code, headers with lower-case names, body)."""
    raw = ("%s %s HTTP/%s\r\nHost: %s\r\n" % (method, target, version, addr)).encode()
    if body:
        raw += b"Content-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n" % len(body)
    with socket.create_connection((addr, port), timeout=timeout,
                                  source_address=(src, 0) if src else None) as sock:
        sock.sendall(raw + b"\r\n" + body)
        data = read_until_close(sock, timeout)
    head, _, rest = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    headers = dict((n.strip().lower(), v.strip()) for n, _, v in (l.partition(":") for l in lines[1:]))
    return int(lines[0].split()[1]), headers, rest


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
