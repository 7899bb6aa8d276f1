"""Keldwick.exe as an administrator of a Windows machine has it: options, exit codes, service, settings, reports."""
import os
from concurrent.futures import ThreadPoolExecutor

from wine import ADDRESS, WineTest
from wire import certificate

LOG_VERBOSE_TCP = 0x502


class Program(WineTest):
    programs = ["Keldwick", "KeldwickWithLog"]
    address = "127.53.0.1"

    def test_exit_codes_are_those_of_each_way_to_end(self):
        # Without an option it asks the dispatcher, which takes ten seconds to give 1063: so it is an application.
        self.assertEqual(3, self.run_agent("-A"))
        self.set()
        with ThreadPoolExecutor() as beside:
            asking = beside.submit(self.run_agent)
            for arguments, code in ((("-X",), 1010), (("-NONSENSE",), 2), (("-SERVER",), 2)):
                with self.subTest(arguments=arguments):
                    self.assertEqual(code, self.run_agent(*arguments))
            self.assertEqual(1010, asking.result())
        self.assertEqual(0, self.run_agent("-X", "-SERVER", "a.example"))

    def test_options_are_kept_as_settings(self):
        self.set(IdentServer="old.example")
        self.assertEqual(0, self.run_agent("-x", "/L", "-V", "-TCP", "-server", "new.example", "-PROTOCOL", "TCP", "-AD_SERVER",
                                           "dc.example"))
        self.assertEqual(("new.example", "0x2", "dc.example", hex(LOG_VERBOSE_TCP)),
                         tuple(self.get(name) for name in ("IdentServer", "IdentProtocol", "AdServer", "DebugOutput")))
        self.assertEqual(0, self.run_agent("-X", "-C"))
        self.assertIn(self.get("DebugOutput"), (None, "0x0"))

    def test_reports_are_byte_by_byte_those_of_linux(self):
        server = self.serve(tls_files=certificate(self.folder))
        for protocol in ("TCP", "TCPS"):
            options = ("-SERVER", self.address, "-PROTOCOL", protocol, "-REPORT_LOGOFF", "-REPORT_HEARTBEAT", "-USER_NAME",
                       "CORP\\J\u00f6rg \U0001d11e", "-COMPUTER_NAME", "CORP\\WS1")
            with self.subTest(protocol):
                self.set()
                self.assertEqual(0, self.run_agent("-L", "-V", "-TCP", *options))
                self.on_linux("-L", *options)
                windows, linux = ([server.requests.get(timeout=15) for _ in range(3)] for _ in range(2))
                self.assertEqual(["logon", "heartbeat", "logoff"], [fields["kind"] for _, fields in windows])
                for (ours, fields), (theirs, others) in zip(windows, linux):
                    self.assertEqual(ADDRESS, fields["address"])
                    self.assertEqual((10, 0), fields["os"][1:], "the true version, which the manifest asks for")
                    for equal in (slice(20), slice(24, 28), slice(31, None)):  # the address, the system's version between
                        self.assertEqual(theirs[equal], ours[equal])
                    self.assertEqual("CORP\\J\u00f6rg \U0001d11e", others["user"][0])

    def test_as_an_application_it_takes_up_settings_and_stops_by_one(self):
        servers = [self.serve(address=address) for address in ("127.53.1.1", "127.53.1.2")]
        self.set(IdentServer="127.53.1.1", IdentProtocol=2, DebugOutput=LOG_VERBOSE_TCP)
        agent = self.start_agent("-A")
        self.assertEqual("plain", servers[0].accepted.get(timeout=30))
        self.until_logged("Processing Security event log")
        self.set(Heartbeat=7, IdentServer="127.53.1.2")
        self.assertEqual("plain", servers[1].accepted.get(timeout=30))
        self.until_logged("Heartbeat interval = 7 (minutes)")
        self.set(Shutdown=1)
        self.assertEqual(0, agent.wait(30))
        self.assertEqual("0x2", self.get("Shutdown"), "the request is acknowledged")
        self.assertIn("Running as application", self.messages())

    def test_as_a_service_it_starts_and_stops_as_the_manager_says(self):
        self.serve()
        self.service("create", "binPath=", "C:\\Keldwick\\Keldwick.exe")
        try:
            for settings, arguments, state in (
                    (None, (), None), ({}, (), (1, 1066, 2)), ({"IdentServer": self.address}, ("-NONSENSE",), (1, 1066, 1)),
                    ({"IdentServer": self.address, "IdentProtocol": 2, "DebugOutput": LOG_VERBOSE_TCP}, (), (4, 0, 0))):
                with self.subTest(settings=settings, arguments=arguments):
                    self.wine("reg", "delete", "HKLM\\SOFTWARE\\Vantorel Systems\\Keldwick", "/f", code=None)
                    if settings is not None:
                        self.set(**settings)
                    self.service("start", *arguments, code=None)
                    if state:
                        self.until(lambda: self.service_state()[0] in (1, 4), "an end of the start")
                        self.until(lambda: self.service_state() == state, f"{state}, not {self.service_state()}")
            self.until_logged("Processing Security event log")
            self.assertIsNotNone(self.wine("reg", "query", "HKLM\\SOFTWARE\\Vantorel Systems\\Keldwick\\Statistics"))
            self.service("stop")
            self.until(lambda: self.service_state() == (1, 0, 0), "the service stopped")
            self.assertIn("Stopping Service: Reason = SERVICE_CONTROL_STOP", self.messages())
        finally:
            self.service("delete", code=None)

    def test_a_state_that_the_manager_refuses_is_the_services_code_3(self):
        self.serve()
        self.set(IdentServer=self.address, IdentProtocol=2)
        os.mkdir(f"{self.home}/eventlog")
        self.service("create", "binPath=", "C:\\Keldwick\\KeldwickWithLog.exe")
        self.addCleanup(self.service, "delete", code=None)
        expected, refusal, version = "", r"1 c000000b\|.+\|13\n", r"\|1\.2\.5 build .+"
        # Only a service that may run says that it has started.
        for state, events in ((2, refusal), (4, refusal), (
                1, rf"4 40000002{version}\n4 40000003{version}\|SERVICE_CONTROL_STOP\n{refusal}")):
            with self.subTest(state=state):
                with open(f"{self.home}/refused", "w", encoding="ascii") as file:
                    file.write(str(state))
                self.service("start", code=None)
                if state == 1:
                    self.until(lambda: self.service_state() == (4, 0, 0), "the service runs")
                    self.service("stop", code=None)
                self.until(lambda: self.service_state() == (1, 1066, 3), "the service's code 3")
                expected += events
                with open(f"{self.home}/eventlog/reported", encoding="ascii") as reported:
                    self.assertRegex(reported.read(), rf"\A{expected}\Z")
