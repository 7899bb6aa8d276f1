"""One identity sent by hand: the options -REPORT_..., from the command line to the bytes at the server and the log."""
import os
import pwd
import re
import socket
import unittest

from machine import PATIENCE, MachineTest
from wire import answer


class ManualReports(MachineTest):
    address = "127.47.0.1"

    def test_each_option_sends_its_reports_of_one_identity_in_order(self):
        account = pwd.getpwuid(os.geteuid()).pw_name
        computer = socket.gethostname().split(".")[0][:15].upper()
        mine = f"{computer}\\{account}"
        given = ("-USER_NAME", "corp.example\\ann", "-COMPUTER_NAME", "CORP\\WS01")
        both = ("-report_logoff", "/REPORT_HEARTBEAT")
        refused = []

        def reply(connection, _request, fields):
            connection.sendall(answer(fields["id"] + 100 * (fields["kind"] in refused)))

        server = self.serve(reply=reply)
        self.ctl("init")
        for options, wrong, kinds, user, workstation in (
                (("-REPORT_IDENTITY", *given), "", ["logon"], "corp.example\\ann", "CORP\\WS01"),
                (("-REPORT_HEARTBEAT", *given), "", ["logon", "heartbeat"], "corp.example\\ann", "CORP\\WS01"),
                (("-REPORT_LOGOFF", *given), "", ["logon", "logoff"], "corp.example\\ann", "CORP\\WS01"),
                (both, "", ["logon", "heartbeat", "logoff"], mine, computer),
                ((*both, "-USER_NAME", "CORP\\bob"), "heartbeat", ["logon", "heartbeat", "logoff"], "CORP\\bob", computer),
                ((*both, "-COMPUTER_NAME", "WS7"), "logoff", ["logon", "heartbeat", "logoff"], mine, "WS7"),
                (both, "identity", ["logon"], mine, computer)):
            with self.subTest(options=options, refused=wrong):
                refused[:] = [wrong.replace("identity", "logon")]
                agent = self.start("-SERVER", self.address, "-PROTOCOL", "TCP", *options, wait=False)
                self.assertEqual(0, agent.wait(PATIENCE), "it is always a good end")
                got = [server.next() for _ in range(server.requests.qsize())]
                self.assertEqual(list(zip(range(2, 9), kinds)), [(request["id"], request["kind"]) for request in got])
                local = re.search(r"HostIpV4 = (\S+),\n +HostIpV6 = (\S+)", self.log()).groups()
                address = next((text for text in local if text != "None"), None)
                if not address:
                    self.skipTest("this machine has no address but loopback")
                self.assertFalse(address.startswith("127.") or address == "::1", address)
                for request in got:
                    self.assertEqual((address, 0xFFE, (user.replace(".example", ""), "", ""), (workstation, "", ""), []),
                                     tuple(request[field] for field in ("address", "mask", "user", "computer", "groups")))
                action = f"Unable to report {wrong}" if wrong else "Identity reported"
                self.assertIn(f"{action}: \n    IP address = \"{address}\",\n    User name = \"{user}\",\n"
                              f"    Computer name = \"{workstation}\"", self.log(), "names as they were given")
                self.assertEqual(bool(wrong), self.log().count("Unable to report "))


if __name__ == "__main__":
    unittest.main()
