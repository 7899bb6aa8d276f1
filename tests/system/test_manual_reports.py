"""One identity sent by hand: the options -REPORT_..., from the command line to the bytes at the server and the log."""
import os
import pwd
import re
import socket
import unittest

from machine import PATIENCE, MachineTest
from wire import Server, answer


class ManualReports(MachineTest):
    address = "127.47.0.1"

    def setUp(self):
        super().setUp()
        self.ctl("init")

    def serve(self, **options):
        server = Server(self.address, **options)
        self.addCleanup(server.close)
        return server

    def report(self, *options, server=None):
        """Runs the agent to its end, which is always a good one; gives the requests that reached the server."""
        agent = self.start("-SERVER", self.address, "-PROTOCOL", "TCP", *options, wait=False)
        self.assertEqual(0, agent.wait(PATIENCE))
        requests = []
        while server and not server.requests.empty():
            requests.append(server.next())
        return requests

    def local_address(self):
        """What the log says this host's address is: the IPv4 one, or else the IPv6 one."""
        found = [text for text in re.search(r"HostIpV4 = (\S+),\n +HostIpV6 = (\S+)", self.log()).groups() if text != "None"]
        if not found:
            self.assertIn("Uanble to get local IP address", self.messages())
            self.skipTest("this machine has no address but loopback")
        return found[0]

    def names(self, address, user, computer, action="Identity reported"):
        return (f"{action}: \n    IP address = \"{address}\",\n    User name = \"{user}\",\n"
                f"    Computer name = \"{computer}\"")

    def test_each_option_sends_its_reports_of_one_identity_in_order(self):
        server = self.serve()
        for options, kinds in ((("-REPORT_IDENTITY",), ["logon"]), (("-REPORT_HEARTBEAT",), ["logon", "heartbeat"]),
                               (("-REPORT_LOGOFF",), ["logon", "logoff"]),
                               (("-report_logoff", "/REPORT_HEARTBEAT"), ["logon", "heartbeat", "logoff"])):
            with self.subTest(options=options):
                got = self.report(*options, "-USER_NAME", "corp.example\\ann", "-COMPUTER_NAME", "CORP\\WS01", server=server)
                address = self.local_address()
                self.assertFalse(address.startswith("127.") or address == "::1", address)
                self.assertEqual(kinds, [request["kind"] for request in got])
                self.assertEqual(list(range(2, 2 + len(kinds))), [request["id"] for request in got])
                for request in got:
                    self.assertEqual((address, 0xFFE, ("corp\\ann", "", ""), ("CORP\\WS01", "", ""), []),
                                     tuple(request[field] for field in ("address", "mask", "user", "computer", "groups")))
                self.assertIn(self.names(address, "corp.example\\ann", "CORP\\WS01"), self.log(), "names as they were given")

    def test_names_that_are_not_given_are_this_process_and_this_computer(self):
        server = self.serve()
        account = pwd.getpwuid(os.geteuid()).pw_name
        if "\\" in account:
            self.skipTest("this user is of a domain")
        computer = socket.gethostname().split(".")[0][:15].upper()
        user = f"{computer}\\{account}"
        for options, wanted in (((), (user, computer)), (("-USER_NAME", "CORP\\bob"), ("CORP\\bob", computer)),
                                (("-COMPUTER_NAME", "WS7"), (user, "WS7"))):
            with self.subTest(options=options):
                got = self.report("-REPORT_IDENTITY", *options, server=server)
                address = self.local_address()
                self.assertEqual([wanted], [(request["user"][0], request["computer"][0]) for request in got])
                self.assertIn(self.names(address, *wanted), self.log())

    def test_a_refused_heartbeat_keeps_no_logoff_back_but_a_refused_logon_ends_the_run(self):
        refused = []

        def reply(connection, _request, fields):
            wrong = fields["kind"] in refused
            connection.sendall(answer(fields["id"] + 100 if wrong else fields["id"]))

        server = self.serve(reply=reply)
        options = ("-REPORT_HEARTBEAT", "-REPORT_LOGOFF", "-USER_NAME", "ann", "-COMPUTER_NAME", "WS1")
        for kind, kinds, message in (("heartbeat", ["logon", "heartbeat", "logoff"], "Unable to report heartbeat"),
                                     ("logoff", ["logon", "heartbeat", "logoff"], "Unable to report logoff"),
                                     ("logon", ["logon"], "Unable to report identity")):
            with self.subTest(refused=kind):
                refused[:] = [kind]
                got = self.report(*options, server=server)
                address = self.local_address()
                self.assertEqual(kinds, [request["kind"] for request in got])
                self.assertIn(self.names(address, "ann", "WS1", message), self.messages())
                self.assertEqual(1, self.log().count("Unable to report "))


if __name__ == "__main__":
    unittest.main()
