"""What the recording system tells a running daemon over /trcom.cgi, and the
post-alarm term: the schedule server is asked once to stop the urgent
recording when the term runs out; reset_postterm starts a new term;
notice_update re-reads the configuration, reconnecting the camera when its
address changed and stopping the daemon when the channel changed type."""

import time
import unittest

from harness import (CAMERA_PORT, CONTROL_PORT, MYIP, OTHER_CAMERA_IP, RelayCase, check_head,
                     established_to, get_image, login, logout, pull, read_records,
                     setup_namespace, trcom_command, wait_for)

BODY = b"<HTML><BODY><H1>200 OK</H1></BODY></HTML>"
STOP_REQUEST = (b"GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1"
                b"&command=stop_urgent_storage_wpp_ch&channel_no=%d HTTP/1.0\r\n")


def setUpModule():
    setup_namespace()


def trcom_lines(command):
    """The answer's TrCommunicate lines, its frame and body checked."""
    answer = trcom_command(command)
    m = check_head(answer)
    assert m.group("status") == "200 OK" and m.group("type") == "text/plain", answer
    assert answer.body == BODY, answer.body
    return m.group("extra").split("\r\n")[:-1]


def expected_lines(result, command):
    # Query_Result is (general class, code); the whole table of answers is
    # the control port's own TrCommunicate test.
    return ["Protocol_Name: TrCommunicate", "Protocol_Version: 1", "Node_Id: 16777473",
            "Query_Result: " + result, "Query_String: p_name=TrCommunicate&p_version=1&command=" + command]


class PostTermTest(RelayCase):
    def start_term(self, postterm, name="1"):
        """A channel with a post-alarm term of postterm seconds and a viewer
        logged in; the schedule server's request record."""
        self.write_config(translator_calarm_rec_postterm=str(postterm))
        sched = self.start_schedsim()
        self.start_camsim("--fps", "20")
        self.start_forking(name)
        login()
        return sched

    def test_stop_is_sent_once_per_term_and_reset_starts_a_new_term(self):
        sched = self.start_term(2)
        peer, raw = wait_for(lambda: read_records(sched), "the stop request", limit=30)[0]
        self.assertTrue(peer.startswith(MYIP + ":"), peer)
        self.assertEqual(raw, STOP_REQUEST % 1 + b"User-Agent: Tarnmoor\r\n\r\n")
        # Pictures keep flowing after the stop; the stop is not repeated
        # for as long again as the term (checked over a further 3 s).
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline:
            get_image()
        self.assertEqual(len(read_records(sched)), 1)

        self.assertEqual(trcom_lines("reset_postterm"), expected_lines("1:1", "reset_postterm"))
        wait_for(lambda: len(read_records(sched)) == 2, "the stop of the second term", limit=30)
        self.wait_log("reset_postterm received")

    def test_logout_ends_the_term(self):
        sched = self.start_term(2)
        logout()
        # Logged out, nothing is summed: no stop within twice the term.
        deadline = time.monotonic() + 4
        while time.monotonic() < deadline:
            self.assertEqual(read_records(sched), [])
            time.sleep(0.1)
        login()
        wait_for(lambda: read_records(sched), "the stop after logging in again", limit=30)

    def test_stop_for_a_two_digit_channel_is_not_padded(self):
        self.channel = 12
        sched = self.start_term(1, "12")
        stops = wait_for(lambda: read_records(sched), "the stop request", limit=30)
        self.assertTrue(stops[0][1].startswith(STOP_REQUEST % 12))


class NoticeUpdateTest(RelayCase):
    def test_changed_camera_address_reconnects(self):
        first, first_rec = self.start_camsim("--fps", "30", name="first")
        second, second_rec = self.start_camsim("--fps", "30", addr=OTHER_CAMERA_IP,
                                               port=CONTROL_PORT, name="second")
        pid = self.start_forking("1")
        login()
        # Each camera numbers its own pictures.
        pull(until=lambda got: got[-1][1] in first if got else False, rising=False)
        self.write_config(encoder_ip=OTHER_CAMERA_IP)
        self.assertEqual(trcom_lines("notice_update"), expected_lines("1:1", "notice_update"))
        # The old stream is closed and the new camera delivers; the control
        # port stays where it was opened.
        pull(until=lambda got: got[-1][1] in second if got else False, rising=False)
        wait_for(lambda: not established_to(MYIP, CAMERA_PORT), "the first stream to close")
        self.assertEqual(len(read_records(first_rec)), 1)
        self.assertEqual(len(read_records(second_rec)), 1)
        self.assertIn("encoder_ip 192.0.2.1 -> 192.0.2.2\n", self.log_text())
        self.assertEqual(self.read_states("1")["ProcessId"], str(pid))

    def test_configuration_that_stops_the_daemon(self):
        rows = [
            # change, Query_Result, log line
            ({"translator_tarndatatype": "OtherType"}, "2:27",
             "set PROGRAM_COMMAND_DESTRUCT for translator_tarndatatype changed\n"),
            ({"drop": ("encoder_port",)}, "3:1009", ""),
        ]
        for change, result, line in rows:
            with self.subTest(change=change):
                pid = self.start_forking("1")
                self.write_config(**change)
                self.assertEqual(trcom_lines("notice_update"), expected_lines(result, "notice_update"))
                self.wait_gone(pid)
                self.assertIsNone(self.read_states("1"))
                self.assertIn(line, self.log_text())
                self.write_config()


if __name__ == "__main__":
    unittest.main()
