"""Logons, from the written record to the bytes at the server and the lines in the log."""
import unittest

from machine import MachineTest
from wire import Server


class Logons(MachineTest):
    address = "127.41.0.1"

    def serve(self):
        server = Server(self.address)
        self.addCleanup(server.close)
        return server

    def test_a_logon_is_reported_and_logged_and_a_repeated_one_only_resets_its_time_to_live(self):
        server = self.serve()
        self.prepare()
        agent = self.start("-V")
        self.logon("ann", "10.9.8.7", "WS1")
        got = server.next()
        self.assertEqual(("logon", 2, 0xFFE, "10.9.8.7"), (got["kind"], got["id"], got["mask"], got["address"]))
        self.assertEqual((("CORP\\ann", "", ""), ("CORP\\WS1", "", ""), [], (12, 10, 0)),
                         (got["user"], got["computer"], got["groups"], got["os"]))
        self.until_logged("Do_EVENT_ACCOUNT_LOGON: Logon reported,\n    User name = \"CORP\\ann\",\n"
                          "    Computer name = \"CORP\\WS1\",\n    IP address = \"10.9.8.7\",\n    Request length = 78")
        self.logon("ANN", "10.9.8.7", "WS1")
        self.until_logged("Do_EVENT_ACCOUNT_LOGON: Reset TTL,\n    User name = \"CORP\\ANN\",\n    IP Address = \"10.9.8.7\"")
        self.logon("bob", "10.9.8.7", "WS1")
        self.assertEqual([("logoff", "CORP\\ann"), ("logon", "CORP\\bob")],
                         [(r["kind"], r["user"][0]) for r in (server.next(), server.next())])
        self.shut_down(agent)
        self.assertIn("Stopping Service: Reason = Registry value \"Shutdown\" set", self.messages())
        self.assertIn("Uninitializing service", self.messages())

    def test_names_that_an_attacker_chose_arrive_whole(self):
        server = self.serve()
        self.prepare()
        agent = self.start()
        for user in ("%s%n%lu%%", "a\nKDWK: forged", "\U0001F980crab", "*)(objectClass=*", "x" * 3000, "\u202Eevil"):
            with self.subTest(user=user[:20]):
                self.logon(user, "10.0.0.1", "-" if user.startswith("x") else "WS")
                while (got := server.next())["kind"] != "logon":
                    pass
                self.assertEqual("CORP\\" + user, got["user"][0])
        self.shut_down(agent)
        self.assertIn('"CORP\\%s%n%lu%%"', self.log())


if __name__ == "__main__":
    unittest.main()
