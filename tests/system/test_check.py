"""keldwickctl check and status: what an administrator reads when something is wrong."""
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import time
import unittest
from datetime import datetime

from machine import BIN, PATIENCE, SOURCE, MachineTest, text_of


class Check(MachineTest):
    address = "127.44.0.1"

    def found(self, *options):
        """The exit code, and of each thing checked the worst result with what was found."""
        done = self.run_program("keldwickctl", "check", "--json", *options)
        checks = json.loads(done.stdout)["checks"]
        order = ["ok", "warning", "failed"]
        worst = {each["check"]: each for each in sorted(checks, key=lambda each: order.index(each["result"]))}
        return done.returncode, {what: (each["result"], each["found"]) for what, each in worst.items()}

    def tell(self, found, what, result, text):
        self.assertEqual(result, found[what][0], found)
        self.assertIn(text, found[what][1])

    def test_a_server_that_answers_is_ok_and_its_loss_is_told(self):
        self.prepare("auto")
        self.assertFalse(self.ctl_json("status")["running"])
        server = self.keldwick_server(tls=1308)
        agent = self.start("-L")
        self.until(lambda: self.ctl_json("status")["connection"], "a connection")
        code, found = self.found("--exchange", "--address", "127.0.0.1")
        self.assertIn(code, (0, 3), found)  # no one may set the clock of a container
        for what, text in (("machine root", self.root), ("agent", "connected over TLS"), ("event log", "1 record, the newest of"),
                           ("identity server", "TLS"), ("exchange", "was answered, status 0"), ("name server", "localhost"),
                           ("agent's log", "Keldwick.log")):
            self.tell(found, what, "ok", text)
        self.tell(found, "directory", "warning", "none is set")
        status = self.ctl_json("status")
        self.assertEqual((True, agent.pid, self.address, "auto", {"address": self.address, "port": 1308, "over": "TLS", "groups": False}),
                         tuple(status[key] for key in ("running", "pid", "server", "protocol", "connection")))
        self.assertLess(abs(datetime.fromisoformat(status["since"]).timestamp() - time.time()), PATIENCE)
        self.assertRegex(self.ctl("status", "--check"), rf"(?s)process {agent.pid}.*over TLS \(no groups\).*being written")

        self.logon("cleo", "10.0.0.8")
        self.until(lambda: self.ctl_json("status")["behind"] == 0, "the agent has read the first logon")
        agent.send_signal(signal.SIGSTOP)
        for user in ("ann", "bob"):
            self.logon(user, "10.0.0.7")
        status = self.ctl_json("status")
        self.assertEqual((4, 2), (status["last_event"]["record"], status["behind"]), status)
        self.assertLessEqual(status["behind_since"], status["last_event"]["time"])
        agent.send_signal(signal.SIGCONT)
        self.until(lambda: self.ctl_json("status")["behind"] == 0, "the agent catches up")

        self.end(server)
        self.ctl("settings", "set", "IdentServer", "nowhere.invalid")
        self.until_logged("failed")
        shown = self.ctl("status", "--check", code=3)
        self.assertRegex(shown, r'no connection: TLS: "nowhere.invalid": The host was not found')
        code, found = self.found()
        self.assertEqual(1, code)
        self.tell(found, "server's name", "failed", "not found")
        self.tell(found, "agent", "failed", "nowhere.invalid")

        self.ctl("settings", "set", "DebugOutput", "debugger")
        self.until(lambda: "ended by DebugOutput" in self.ctl("status"), "the log is ended")
        self.tell(self.found()[1], "agent's log", "warning", "ended")

    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed")
    def test_the_alert_rules_and_the_dashboard_ask_for_figures_that_there_are(self):
        rules, dashboard = (f"{SOURCE}/packaging/examples/keldwick-{each}" for each in ("alerts.yml", "dashboard.json"))
        done = subprocess.run(["promtool", "check", "rules", rules], capture_output=True, text=True, timeout=60)
        self.assertEqual((0, True), (done.returncode, "SUCCESS" in done.stdout), done)
        self.prepare()
        self.keldwick_server()
        self.start()
        with open(f"{self.root}/audit.jsonl", "w", encoding="utf-8"):
            self.ctl("feed", "json", f"{self.root}/audit.jsonl", "--once", "--name", "f")
        figures = set()

        def complete():
            figures.update(re.findall(r"(?m)^keldwick_\w+", self.ctl("status", "--prometheus", "-")))
            return {"keldwick_identities", "keldwick_feed_up"} <= figures
        self.until(complete, "the agent and the feed have figures")
        for example in (rules, dashboard):
            asked = set(re.findall(r"\bkeldwick_\w+", text_of(example)))
            self.assertTrue(asked)
            self.assertEqual(set(), asked - figures, example)
        json.loads(text_of(dashboard))

    def test_identities_are_listed_chosen_watched_and_gone_with_the_agent(self):
        self.prepare()
        self.keldwick_server()
        self.assertIn("no agent runs", self.ctl("identities", code=1))
        agent = self.start("-L")
        self.until(lambda: self.ctl_json("status")["identities"] == 0, "the agent shows itself")
        watch = self.begin(f"{BIN}/keldwickctl", "identities", "--watch", "--user", "corp\\an")
        for each in (("ann", "10.1.0.7", "PC1"), ('b"\x1b[2J\\', "2001:db8::1"), ("anna", "10.2.0.7", "PC2")):
            self.logon(*each)
        self.assertEqual({"10.1.0.7", "10.2.0.7"}, {watch.stdout.readline().split()[1] for _ in range(2)})
        self.logon("cleo", "10.1.0.7", "PC1")
        self.until(lambda: self.ctl_json("status")["reports_answered"] == 5, "four logons and a logoff")
        found = self.ctl_lines("identities")
        self.assertEqual([("2001:db8::1", 'CORP\\b"\x1b[2J\\', ""), ("10.2.0.7", "CORP\\anna", "CORP\\PC2"),
                          ("10.1.0.7", "CORP\\cleo", "CORP\\PC1")],
                         [tuple(entry[key] for key in ("address", "user", "computer")) for entry in found])
        for entry in found:
            logon, expires = (datetime.fromisoformat(entry[key]).timestamp() for key in ("logon", "expires"))
            self.assertLess(abs(logon - time.time()), PATIENCE)
            self.assertEqual(12 * 60, expires - logon)
        self.assertRegex(self.ctl("identities"), r'CORP\\b"\\u001b\[2J\\  (?s:.*)\n3 identities, as of ')
        self.assertRegex(self.ctl("identities", "--address", "10.1.0.0/16", "--user", "CLEO"),
                         r"\A10\.1\.0\.7 +\S+Z  until \S+Z  CORP\\cleo .*\n1 identity, as of")
        self.ctl("identities", "--address", "10.1", code=2)
        self.shut_down(agent)
        self.assertEqual(0, json.loads(text_of(f"{self.root}/Keldwick.identities"))["identities"], "no one is left in it")

    def test_a_second_agent_waits_for_the_first(self):
        self.prepare()
        self.keldwick_server()
        first = self.start("-L")
        second = self.start("-L", wait=False)
        self.until_logged("Uable to open the \"Security\" event log.")
        self.assertIn("Error code = 32.", self.log())
        refusal = next(line for line in second.stderr if "Not followed" in line)
        self.assertIn(f"process {first.pid} follows", refusal)
        self.tell(self.found()[1], "agent", "warning", f"process {first.pid} and process {second.pid}")
        for other in ("-X", "-REPORT_IDENTITY"):  # these read no log
            done = self.run_program("keldwick", "-L", other)
            self.assertEqual((0, -1), (done.returncode, done.stderr.find("Not followed")), done)
        self.assertEqual(1, self.log().count("Error code = 32."))

    def test_what_is_wrong_with_a_server_is_said(self):
        self.prepare("auto")
        self.tell(self.found()[1], "identity server", "failed", "refused")
        with socket.create_server((self.address, 1308)) as plain:
            plain.settimeout(10)
            self.keldwick_server()
            client = self.begin(f"{BIN}/keldwickctl", "check")
            peer, _ = plain.accept()
            peer.recv(1)
            peer.sendall(b"220 this is no TLS\r\n")
            shown, _ = client.communicate(timeout=60)
            peer.close()
        self.assertRegex(shown, r"(?m)^warning +identity server +TLS, port 1308: .*; with auto the agent takes plain TCP")
        self.assertRegex(shown, r"(?m)^ok +identity server +plain TCP, port 1306: connected")

    def test_files_and_settings_that_cannot_work_are_named(self):
        self.prepare()
        self.ctl("settings", "set", "--type", "sz", "Heartbeat", "10")
        self.ctl("settings", "set", "--type", "dword", "Hartbeat", "10")
        self.ctl("settings", "set", "IdentServer", "id.example:1306")
        os.rename(f"{self.root}/eventlog/Security.evt", f"{self.root}/there.evt")
        os.symlink(f"{self.root}/there.evt", f"{self.root}/eventlog/Security.evt")
        shown = self.ctl("check", code=1)
        for line in (r"warning +settings +Heartbeat = 10: is of type sz", r"warning +settings +the agent reads no value Hartbeat",
                     r"failed +settings +IdentServer = id.example:1306: .*the ports are fixed",
                     r"failed +machine root +.*/eventlog/Security.evt: .* is a link"):
            self.assertRegex(shown, rf"(?m)^{line}")

    def test_a_log_that_was_moved_or_deleted_is_not_taken_for_one_that_is_written(self):
        self.prepare("tcp")
        self.start("-L", wait=False)
        self.until(lambda: "being written" in self.ctl("status"), "the agent writes its log")
        moved = f"{self.root}/eventlog/old.log"
        for away in (lambda: os.rename(f"{self.root}/Keldwick.log", moved), lambda: os.remove(moved)):
            away()
            self.assertRegex(self.ctl("status"), "log file .*not written: the agent writes a file that was deleted or moved away")
        self.tell(self.found()[1], "agent's log", "warning", "deleted or moved away")

    @unittest.skipUnless(os.geteuid() == 0, "only root can be another user")
    def test_another_user_sees_what_he_may(self):
        self.prepare()
        self.start(wait=False)
        os.chmod(self.root, 0o711)
        os.chmod(f"{self.root}/registry.reg", 0o600)
        shown = self.run_program("keldwickctl", "check", user=65534).stdout
        self.assertRegex(shown, r"(?m)^warning +machine root .*run this as root$")
        self.assertRegex(shown, r"(?m)^failed +settings ")
        self.assertNotRegex(shown, r"(?m)^\w+ +(directory|agent's log|identity server) ", "these depend on settings")
        done = self.run_program("keldwickctl", "status", user=65534)
        self.assertEqual(0, done.returncode, done)
        for said in ("agent +not known", ".*not known        may not look at process", ".*last event"):
            self.assertRegex(done.stdout, rf"(?m)^{said}")
