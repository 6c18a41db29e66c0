"""The control port against clients that misbehave or crowd it: thousands of
malformed and oversized requests, clients that say nothing or stop half-way
through a request, more clients than control threads, viewers that vanish
mid-picture and get_image storms while the camera streams. Every request is answered with its defined
status or closed; the daemon keeps serving and gives back what it took."""

import random
import socket
import struct
import time
import unittest

import harness
import reliability as r

ROUNDS = 120  # malformed requests of each kind


def setUpModule():
    harness.setup_namespace()


def malformed(rng):
    """Rows: (kind, request bytes, half-close after sending, allowed
    answers; None = closed without an answer)."""
    junk = bytes(rng.randrange(1, 256) for _ in range(rng.randrange(1, 400)))
    word = "GET"
    while word in ("GET", "HEAD", "POST"):  # a method the daemon knows is no unknown one
        word = "".join(rng.choice("ABCDEFGHIJKLMNOPQRSTUVWXYZ") for _ in range(rng.randrange(3, 9)))
    long_path = "/" + "a" * rng.randrange(1000, 60000)
    return [
        ("binary garbage", junk.replace(b"\r\n\r\n", b"") + b"\r\n\r\n", False, {400, 415}),
        ("unknown method", ("%s / HTTP/1.0\r\n\r\n" % word).encode(), False, {415}),
        # Version numbers are read, not compared: any number pair is a
        # request (here for an unknown path); a missing or overflowing one
        # is a syntax error.
        ("any version number", b"GET / HTTP/%d.%d\r\n\r\n" % (rng.randrange(2, 10), rng.randrange(10)),
         False, {404}),
        ("version not a number", b"GET / HTTP/%s.1\r\n\r\n" % rng.choice([b"x", b"", b"1" * 25]),
         False, {400}),
        ("no version", b"GET /ptippreimg.cgi\r\n\r\n", False, {400}),
        ("header without colon", b"GET / HTTP/1.0\r\nHost localhost\r\n\r\n", False, {400}),
        ("path above the root", b"GET /a/../../b HTTP/1.0\r\n\r\n", False, {400}),
        ("long unknown path", ("GET %s HTTP/1.0\r\n\r\n" % long_path).encode(), False, {404}),
        ("head over 64 KiB", b"GET / HTTP/1.0\r\nX: " + b"x" * rng.randrange(66000, 200000)
         + b"\r\n\r\n", False, {413, None}),
        ("many header lines", b"GET / HTTP/1.0\r\n" + b"".join(
            b"X-%d: v\r\n" % i for i in range(rng.randrange(300, 3000))) + b"\r\n", False,
         {400, 404, 413, None}),
        ("NUL in a header", b"GET / HTTP/1.0\r\nX: a\0b\r\n\r\n", False, {400, 404}),
        ("POST without length", b"POST /trcom.cgi HTTP/1.0\r\n\r\n", False, {411}),
        ("POST length 0", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 0\r\n\r\n", False, {411}),
        ("POST length huge", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: %d\r\n\r\n"
         % rng.choice([65536, 10 ** 9, 2 ** 31, 2 ** 63]), False, {411}),
        ("POST length negative", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: -5\r\n\r\n",
         False, {411}),
        ("POST body cut short", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 500\r\n\r\nabc",
         True, {400, 408, None}),
        ("PiPP part out of range", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 4\r\nNumOfPart: 1\r\n"
         b"Part_0_Offset: 9\r\nPart_0_Length: 1\r\n\r\na=bc", False, {400}),
        ("head cut short", b"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\nX: y", True, {400, None}),
        ("bad query", b"GET /trcom.cgi?%%zz&=&&%s HTTP/1.0\r\n\r\n" % junk[:20].replace(b" ", b"")
         .replace(b"\r", b"").replace(b"\n", b""), False, {200, 400}),
        ("unknown user", b"GET /ptippreimg.cgi?get_image=1&img_user_id=%d HTTP/1.0\r\n\r\n"
         % rng.randrange(2, 10 ** 6), False, {200}),
    ]


class ControlPortLoadTest(r.ReliabilityCase):
    def test_malformed_and_oversized_requests(self):
        pid = self.start_streaming()
        before = self.usage(pid)
        rng = random.Random(11)
        tally = r.Tally()
        rows = [malformed(rng) for _ in range(ROUNDS)]
        kinds = len(rows[0])

        def client(i):
            for round_rows in rows[i::4]:
                for kind, raw, half_close, allowed in round_rows:
                    status = r.status_of(r.raw_exchange(raw, shut_write=half_close))
                    if status not in allowed:
                        raise AssertionError("%s: answered %s, expected one of %s" % (kind, status, allowed))
                    tally.add("closed" if status is None else str(status))
        r.run_parallel(4, client)
        self.assertEqual(tally.total(), ROUNDS * kinds)
        self.pull(3)
        self.finish(pid, "control: malformed and oversized requests (%d kinds)" % kinds, tally.total(),
                    "answered as defined: " + tally.text(), before)

    def test_half_sent_requests_do_not_lock_the_viewer_out(self):
        # One half-sent request per control-port thread, then silence: each
        # read ends after its 15 s limit, and the viewer, queued behind them,
        # is served then. A CGI start has one thread, the command line two.
        rows = [
            # start, threads, what the silent clients send, what they get
            ("command line", "2", b"", None),
            ("command line", "2", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 10\r\n\r\nabc",
             b"HTTP body read faild."),
            ("command line", "2", b"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\nX-Pad: pp", None),
            ("CGI", "1", b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 10\r\n\r\nabc",
             b"HTTP body read faild."),
            ("CGI", "1", b"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\nX-Pad: pp", None),
        ]
        self.start_camsim("--fps", "50")
        for start, threads, partial, answer in rows:
            with self.subTest(start=start, partial=partial[:20]):
                # A CGI Name has at least two characters.
                name = "01" if start == "CGI" else "1"
                if start == "CGI":
                    out, err = self.run_ostrel("cgi", "01", env=harness.cgi_env("GET", "Command=StartUp&Name=01"))
                    self.assertEqual(out, harness.success_answer(harness.CONTROL_PORT), err)
                    pid = harness.procs.adopt_forked(self.procs, self.work, self.states_path(name), name)
                else:
                    pid = self.start_forking(name)
                harness.login()
                self.wait_picture()
                before = self.usage(pid)
                start_t = time.monotonic()
                silent = []
                for _ in range(int(threads)):
                    s = harness.connect(timeout=60)
                    if partial:
                        s.sendall(partial)
                    silent.append(s)
                # Queued behind the silent clients: answered once they are.
                a, = harness.parse_answers(harness.exchange(
                    b"GET /ptippreimg.cgi?img_logout=1&img_user_id=1 HTTP/1.0\r\n\r\n", timeout=60))
                waited = time.monotonic() - start_t
                self.assertEqual(a.body, b"LOGOUT_SUCCESS:1:IMAGE\r\n")
                self.assertGreaterEqual(waited, 14.0, "the silent clients held no thread")
                self.assertLess(waited, 15.0 + 15.0)
                for s in silent:
                    data = harness.read_until_close(s, 60)
                    s.close()
                    if answer is None:
                        self.assertEqual(data, b"", "a cut-off head got an answer")
                    else:
                        self.assertEqual(r.status_of(data), 400)
                        self.assertTrue(data.endswith(answer), data)
                harness.login()
                self.wait_picture()
                kind = "half-sent body" if answer else ("half-sent head" if partial else "connection")
                self.finish(pid, "control: %s silent %s, %s start" % (threads, kind, start), int(threads),
                    "viewer served after %.1f s" % waited, before, name=name)
                self.stop_daemons()

    def test_trickling_client_is_cut_off(self):
        # The 15 s read limit counts the whole head, not each wait: a client
        # sending a byte every half second cannot hold a thread for longer.
        pid = self.start_streaming()
        before = self.usage(pid)
        head = b"GET /ptippreimg.cgi?get_image=1&img_user_id=1 HTTP/1.0\r\nX-Pad: " + b"p" * 200
        results = []

        def trickle(i):
            # The whole head would take two minutes.
            results.append(r.trickle(b"", (head[k:k + 1] for k in range(len(head)))))
        r.run_parallel(int(self.threads), trickle)
        for data, secs in results:
            self.assertIsNotNone(data, "the daemon read the whole head over %.0f s" % secs)
            self.assertEqual(data, b"", "a cut-off head got an answer")
        self.pull(3)
        self.finish(pid, "control: clients trickling a byte every 0.5 s", len(results),
                    "closed without answer after the read limit", before,
                    note="closed after %s s" % "/".join("%.1f" % x[1] for x in results))

    def test_log_rotation_under_concurrent_writers(self):
        # Every unknown path writes a log line; enough of them from several
        # threads fill both log files more than once.
        pid = self.start_streaming()
        before = self.usage(pid)
        tally = r.Tally()
        n = 24000

        def client(i):
            for k in range(n // 4):
                a = harness.request("/no/such/page-%d-%d-%s" % (i, k, "q" * 200))
                self.assertEqual(a.status, 404)
                tally.add("404")
        r.run_parallel(4, client)
        sizes = r.log_sizes(self)
        self.assertTrue(all(0 < size < r.LOG_LIMIT + 4096 for size in sizes), sizes)
        self.finish(pid, "control: log files rotated by 4 writers", tally.total(),
                    "both generations within 1 MiB, every line whole", before,
                    note="log sizes %s bytes" % "/".join(map(str, sizes)))

    def test_viewer_gone_mid_picture(self):
        pid = self.start_streaming(sizes=[700000], pictures=4)
        before = self.usage(pid)
        tally = r.Tally()
        for i in range(60):
            with harness.connect(timeout=20, rcvbuf=4096) as s:
                s.sendall(r.IMAGE_REQUEST)
                head = s.recv(2048)
                self.assertTrue(head.startswith(b"HTTP/1.0 200"), head[:100])
                if i % 2:
                    # a reset instead of an orderly close
                    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                tally.add("image" if b"image/jpeg" in head else "not yet")
        self.pull(3)
        self.finish(pid, "control: viewer gone mid-picture (700 kB pictures)", 60,
                    "later pictures whole: " + tally.text(), before)

    def test_storms_while_streaming(self):
        def image():
            a = harness.get_image()
            if a.header("Content-Type") == "image/jpeg":
                harness.split_stamp(a.body)
                self.assertEqual((a.body[:2], a.body[-2:]), (b"\xff\xd8", b"\xff\xd9"))
                return "image"
            self.assertEqual(a.body, b"ERROR_TRANSLATOR_RECEIVE:")
            return "not yet"

        def trcom(command):
            self.assertEqual(harness.trcom_command(command).header("Query_Result"), "1:1")
            return command

        def churn():
            # Each login opens the camera stream and each logout closes it,
            # with a frame half written: the camera thread starts, stops and
            # cancels over and over while other clients pull.
            harness.login()
            harness.get_image()  # another client may have logged the viewer out meanwhile
            harness.logout()
            return "logins"
        rows = [
            # what, clients, requests each, request of client i
            ("20 clients at once on 2 threads", 20, 25, lambda i: trcom("reset_postterm") if i % 2 else image()),
            # Every notice_update re-reads the file and makes the camera
            # thread drop its stream and reconnect.
            ("notice_update storm", 4, 100, lambda i: trcom("notice_update") if i % 2 else image()),
            ("get_image storm, 8 clients", 8, 250, lambda i: image()),
            ("login/logout churn, 4 clients", 4, 60, lambda i: churn()),
        ]
        pid = self.start_streaming()
        for what, clients, rounds, request in rows:
            with self.subTest(what):
                before = self.usage(pid)
                tally = r.Tally()
                r.run_parallel(clients, lambda i: [tally.add(request(i)) for _ in range(rounds)])
                if request is rows[-1][3]:
                    # Logged out: the camera connection is closed again.
                    self.settle(pid, (before[0] - 1, before[1]), "the last logout")
                # Logged in again after the churn: the camera stream reopens.
                harness.login()
                self.pull(3)
                self.finish(pid, "control: %s while streaming" % what, tally.total(),
                            "all answered: " + tally.text(), before)


if __name__ == "__main__":
    unittest.main()
