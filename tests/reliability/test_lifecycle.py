"""The daemon's life cycle under load: stopped by SIGTERM and by deleting its
states file while pictures are being served, told notice_update while another
process rewrites the configuration file under the shared semaphore, and
stopped while every thread is blocked or the camera thread backs off. What it
leaves behind must be whole."""

import ctypes
import os
import signal
import threading
import time
import unittest

import harness
import reliability as r

STOPS = 3          # stops of each kind
UPDATES = 200      # notice_update requests during the rewrites

CONFIG_SEM_KEY = 3223110  # the configuration file's System V semaphore


def setUpModule():
    harness.setup_namespace()


class ConfigSemaphore:
    """The configuration file's cross-process lock, taken the way the daemon
    takes it (one semaphore of value 1, undone if the holder dies)."""

    IPC_CREAT, IPC_EXCL, SETVAL, SEM_UNDO = 0o1000, 0o2000, 16, 0x1000

    class SemBuf(ctypes.Structure):
        _fields_ = [("sem_num", ctypes.c_ushort), ("sem_op", ctypes.c_short),
                    ("sem_flg", ctypes.c_short)]

    def __init__(self, key=CONFIG_SEM_KEY):
        self.libc = ctypes.CDLL(None, use_errno=True)
        semid = self.libc.semget(key, 1, self.IPC_CREAT | self.IPC_EXCL | 0o666)
        if semid >= 0:
            if self.libc.semctl(semid, 0, self.SETVAL, ctypes.c_int(1)) < 0:
                raise OSError(ctypes.get_errno(), "semctl")
        else:
            semid = self.libc.semget(key, 1, 0o666)
        if semid < 0:
            raise OSError(ctypes.get_errno(), "semget")
        self.semid = semid

    def _op(self, delta):
        op = self.SemBuf(0, delta, self.SEM_UNDO)
        while self.libc.semop(self.semid, ctypes.byref(op), 1) < 0:
            if ctypes.get_errno() != 4:  # EINTR
                raise OSError(ctypes.get_errno(), "semop")

    def __enter__(self):
        self._op(-1)

    def __exit__(self, *exc):
        self._op(1)


def stalled_viewer():
    """A viewer that asked for a picture, read its head and stopped reading
    (its receive window is small): the daemon is left sending the rest.
    None when no picture was there."""
    sock = harness.connect(timeout=20, rcvbuf=4096)
    sock.sendall(r.IMAGE_REQUEST)
    if b"image/jpeg" in sock.recv(1024):
        return sock
    sock.close()
    return None


def pull_until_gone(tally, done):
    """A viewer pulling pictures until the daemon goes away (or done is
    set), counting what it got. A stop may cut a picture being sent: that
    ends in a close."""
    while not done.is_set():
        try:
            data = harness.exchange(r.IMAGE_REQUEST)
        except ConnectionRefusedError:
            tally.add("refused")
            return
        except OSError:
            tally.add("reset")
            continue
        try:
            a = harness.parse_answers(data)[0] if data else None
        except AssertionError:
            tally.add("cut by the stop")
            continue
        if a is None:
            tally.add("closed unanswered")
        elif a.header("Content-Type") == "image/jpeg":
            harness.split_stamp(a.body)
            tally.add("image")
        else:
            tally.add("answered")


class LifecycleTest(r.ReliabilityCase):
    def stop(self, pid, how):
        """Stops the daemon by SIGTERM or by deleting its states file; the
        seconds it took. Afterwards the states file is gone, the pid file
        whole and the log ends on a whole line."""
        if how == "SIGTERM":
            os.kill(pid, signal.SIGTERM)
        else:
            os.unlink(self.states_path())
        t0 = time.monotonic()
        self.wait_gone(pid)
        took = time.monotonic() - t0
        self.daemon_pids.remove(pid)
        self.assertIsNone(self.read_states())
        self.check_files(states_expected=False, stopped=True)
        return took

    def test_stop_while_serving(self):
        for how in ("SIGTERM", "states file deleted"):
            with self.subTest(how):
                tally = r.Tally()
                for _ in range(STOPS):
                    pid = self.start_streaming()
                    seen, done = r.Tally(), threading.Event()
                    clients = threading.Thread(target=r.run_parallel,
                                               args=(4, lambda i: pull_until_gone(seen, done)))
                    clients.start()
                    harness.wait_for(lambda: seen["image"] >= 20, "pictures being served")
                    self.stop(pid, how)
                    clients.join(120)
                    done.set()
                    tally.update(seen)
                    tally.add("stopped")
                    self.procs.stop_all()
                r.record("life cycle: %s while pictures are served" % how, STOPS,
                         "stopped cleanly; files whole; viewers: " + tally.text())

    def test_stop_while_every_thread_is_blocked(self):
        # Both control threads blocked: one reading a silent client, one
        # sending a big picture to a viewer that does not read. A stop must
        # interrupt them (well before the 15 s read limit) and must not free
        # the frame memory under the send (5 s main-loop poll for the
        # deleted file, 2 s per pool).
        durations = []
        for how in ("SIGTERM", "states file deleted") * 2:
            pid = self.start_streaming(sizes=[700000], pictures=4)
            with harness.wait_for(stalled_viewer, "a picture being sent to a stalled viewer"), \
                    harness.connect(timeout=60):
                took = self.stop(pid, how)
            self.assertLess(took, 14.0, "%s took %.1f s: a blocked thread was not interrupted" % (how, took))
            self.procs.stop_all()
            durations.append("%.1f" % took)
        r.record("life cycle: stop while a thread reads a silent client and one sends to a stalled viewer",
                 len(durations), "stopped cleanly", note="stopped after %s s" % "/".join(durations))

    def test_stop_during_camera_back_off(self):
        # No camera at all: the camera thread sleeps ever longer between
        # starts (up to 16 s). A stop during that sleep must still be quick
        # and orderly.
        pid = self.start_forking("1")
        harness.login()
        # The fifth failed start is followed by the 16 s sleep.
        harness.wait_for(lambda: self.log_text().count("obAXISJPEGMultiPart.Start failed") >= 5,
                         "five failed starts", limit=120.0)
        took = self.stop(pid, "SIGTERM")
        self.assertLess(took, 14.0, "the stop waited %.1f s for the back-off" % took)
        r.record("life cycle: SIGTERM while the camera thread backs off 16 s", 1,
                 "stopped cleanly", note="stopped after %.1f s" % took)

    def test_notice_update_while_config_rewritten(self):
        pid = self.start_streaming()
        before = self.usage(pid)
        sem = ConfigSemaphore()
        config = self.path("conf", "Config.txt")
        with open(config) as f:
            lines = f.read().splitlines(keepends=True)
        done = threading.Event()
        rewrites = r.Tally()

        def rewrite():
            # Truncate and write back line by line under the lock: a reader
            # that skipped the lock would find the file empty or half there.
            while not done.is_set():
                with sem:
                    with open(config, "w") as f:
                        for line in lines:
                            f.write(line)
                            f.flush()
                rewrites.add("rewrites")
        writer = threading.Thread(target=rewrite)
        writer.start()
        try:
            for _ in range(UPDATES):
                a = harness.trcom_command("notice_update")
                self.assertEqual(a.header("Query_Result"), "1:1", a)
        finally:
            done.set()
            writer.join(60)
        self.pull(3)
        self.finish(pid, "life cycle: notice_update while the config file is rewritten under its lock",
                    UPDATES, "all 1:1; daemon kept running", before,
                    note="%d rewrites meanwhile" % rewrites.total())


if __name__ == "__main__":
    unittest.main()
