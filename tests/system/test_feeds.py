"""Live sources, end to end: what a source says is at the identity server, once, whatever happens to its file or the feed."""
import json
import os
import signal
import socket
import struct
import subprocess
import threading
from xml.sax.saxutils import escape

from machine import BIN, PATIENCE, MachineTest, opened_by, text_of, xml


def authentication(user, address, **changes):
    fields = {"eventId": 4624, "logonId": "0", "logonType": 3, "status": "NT_STATUS_OK",
              "remoteAddress": f"ipv4:{address}:49152", "serviceDescription": "SMB2", "clientAccount": "mallory",
              "becameDomain": "CORP", "becameAccount": user, "becameSid": "S-1-5-21-1-2-3-1104", "workstation": "WS1",
              "netlogonComputer": None, "passwordType": "NTLMv2", **changes}
    return "  " + json.dumps({"timestamp": "2026-11-16T08:00:12.123456+0000", "type": "Authentication",
                              "Authentication": fields}) + "\n"


def shipped(user, address):
    data = {"SubjectUserSid": "S-1-0-0", "TargetUserSid": "S-1-5-21-1-2-3-1104", "TargetUserName": user,
            "TargetDomainName": "CORP", "LogonType": "3", "WorkstationName": "WS1", "IpAddress": address}
    return json.dumps({"@timestamp": "2026-11-16T08:00:12.123Z", "winlog": {"event_id": 4624, "channel": "Security",
                                                                           "event_data": data}}) + "\n"


HOSTILE = ("%s%n%lu%%", "a\nKDWK: forged", "\U0001F980crab", "*)(objectClass=*", "x" * 3000, "\u202Eevil")
LOG_SIZE = r"HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\services\EventLog\Security\MaxSize"


class Feeds(MachineTest):
    address = "127.48.0.1"

    def setUp(self):
        super().setUp()
        self.file = f"{self.root}/audit.jsonl"

    def feed(self, *arguments, stdin=subprocess.PIPE, command="feed"):
        return self.begin(f"{BIN}/keldwickctl", command, *arguments, stdin=stdin)

    def hear(self, feed, text):
        """The feed's next line on standard error, which must hold the text."""
        limit = threading.Timer(PATIENCE, feed.kill)  # ends the wait for a line that does not come
        limit.start()
        line = feed.stderr.readline()
        limit.cancel()
        self.assertIn(text, line)

    def append(self, text):
        with open(self.file, "a", encoding="utf-8") as file:
            file.write(text)

    def follow(self):
        self.server = self.serve()
        self.prepare()
        return self.start()

    def expect(self, user, address):
        got = self.server.next()
        self.assertEqual(("logon", f"CORP\\{user}", address, "CORP\\WS1"),
                         (got["kind"], got["user"][0], got["address"], got["computer"][0]))

    def test_a_stream_is_reported_event_by_event_whoever_chose_the_names(self):
        agent = self.follow()
        for number, (source, make, rubbish) in enumerate((("xml", xml, "<Event>oops</Event>"), ("json", shipped, "oops\n"))):
            with self.subTest(source=source):
                feed = self.feed(source)
                for user in HOSTILE:
                    address = f"10.{number}.0.{HOSTILE.index(user)}"
                    feed.stdin.write(make(escape(user) if source == "xml" else user, address) + rubbish)
                    feed.stdin.flush()
                    self.expect(user, address)
                said, complaint = feed.communicate(timeout=PATIENCE)
                self.assertEqual((0, ""), (feed.returncode, complaint))
                self.assertIn("6 records written to the Security log, 0 skipped, 6 unreadable.", said)
        self.shut_down(agent)
        self.assertIn('"CORP\\%s%n%lu%%"', self.log())

    def test_a_new_machines_first_logon_does_not_wait_for_a_first_record(self):
        server = self.serve()
        self.ctl("init", "--server", self.address, "--protocol", "tcp")  # the log is empty
        agent = self.start(wait=False)
        self.append(authentication("ann", "10.0.0.1"))
        self.feed("samba-audit", self.file)
        self.assertEqual("CORP\\ann", server.next(timeout=10)["user"][0])  # it looks by itself after 15 s
        self.shut_down(agent)

    def test_an_import_waits_for_the_agent_and_goes_no_faster_than_it_reads(self):
        self.ctl("init", "--server", self.address)
        self.ctl("settings", "set", "--type", "dword", LOG_SIZE, "65536")  # room for some 120 records
        self.ctl("events", "clear")
        hosts = [f"10.1.{number >> 8}.{number & 255}" for number in range(500)]
        with open(f"{self.root}/events", "w", encoding="utf-8") as file:
            file.write("".join(xml(f"u{number}", host) for number, host in enumerate(hosts)))
        waiting = self.feed("import", "--wait", f"{self.root}/events", command="events")
        self.hear(waiting, "waiting for the agent, which does not run")
        agent = self.follow()
        self.assertEqual(hosts, [self.server.next()["address"] for _ in hosts])
        said, _ = waiting.communicate(timeout=PATIENCE)
        self.assertIn("500 events imported", said)
        self.append("".join(authentication("bob", host) for host in hosts))  # nor does a feed
        feed = self.feed("samba-audit", self.file)
        self.assertEqual([kind for _ in hosts for kind in ("logoff", "logon")], [self.server.next()["kind"] for _ in hosts * 2])
        self.assertIn("500 records written", self.end(feed)[0])
        self.shut_down(agent)

    def test_what_comes_while_the_agent_does_not_follow_waits_for_it_through_rotation(self):
        self.prepare(server="127.48.9.9")  # where there is none
        agent = self.start(wait=False)
        self.until_logged("failed")
        feed = self.feed("samba-audit", self.file)
        self.hear(feed, f"waiting for {self.file}")
        self.append(authentication("nobody", "10.0.0.9", status="NT_STATUS_WRONG_PASSWORD") + "rubbish\n" +
                    authentication("WS1$", "10.0.0.9") + authentication("ann", "10.0.0.1"))
        self.hear(feed, "waiting for the agent, which does not follow the log")
        for number in range(2, 5):
            os.rename(self.file, self.file + ".old")
            self.append(authentication("bob", f"10.0.0.{number}"))
            self.until(lambda: self.file in opened_by(feed), "the new file is held")
        self.server = self.serve()
        self.ctl("settings", "set", "IdentServer", self.address)  # ends the agent's pause
        self.expect("ann", "10.0.0.1")
        self.hear(feed, "the wait for the agent is over")
        for number in range(2, 5):
            self.expect("bob", f"10.0.0.{number}")
        self.shut_down(agent)
        self.append(authentication("carl", "10.0.0.5"))
        self.hear(feed, "waiting for the agent, which does not run")
        agent = self.start(wait=False)
        self.expect("carl", "10.0.0.5")
        self.shut_down(agent)
        self.append(authentication("dora", "10.0.0.6"))
        self.hear(feed, "is over")
        self.hear(feed, "waiting for the agent")
        self.assertIn("6 records written to the Security log, 1 skipped, 1 unreadable.", self.end(feed)[0],
                      "what waits is left to the next feed")
        self.assertIn("\nrubbish\n", text_of(f"{self.root}/feed/samba-audit.aside"))
        agent = self.start(wait=False)
        self.feed("samba-audit", self.file)
        self.expect("dora", "10.0.0.6")
        self.shut_down(agent)

    def test_however_a_stream_ends_what_it_has_sent_is_written(self):
        self.ctl("init", "--server", self.address)
        for stop in (signal.SIGTERM, signal.SIGHUP, None):
            with self.subTest(stop), socket.create_server((self.address, 0)) as listener:
                sender = socket.create_connection(listener.getsockname())
                stream, _ = listener.accept()
                feed = self.feed("json", stdin=stream)
                stream.close()
                self.until(lambda: any(each["running"] for each in self.ctl_json("status")["feeds"]), "the feed runs")
                feed.send_signal(signal.SIGSTOP)
                sender.sendall(shipped("bob", "10.0.0.2").encode() * 20)
                if stop:
                    feed.send_signal(stop)
                else:
                    sender.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                sender.close()
                feed.send_signal(signal.SIGCONT)
                said, complaint = feed.communicate(timeout=PATIENCE)
                wanted = (0, "") if stop else (1, "keldwickctl: cannot read standard input: Connection reset by peer\n")
                self.assertEqual(wanted, (feed.returncode, complaint))
                self.assertIn("20 records written", said)

    def test_a_place_that_cannot_be_marked_holds_the_feed_before_it_could_not_recognise_what_it_wrote(self):
        self.ctl("init", "--server", self.address)
        self.ctl("settings", "set", "--type", "dword", LOG_SIZE, str(256 * 1024))
        self.append("")
        feed = self.feed("samba-audit", self.file)
        state = f"{self.root}/feed/samba-audit.state"
        self.until(lambda: os.path.exists(state), "the first mark")
        os.rename(state, state + ".kept")
        os.mkdir(state)
        users = [f"u{number}" for number in range(300)]  # most of the log
        self.append("".join(authentication(user, "10.0.0.1") for user in users[:150]))
        self.hear(feed, "cannot write")
        self.append("".join(authentication(user, "10.0.0.1") for user in users[150:]))
        self.hear(feed, "nothing more is written until")

        def listed():
            return [record["strings"][5] for record in self.ctl_lines("events", "list")]

        self.assertEqual(users[:150], listed())
        os.rmdir(state)
        os.rename(state + ".kept", state)
        self.hear(feed, "can be marked again")
        self.until(lambda: listed() == users, "the rest")
        self.end(feed)
