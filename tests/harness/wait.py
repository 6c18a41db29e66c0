"""Waiting for events: a predicate polled until it holds, with a generous
deadline; nothing here sleeps to let something happen."""

import socket
import threading
import time

# Generous limits: the suites also run under sanitizers on a busy 2-core box.
START_LIMIT = 20.0
STOP_LIMIT = 30.0


def wait_for(predicate, what, limit=START_LIMIT, interval=0.02):
    """Polls predicate until it returns a true value, which is returned;
    AssertionError naming `what` after `limit` seconds."""
    deadline = time.monotonic() + limit
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("gave up after %.0f s waiting for %s" % (limit, what))
        time.sleep(interval)


def run_parallel(n, fn):
    """Runs fn(i) on n threads, all released together by a barrier; the
    first exception of any thread is raised here."""
    barrier = threading.Barrier(n)
    errors = []

    def body(i):
        try:
            barrier.wait(30)
            fn(i)
        except BaseException as exc:  # noqa: BLE001 - reported to the caller
            errors.append(exc)
    threads = [threading.Thread(target=body, args=(i,)) for i in range(n)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if errors:
        raise errors[0]


def alive(pid):
    """The process runs (a zombie or a vanished pid does not)."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().split(")")[-1].split()[0] not in ("Z", "X")
    except FileNotFoundError:
        return False


def wait_gone(pid, limit=STOP_LIMIT):
    wait_for(lambda: not alive(pid), "process %d to end" % pid, limit)


# ------------------------------------------------------ sockets of the namespace

TCP_ESTABLISHED, TCP_LISTEN = 1, 10


def _hexaddr(text):
    addr, port = text.split(":")
    raw = bytes.fromhex(addr)
    if len(raw) == 4:
        return socket.inet_ntoa(raw[::-1]), int(port, 16)
    # /proc/net/tcp6: four 32-bit words, each in host (little-endian) order.
    raw = b"".join(raw[i:i + 4][::-1] for i in range(0, 16, 4))
    return socket.inet_ntop(socket.AF_INET6, raw), int(port, 16)


def tcp_table(tables=("/proc/net/tcp",)):
    """(local, remote, state) of every TCP socket of this network namespace."""
    rows = []
    for table in tables:
        with open(table) as f:
            next(f)
            for line in f:
                parts = line.split()
                rows.append((_hexaddr(parts[1]), _hexaddr(parts[2]), int(parts[3], 16)))
    return rows


def is_listening(addr, port):
    """A socket listens for connections to addr:port: bound to addr itself
    or to every address (IPv4 or IPv6). Read from /proc: connecting to find
    out would take the one viewer slot of some servers."""
    wild = ("0.0.0.0", "::")
    return any(st == TCP_LISTEN and l[1] == port and l[0] in (addr,) + wild
               for l, _, st in tcp_table(("/proc/net/tcp", "/proc/net/tcp6")))


def established_to(addr, port):
    """Established connections whose server side is addr:port."""
    return [r for r in tcp_table() if r[0] == (addr, port) and r[2] == TCP_ESTABLISHED]
