"""What servers do to the agent: absent, changed, closing, answering wrongly. The next event is always handled."""
import contextlib
import re
import socket
import ssl
import struct
import threading
import time
import unittest

from machine import PATIENCE, MachineTest, xml
from wire import Server, answer, certificate


class ServerBehaviour(MachineTest):
    address = "127.42.0.1"

    def serve(self, address=None, **options):
        server = Server(address or self.address, **options)
        self.addCleanup(server.close)
        return server

    def test_a_close_between_two_requests_costs_no_report(self):
        def close_after_answer(connection, _request, fields):
            connection.sendall(answer(fields["id"]))
            connection.shutdown(socket.SHUT_RDWR)

        server = self.serve(reply=close_after_answer)
        self.prepare()
        agent = self.start()
        for number in range(5):
            self.logon(f"u{number}", f"10.0.0.{number}", "WS")
            self.assertEqual(f"CORP\\u{number}", server.next()["user"][0])
            self.until_logged(f"Logon reported,\n    User name = \"CORP\\u{number}\"")
        self.assertNotIn("Unable to report logon", self.log())
        self.shut_down(agent)

    def test_a_server_that_answers_over_tls_and_closes_each_time_gets_every_report(self):
        def answer_and_close(connection, _request, fields):
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)  # answer, goodbye and close arrive as one
            connection.sendall(answer(fields["id"]))
            connection.setblocking(False)
            with contextlib.suppress(ssl.SSLWantReadError):
                connection.unwrap()
            connection.shutdown(socket.SHUT_RDWR)

        server = self.serve(tls_files=certificate(self.root), reply=answer_and_close)
        self.prepare("tcps")
        agent = self.start()
        for number in range(5):
            self.logon(f"u{number}", f"10.0.0.{number}", "WS")
            self.assertEqual(f"CORP\\u{number}", server.next()["user"][0])
            self.until_logged(f"Logon reported,\n    User name = \"CORP\\u{number}\"")
        self.assertNotIn("Unable to report logon", self.log())
        self.assertEqual(["tls"] * 5, [server.accepted.get(timeout=0) for _ in range(5)])
        self.assertTrue(server.requests.empty(), "no report goes out twice")
        self.shut_down(agent)

    def test_wrong_answers_fail_their_report_and_the_next_one_succeeds(self):
        def ident(fields):
            return fields["id"]

        def wrong(connection, _request, fields):
            user = fields["user"][0].split("\\")[1]
            replies = {
                "short": answer(ident(fields))[:13], "long": answer(ident(fields)) + b"\0",
                "code": answer(ident(fields), code=0x10), "ident": answer(ident(fields) - 1),
                "garbage": b"\xff" * 14, "status": answer(ident(fields), status=0xFFFFFFFF)}
            if user == "closes":
                connection.sendall(answer(ident(fields))[:7])
                connection.close()
            elif user == "resets":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                connection.close()
            else:
                connection.sendall(replies.get(user, answer(ident(fields))))

        server = self.serve(reply=wrong)
        self.prepare()
        agent = self.start()
        cases = {
            "short": "IdentityReportLogon request response length = 13; 14 expected",
            "long": "IdentityReportLogon request response length = 15; 14 expected",
            "code": "Unexpected response for IdentityReportLogon request: Code: request = 0x1000, response = 0x1000;",
            "ident": "Unexpected response for IdentityReportLogon request: Code: request = 0x1000, response = 0x1080;",
            "garbage": "response = 0xffff; ID: request =",
            "closes": "Unable to report logon,\n    User name = \"CORP\\closes\"",
            "resets": "Unable to report logon,\n    User name = \"CORP\\resets\"",
            "status": "IdentityReportLogon request status = 4294967295"}
        for number, (user, line) in enumerate(cases.items()):
            with self.subTest(user=user):
                self.logon(user, f"10.0.0.{number}", "WS")
                self.assertEqual(f"CORP\\{user}", server.next()["user"][0])
                self.until_logged(line)
                self.logon(f"after-{user}", f"10.0.1.{number}", "WS")
                self.assertEqual(f"CORP\\after-{user}", server.next()["user"][0])
                self.until_logged(f"Logon reported,\n    User name = \"CORP\\after-{user}\"")
        self.shut_down(agent)

    def test_an_answer_in_two_pieces_fails_two_reports_of_a_backlog_and_no_other(self):
        backlog, logons = threading.Event(), 200

        def split_the_tenth(connection, _request, fields):
            backlog.wait(PATIENCE)
            user, reply = fields["user"][0], answer(fields["id"])
            if user == "CORP\\u10":
                connection.sendall(reply[:7])
                time.sleep(0.003)  # what divides the pieces; nothing waits for it
                reply = reply[7:]
            connection.sendall(reply)

        server = self.serve(reply=split_the_tenth)
        self.prepare()
        agent = self.start()
        self.ctl("events", "import", "-", text="".join(xml(f"u{number}", f"10.0.0.{number}") for number in range(logons)))
        backlog.set()
        sent = [server.next()["user"][0] for _ in range(logons)]
        self.assertEqual([f"CORP\\u{number}" for number in range(logons)], sent)
        self.until_logged(f"Logon reported,\n    User name = \"CORP\\u{logons - 1}\"")
        lost = re.findall(r"Unable to report logon,\n +User name = \"CORP\\(\w+)\"", self.log())
        self.assertLessEqual(set(lost), {"u10", "u11"})
        self.shut_down(agent)

    def test_a_changed_server_is_taken_up_at_once_and_the_stop_is_heard_while_none_answers(self):
        self.prepare()
        agent = self.start("-A", wait=False)
        self.until_logged(f"Connect to Identity server = \"{self.address}\" failed")
        server = self.serve(address="127.42.0.2")
        self.ctl("settings", "set", "IdentServer", "127.42.0.2")
        self.until_logged("Connected to Identity server = \"127.42.0.2\" ...")
        self.until_logged("PositionToEnd: FORWARDS")
        self.logon("ann", "10.0.0.1", "WS")
        self.assertEqual("CORP\\ann", server.next()["user"][0])
        server.close()
        self.ctl("settings", "set", "IdentServer", "127.42.0.3")
        self.until_logged("Identity Server changed to \"127.42.0.3\"")
        self.until_logged("Connect to Identity server = \"127.42.0.3\" failed")
        self.shut_down(agent)
        self.assertIn("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled", self.messages())


if __name__ == "__main__":
    unittest.main()
