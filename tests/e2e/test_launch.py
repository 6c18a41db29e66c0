"""Starting and stopping the daemon as a launcher or an operator does: the
answers to every command line and CGI request, byte for byte, the states and
pid files, the thread count, the ways a start fails, and the three ways a
running daemon is stopped."""

import glob
import os
import signal
import socket
import stat
import time
import unittest

from harness import (ALREADY_ANSWER, CONTROL_PORT, MYIP, TEMPLATE_ANSWER, RelayCase, cgi_env,
                     is_listening, launcher_answer, setup_namespace, start_failed_answer,
                     success_answer, wait_for)

TIMEOUT = start_failed_answer(b"Fork response time out")
USAGE = (b"\t-StartUp Name : PP Start (for Debug).\n\t-StartUp_NonDeamon Name : PP Start (for Debug).\n"
         b"\t-GetConfigTemplate\n")


def setUpModule():
    setup_namespace()


def invalid(comment):
    return launcher_answer(b"<Response>\n  <States>Err_InvalidArgument</States>\n  <Comment>%s</Comment>\n"
                           b"</Response>\n" % comment)


class LauncherAnswerTest(RelayCase):
    def test_answers_every_request_that_starts_nothing_exactly(self):
        get = lambda query: cgi_env("GET", query)  # noqa: E731
        post = lambda length: cgi_env("POST", length=length)  # noqa: E731
        rows = [
            # argv after the program name, CGI environment, stdin, stdout, stderr, note
            ([], {}, b"", USAGE, b"", "no arguments"),
            (["-StartUp"], {}, b"", USAGE, b"", "name missing"),
            (["-StartUp", "123"], {}, b"", USAGE, b"Invalid argument\n", "three digits"),
            (["-StartUp", "5x"], {}, b"", USAGE, b"Invalid argument\n", "digit check before the name check"),
            (["-StartUp_NonDeamon", "-0"], {}, b"", b"[-0] is illigal name.\n", b"",
             "name check after the digit check"),
            (["-GetConfigTemplate", "1"], {}, b"", TEMPLATE_ANSWER, b"", "template from the command line"),
            (["-Stop", "1"], {}, b"", b"[-Stop] Unkown.\n" + USAGE, b"", "unknown switch"),
            (["x", "05"], get("Command=GetConfigTemplate"), b"", TEMPLATE_ANSWER, b"", "template from CGI"),
            (["x", "05"], get("Command=Foo"), b"", invalid(b"Unkown Command 'Foo'"), b"", "unknown command"),
            (["x", "05"], get("Command=getconfigtemplate"), b"",
             invalid(b"Unkown Command 'getconfigtemplate'"), b"", "command value compared exactly"),
            (["x", "05"], get("Command=StartUp&Name=5"), b"", invalid(b"'Name' Length too short"), b"",
             "short name"),
            (["x", "05"], get("Command=StartUp&Name=" + "1" * 256), b"", invalid(b"'Name' Length too large"),
             b"", "long name"),
            (["x", "05"], get("Command=StartUp"), b"", invalid(b"Not found 'Name' CGI Argument "), b"",
             "no name"),
            (["x", "05"], get("Command=StartUp&Name=0-5"), b"", invalid(b"'Name' have invalid charactor"),
             b"", "name characters"),
            (["x", "05"], get("Name=05"), b"", invalid(b"Not found 'Command' CGI Argument "), b"",
             "no command"),
            (["x", "05"], get("Command=S"), b"", invalid(b"'Command' Length too short"), b"",
             "short command"),
            (["x", "05"], get(""), b"", invalid(b"Not found CGI Argument"), b"", "empty query"),
            (["x", "05"], get("Command=a=b"), b"", invalid(b"CGI Parameter parser error"), b"",
             "query syntax"),
            (["x", "05"], cgi_env("POST"), b"", invalid(b"Not found 'Content-Length' in HTTP Header"), b"",
             "no length"),
            (["x", "05"], post(0), b"", invalid(b"Invalid value 'Content-Length':0"), b"", "zero length"),
            (["x", "05"], post(-3), b"", invalid(b"Invalid value 'Content-Length':-3"), b"",
             "negative length"),
            (["x", "05"], post(65536), b"", invalid(b"CGI parametar too large."), b"", "length limit"),
            (["x", "05"], post(65535), b"", start_failed_answer(b"HTTP Body read faild"), b"",
             "largest length, empty body"),
            (["x", "05"], post(27), b"Command=GetConfigTemplate\r\n", TEMPLATE_ANSWER, b"",
             "body with its line end"),
            (["x", "05"], post(11), b"Command=GetConfigTemplate", invalid(b"Unkown Command 'Get'"), b"",
             "only the announced length is read"),
            (["x", "05"], cgi_env("HEAD", "Command=Foo"), b"", b"Content-type: text/plain\n\n", b"", "head"),
            (["x", "05"], cgi_env("put"), b"", b"[put] Unkown Command.", b"", "unknown method"),
        ]
        for args, env, stdin, out, err, note in rows:
            with self.subTest(note):
                self.assertEqual(self.run_ostrel(*args, env=env, stdin=stdin, argv0="Ostrel"), (out, err))
                self.assertEqual(glob.glob(self.path("*States*")), [], "nothing is started")

    def test_starts_refused_before_the_fork(self):
        def stale_states_file():
            # Nobody checks whether the recorded process still lives.
            with open(self.states_path("1"), "w") as f:
                f.write("<PPD.States>\n <States>normaloperating</States>\n"
                        " <ProcessId>999999</ProcessId>\n</PPD.States>\n")
        none = self.path("none").encode()
        rows = [
            # set-up, program name, answer to -StartUp, to -StartUp_NonDeamon
            (lambda: None, "/usr/bin/", start_failed_answer(b"Illegal file name in arg[0]."), None),
            (stale_states_file, None, ALREADY_ANSWER, b"1 was alredy started.\n"),
            (lambda: self.write_directory_conf(self.path("none")), None, start_failed_answer(
                b"States file does not create. Prease check a permission '%s/'" % none), b""),
        ]
        for setup, argv0, forking, foreground in rows:
            with self.subTest(forking):
                setup()
                self.assertEqual(self.run_ostrel("-StartUp", "1", argv0=argv0)[0], forking)
                if foreground is not None:
                    self.assertEqual(self.run_ostrel("-StartUp_NonDeamon", "1")[0], foreground)
                self.assertFalse(is_listening(MYIP, CONTROL_PORT))


class DaemonLifeTest(RelayCase):
    def setUp(self):
        super().setUp()
        # The files' mode is set explicitly, not left to the mask (the
        # forking start clears it, the foreground one not).
        old_mask = os.umask(0o022)
        self.addCleanup(os.umask, old_mask)

    def assert_files_mode_0666(self):
        for parts in (("mem", "Ostrel_01.pid"), ("log", "Ostrel_01_log0.txt"), ("tmp.1.States",)):
            self.assertEqual(stat.S_IMODE(os.stat(self.path(*parts)).st_mode), 0o666, parts)

    def test_forking_start_publishes_its_state_and_stops_on_sigterm(self):
        pid = self.start_forking("1")
        self.assert_files_mode_0666()
        states = self.read_states("1")
        self.assertEqual(states["PPD_Type"], "Ostrel")
        self.assertEqual(states["PPD_Name"], "1")
        self.assertEqual(states["Port"], str(CONTROL_PORT))
        self.assertRegex(states["PPD_VersionTime"], r"^\d\d:\d\d:\d\d \w{3} [ \d]\d \d{4}$")
        with open(self.path("mem", "Ostrel_01.pid")) as f:
            self.assertEqual(f.read(), str(pid))
        # Detached: its own session without being its leader, standard
        # descriptors on /dev/null.
        self.assertNotEqual(os.getsid(pid), os.getsid(0))
        self.assertNotEqual(os.getsid(pid), pid)
        for fd in (0, 1, 2):
            self.assertEqual(os.readlink("/proc/%d/fd/%d" % (pid, fd)), "/dev/null")
        self.assertTrue(is_listening(MYIP, CONTROL_PORT))

        # A second start of the same name is refused, by either launcher.
        self.assertEqual(self.run_ostrel("-StartUp", "1")[0], ALREADY_ANSWER)
        out, _ = self.run_ostrel("-StartUp_NonDeamon", "1")
        self.assertEqual(out, b"1 was alredy started.\n")

        self.stop_daemon(pid, signal.SIGTERM)
        self.assertIsNone(self.read_states("1"), "a clean stop removes the states file")
        self.assertTrue(os.path.exists(self.path("mem", "Ostrel_01.pid")), "the pid file stays")
        self.assertFalse(is_listening(MYIP, CONTROL_PORT))
        log = self.log_text()
        self.assertIn("-StartUp 1 \n", log)
        self.assertIn("] End\n", log)

    def test_foreground_start_stops_on_sigint_and_when_its_states_file_is_deleted(self):
        for how in ("SIGINT", "states file deleted"):
            with self.subTest(how):
                proc = self.start_foreground("1")
                self.assertEqual(int(self.read_states("1")["ProcessId"]), proc.pid)
                self.assert_files_mode_0666()
                if how == "SIGINT":
                    proc.send_signal(signal.SIGINT)
                else:
                    os.unlink(self.states_path("1"))
                proc.communicate(timeout=30)
                self.assertEqual(proc.returncode, 0)
                self.assertIsNone(self.read_states("1"))
                self.assertFalse(is_listening(MYIP, CONTROL_PORT))
        self.assertIn("States file deleted\n", self.log_text())

    def test_cgi_start_clamps_the_thread_count_and_uses_the_states_directory(self):
        os.makedirs(self.path("states"))
        self.write_directory_conf(self.path("states"))
        states_file = self.path("states", "01.States")
        tasks = {}
        pid_file = self.path("mem", "Ostrel_01.pid")
        for method, count in (("GET", 0), ("POST", 50)):
            if os.path.exists(pid_file):
                os.unlink(pid_file)
            query = "Command=StartUp&Name=01&NumOfControlPortThread=%d" % count
            if method == "GET":
                out, _ = self.run_ostrel("cgi", "01", env=cgi_env("GET", query))
            else:
                out, _ = self.run_ostrel("cgi", "01", env=cgi_env("POST", length=len(query)),
                                         stdin=query.encode())
            self.assertEqual(out, success_answer(CONTROL_PORT))
            pid = int(self.wait_states("NormalOperating", path=states_file)["ProcessId"])
            self.daemon_pids.append(pid)
            self.assertFalse(os.path.exists(self.states_path("01")))
            # The workers start right after the answer: wait for them to
            # settle, then count the process's threads.
            self.wait_pid_file(pid, 1)
            tasks[count] = len(os.listdir("/proc/%d/task" % pid))
            self.stop_daemon(pid, signal.SIGTERM)
            self.assertFalse(os.path.exists(states_file))
        # 0 gives one control-port thread and 50 gives ten; the main and the
        # camera thread (and any sanitizer helper) are in both counts.
        self.assertEqual(tasks[50] - tasks[0], 9, tasks)

    def test_a_failed_daemon_start_is_told_in_the_states_file(self):
        start = ["-StartUp", "1"]
        rows = [
            # configuration, launcher's argv and environment, start name, ErrorExit comment
            ({"translator_tarndatatype": "Other"}, start, {}, "1",
             "For translator_tarndatatype matching failed"),
            ({"drop": ("encoder_ip",)}, start, {}, "1", "For failed at config file reading"),
            ({"translator_calarm_rec_postterm": "0"}, start, {}, "1", "For failed at config file reading"),
            ({}, start, {}, "1", "Control Listen Port , can not open."),  # the port is taken
            ({"channel": 100}, ["cgi", "01"], cgi_env("GET", "Command=StartUp&Name=100"), "100",
             "For invalid argument"),
        ]
        for config, argv, env, name, comment in rows:
            with self.subTest(comment, name=name), socket.socket() as blocker:
                self.write_config(**config)
                if not config:
                    blocker.bind((MYIP, CONTROL_PORT))
                    blocker.listen(1)
                # The daemon failed after the fork and sent nothing: the
                # launcher learns it only after its whole 2-second wait,
                # however soon the daemon ended (the upper bound leaves
                # room for a loaded machine).
                t0 = time.monotonic()
                self.assertEqual(self.run_ostrel(*argv, env=env)[0], TIMEOUT)
                self.assertTrue(1.8 <= time.monotonic() - t0 < 8.0, time.monotonic() - t0)
                self.assertEqual(self.wait_states("ErrorExit", name)["Comment"], comment)
                os.unlink(self.states_path(name))

    def test_without_mem_directory_the_daemon_answers_then_stops(self):
        os.rmdir(self.path("mem"))
        out, _ = self.run_ostrel("-StartUp", "1")
        self.assertEqual(out, success_answer(CONTROL_PORT))
        wait_for(lambda: not os.path.exists(self.states_path("1")), "the states file to go")
        wait_for(lambda: not is_listening(MYIP, CONTROL_PORT), "the control port to close")
        self.assertIn("[Server_Construct] writePid", self.log_text())


if __name__ == "__main__":
    unittest.main()
