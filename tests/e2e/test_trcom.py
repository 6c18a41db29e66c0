"""What the recording system tells a running daemon over /trcom.cgi, and the
post-alarm term: the schedule server is asked once to stop the urgent
recording when the term runs out; reset_postterm starts a new term;
notice_update re-reads the configuration, reconnecting the camera when its
address changed and stopping the daemon when the channel changed type."""

import time
import unittest

from harness import (CAMERA_PORT, CONTROL_PORT, MYIP, OTHER_CAMERA_IP, RelayCase,
                     check_head, established_to, get_image, login, logout, read_records,
                     setup_namespace, split_stamp, trcom, wait_for)

BODY = b"<HTML><BODY><H1>200 OK</H1></BODY></HTML>"
STOP_REQUEST = (b"GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1"
                b"&command=stop_urgent_storage_wpp_ch&channel_no=%d HTTP/1.0\r\n")

# Query_Result values (general class, code) the tests expect; the whole
# table of answers is the control port's own TrCommunicate test.
SUCCESS = "1:1"
TYPE_MISMATCH = "2:27"


def setUpModule():
    setup_namespace()


def trcom_lines(answer):
    m = check_head(answer)
    assert m.group("status") == "200 OK" and m.group("type") == "text/plain", answer
    assert answer.body == BODY, answer.body
    return m.group("extra").split("\r\n")[:-1]


def expected_lines(result, query):
    return ["Protocol_Name: TrCommunicate", "Protocol_Version: 1", "Node_Id: 16777473",
            "Query_Result: " + result, "Query_String: " + query]


class PostTermTest(RelayCase):
    def test_stop_is_sent_once_per_term_and_reset_starts_a_new_term(self):
        self.write_config(translator_calarm_rec_postterm="2")
        sched = self.start_schedsim()
        self.start_camsim("--fps", "20")
        self.start_forking("1")
        login()
        stops = wait_for(lambda: read_records(sched), "the stop request", limit=30)
        peer, raw = stops[0]
        self.assertTrue(peer.startswith(MYIP + ":"), peer)
        self.assertEqual(raw, STOP_REQUEST % 1 + b"User-Agent: Tarnmoor\r\n\r\n")

        # Pictures keep flowing after the stop; the stop is not repeated
        # for as long again as the term (checked over a further 3 s).
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline:
            get_image()
        self.assertEqual(len(read_records(sched)), 1)

        self.assertEqual(trcom_lines(trcom("p_name=TrCommunicate&p_version=1&command=reset_postterm"))[3],
                         "Query_Result: " + SUCCESS)
        wait_for(lambda: len(read_records(sched)) == 2, "the stop of the second term", limit=30)
        self.wait_log("reset_postterm received")

    def test_logout_ends_the_term(self):
        self.write_config(translator_calarm_rec_postterm="2")
        sched = self.start_schedsim()
        self.start_camsim("--fps", "20")
        self.start_forking("1")
        login()
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
        self.write_config(translator_calarm_rec_postterm="1")
        sched = self.start_schedsim()
        self.start_camsim("--fps", "20")
        self.start_forking("12")
        login()
        stops = wait_for(lambda: read_records(sched), "the stop request", limit=30)
        self.assertTrue(stops[0][1].startswith(STOP_REQUEST % 12))


class NoticeUpdateTest(RelayCase):
    def test_changed_camera_address_reconnects(self):
        first, first_rec = self.start_camsim("--fps", "30", name="first")
        second, second_rec = self.start_camsim("--fps", "30", addr=OTHER_CAMERA_IP,
                                               port=CONTROL_PORT, name="second")
        pid = self.start_forking("1")
        login()
        self.pull_from(first)
        self.write_config(encoder_ip=OTHER_CAMERA_IP)
        query = "p_name=TrCommunicate&p_version=1&command=notice_update"
        self.assertEqual(trcom_lines(trcom(query)), expected_lines(SUCCESS, query))
        # The old stream is closed and the new camera delivers; the control
        # port stays where it was opened.
        self.pull_from(second)
        wait_for(lambda: not established_to(MYIP, CAMERA_PORT), "the first stream to close")
        self.assertEqual(len(read_records(first_rec)), 1)
        self.assertEqual(len(read_records(second_rec)), 1)
        self.assertIn("encoder_ip 192.0.2.1 -> 192.0.2.2\n", self.log_text())
        self.assertEqual(self.read_states("1")["ProcessId"], str(pid))

    def pull_from(self, pictures, limit=30.0):
        """Pulls until a picture of the given camera arrives."""
        deadline = time.monotonic() + limit
        while time.monotonic() < deadline:
            a = get_image()
            if a.header("Content-Type") == "image/jpeg" and split_stamp(a.body)[2] in pictures:
                return
        self.fail("no picture from the expected camera")

    def test_changed_data_type_stops_the_daemon(self):
        self.start_camsim("--fps", "30")
        pid = self.start_forking("1")
        login()
        self.write_config(translator_tarndatatype="OtherType")
        query = "p_name=TrCommunicate&p_version=1&command=notice_update"
        self.assertEqual(trcom_lines(trcom(query)), expected_lines(TYPE_MISMATCH, query))
        self.wait_gone(pid)
        self.assertIsNone(self.read_states("1"))
        self.assertIn("set PROGRAM_COMMAND_DESTRUCT for translator_tarndatatype changed\n",
                      self.log_text())

    def test_unreadable_configuration_stops_the_daemon(self):
        pid = self.start_forking("1")
        self.write_config(drop=("encoder_port",))
        query = "p_name=TrCommunicate&p_version=1&command=notice_update"
        self.assertEqual(trcom_lines(trcom(query)), expected_lines("3:1009", query))
        self.wait_gone(pid)
        self.assertIsNone(self.read_states("1"))


if __name__ == "__main__":
    unittest.main()
