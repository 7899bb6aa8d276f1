"""The agent as a service: the test plays the service manager with a notify socket and signals."""
import os
import signal
import socket
import subprocess
import unittest

from machine import BIN, PATIENCE, MachineTest


class Service(MachineTest):
    address = "127.49.0.1"

    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(f"{self.root}/notify")
        self.manager.settimeout(PATIENCE)

    def serve(self, *arguments, **environment):
        agent = subprocess.Popen([f"{BIN}/keldwick", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                 env={**os.environ, "KELDWICK_ROOT": self.root, "NOTIFY_SOCKET": f"{self.root}/notify",
                                      **environment})
        self.agents.append(agent)
        return agent

    def told(self, *messages):
        for message in messages:
            self.assertEqual(message, self.manager.recv(4096).decode())

    def test_starts_runs_and_stops_as_the_manager_is_told(self):
        self.prepare()
        agent = self.serve("-L", "-V")
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
        self.until_logged("Connect to Identity server")
        agent.send_signal(signal.SIGTERM)
        self.told("STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")
        self.assertEqual(0, agent.wait(PATIENCE))
        self.assertIn("Stopping Service: Reason = SERVICE_CONTROL_STOP", self.messages())
        self.assertIn("SERVICE_CONTROL_STOP", self.ctl("events", "list", "--log", "Application", "--json"))

    def test_the_units_arguments_are_the_services_and_are_kept(self):
        self.prepare(server="old.example")
        agent = self.serve("-L", "-V", "-SERVER", self.address)
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
        self.assertEqual(self.address, self.ctl("settings", "get", "IdentServer").strip())
        self.assertEqual(0x102, int(self.ctl("settings", "get", "DebugOutput").split()[0], 0))
        agent.send_signal(signal.SIGINT)
        self.assertEqual(0, agent.wait(PATIENCE))

    def test_what_the_service_failed_with_is_the_exit_status(self):
        self.ctl("init")  # no identity server: initialisation fails
        agent = self.serve()
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000",
                  "STOPPING=1\nSTATUS=Stopped, service-specific exit code 2")
        self.assertEqual(2, agent.wait(PATIENCE))

    def test_the_watchdog_hears_of_an_agent_that_waits_for_its_server(self):
        self.prepare()
        agent = self.serve(WATCHDOG_USEC="400000")
        heard = [self.manager.recv(4096) for _ in range(8)]
        self.assertGreaterEqual(heard.count(b"WATCHDOG=1"), 6)
        agent.send_signal(signal.SIGTERM)
        self.assertEqual(0, agent.wait(PATIENCE))


if __name__ == "__main__":
    unittest.main()
