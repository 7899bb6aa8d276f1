"""The reference server as its clients see it: what it reads, answers, prints and refuses. And the way of its reports into
a Redis stream and out of it, by the examples that the package ships."""
import json
import os
import pathlib
import resource
import signal
import socket
import ssl
import struct
import subprocess
import threading

from machine import PATIENCE, SOURCE, MachineTest, text_of
from wire import answer, encode

FULL = encode(2, "10.0.0.5", ("CORP\\jdoe", "CN=J Doe", "OU=People"), ("CORP\\WS1", "CN=WS1", "OU=Desks"),
              [("CORP\\Staff", "CN=Staff"), ("CORP\\All", "CN=All")])
NAME = "a\"\n\r\x1b[2J\x85\u2028\u202e\ud800\U0001F600\u00E4\u00ad\u3164\U000e0041"
READ = NAME.replace("\ud800", "\ufffd")
USER = "CORP\\{} '\" \\ \u202e\n"
EXAMPLES = f"{SOURCE}/packaging/examples"


def bare(address=b"\4\x0a\0\0\5", groups=b"\0\0", kind=0x21):
    """A request that names no one, as a logoff."""
    body = struct.pack(">I", 0xE06) + b"\2\0\0\0\1" + address + b"\x13\1\2\5\x0c\x0a\0" + groups + bytes([kind])
    return struct.pack(">HHHI", len(body) + 10, 3, 0x10, 9) + body


class ReferenceServer(MachineTest):
    address = "127.82.0.1"

    def open(self, *options, tls=1308, **streams):
        """Starts the server, which goes on in the file that it writes its reports into."""
        self.reports = f"{self.root}/reports"
        with open(self.reports, "ab") as output:
            self.server = self.keldwick_server("--status", "4294967295", *options, tls=tls, stdout=output, **streams)

    def connect(self, port=1306):
        link = socket.create_connection((self.address, port), timeout=PATIENCE)
        self.addCleanup(link.close)
        return link

    def talk(self, data, port=1306):
        """All that the server says to the bytes, to its own end."""
        with socket.create_connection((self.address, port), timeout=PATIENCE) as link, link.makefile("rb") as heard:
            try:
                link.sendall(data)
                link.shutdown(socket.SHUT_WR)
                return heard.read()
            except OSError:  # it ended first
                return b""

    def finish(self):
        """What it printed, and what it complained of."""
        _, complaints = self.end(self.server)
        return text_of(self.reports), complaints

    def test_each_request_is_answered_over_both_transports_and_printed_field_by_field(self):
        self.open("--json")
        long = [encode(4, "10.0.0.5", ("x" * size, "", ""), ("", "", ""), [("y" * size, "CN=y")])
                for size in (16_000, 32_767 - 16, 40_000, 65_535)]
        wires = [FULL, bare(b"\6" + bytes(15) + b"\1"), bare(b"\0", b"\0\3\0"), *long, encode(5, "10.0.0.5", (NAME, "", ""))]
        answers = [answer(int.from_bytes(wire[6:10], "big"), 0xFFFFFFFF) for wire in wires]
        self.assertEqual(b"".join(answers), self.talk(b"".join(wires)))
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
        with context.wrap_socket(self.connect(1308)) as secure:
            for wire, wanted in zip(wires[:3], answers):
                secure.sendall(wire)
                self.assertEqual(wanted, secure.recv(14))
        printed, complaints = self.finish()
        shown = [json.loads(line) for line in printed.split("\n")[:-1]]
        self.assertNotIn("malformed", complaints)
        self.assertEqual([len(wire) for wire in wires + wires[:3]], [each["length"] for each in shown])
        self.assertRegex(shown[0].pop("time"), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        origin = shown[0].pop("from")
        self.assertEqual(("127.0.0.1", "tcp"), (origin["address"], origin["transport"]))
        self.assertEqual({"kind": "logon", "id": 2, "user": "CORP\\jdoe", "user_dn": "CN=J Doe", "user_ou": "OU=People",
                          "computer": "CORP\\WS1", "computer_dn": "CN=WS1", "computer_ou": "OU=Desks", "address": "10.0.0.5",
                          "groups": [{"domain": "CORP\\Staff", "dn": "CN=Staff"}, {"domain": "CORP\\All", "dn": "CN=All"}],
                          "os": {"code": 12, "major": 10, "minor": 0}, "length": len(FULL), "status": 0xFFFFFFFF}, shown[0])
        self.assertEqual([("logoff", "::1", []), ("logoff", "", [])],
                         [tuple(each[key] for key in ("kind", "address", "groups")) for each in shown[1:3]])
        self.assertEqual(READ, shown[7]["user"])
        self.assertFalse(set("\r\x1b\x85\u2028\u202e\u00ad\u3164\U000e0041") & set(printed))

    def test_a_line_for_people_is_one_line_whatever_the_name(self):
        self.open()
        self.talk(encode(5, "10.0.0.5", (NAME, "", "")))
        self.assertRegex(self.finish()[0], r'\Alogon     #5  10\.0\.0\.5  user "a\\u0022\\u000a\\u000d\\u001b\[2J\\u0085\\u2028\\u202e'
                         '\ufffd\U0001F600\u00E4\\\\u00ad\\\\u3164\\\\udb40\\\\udc41".*\n\\Z')

    def test_strangers_are_refused_with_the_reason_and_disturb_nobody(self):
        self.open()
        steady, good, separator = self.connect(), bare(), FULL.index(b"\0\2\0\0\x0aC\0O")
        cases = [(good[:at] + bytes([value]) + good[at + 1:], reason) for at, value, reason in (
            (1, 0, "the stated length"), (1, 35, "the stated length"), (3, 2, "the format"), (5, 0x11, "the message code"),
            (13, 0x46, "the field mask"), (10, 1, "the field mask"), (13, 4, "the field mask"), (14, 3, "the constants"),
            (18, 0, "the constants"), (19, 5, "the address version"), (24, 0x12, "the agent version"), (33, 0x22, "the report kind"))]
        cases += [(FULL[:separator + 2] + b"\7" + FULL[separator + 3:], "the groups' first byte"), (b"", ""), (b"\0", ""),
                  (FULL[:-1], ""), (bytes(100_000), "the format"), (b"\xff" * 100_000, "the format"),
                  (b"GET / HTTP/1.1\r\n\r\n", "the format"), (b"\x16\x03\x01\0\5\1\0\0\1\0", "")]
        for data, reason in cases:
            for port in (1306, 1308):
                with self.subTest(data=data[:40], port=port):
                    self.assertNotIn(b"\x80\x10", self.talk(data, port), "no answer")
                    steady.sendall(good)
                    self.assertEqual(answer(9, 0xFFFFFFFF), steady.recv(14))
        self.assertEqual(answer(2, 0xFFFFFFFF), self.talk(FULL + b"\xff" * 40), "what came before the bad bytes is answered")
        _, complaints = self.finish()
        wanted = [reason for _, reason in cases if reason] + ["the format"]
        self.assertNotIn("unexpected eof", complaints, "who connects and goes again is not refused")
        found = [line for line in complaints.splitlines() if "malformed request: " in line]
        self.assertEqual(wanted, [line.partition("request: ")[2][:len(reason)] for reason, line in zip(wanted, found)])

    def test_all_requests_are_answered_though_the_client_has_finished(self):
        self.open("--json")
        link, many = self.connect(), 6_000  # more answers than are kept waiting
        stream = b"".join(FULL[:6] + ident.to_bytes(4, "big") + FULL[10:] for ident in range(many))
        writer = threading.Thread(target=lambda: (link.sendall(stream), link.shutdown(socket.SHUT_WR)))
        writer.start()
        with link.makefile("rb") as heard:
            self.assertTrue(heard.read() == b"".join(answer(ident, 0xFFFFFFFF) for ident in range(many)))
        writer.join()
    # The way into a Redis stream and out of it.

    def redis(self):
        program = self.begin("redis-server", "--port", "0", "--unixsocket", f"{self.root}/redis", "--dir", self.root, "--save", "",
                             "--appendonly", "yes", stdout=subprocess.DEVNULL)
        self.until(lambda: self.ask("PING") == "PONG", "Redis answers")
        return program

    def ask(self, *words):
        done = subprocess.run(["redis-cli", "-s", f"{self.root}/redis", *words], capture_output=True, text=True, timeout=10)
        return done.stdout.strip()

    def feed(self):
        return self.begin(f"{EXAMPLES}/redis-feed.py", f"{self.root}/reports", f"unix://{self.root}/redis")

    def consume(self, name):
        with open(f"{self.root}/{name}", "wb") as output:
            return self.begin(f"{EXAMPLES}/redis-consumer.py", f"unix://{self.root}/redis", stdout=output)

    def until_acknowledged(self):
        self.until(lambda: self.ask("XPENDING", "keldwick", "example").startswith("0"), "acknowledgements")

    def send(self, link, ident):
        link.sendall(encode(ident, "10.9.8.7", (USER.format(ident), "", ""), ("CORP\\WS1", "", "")))
        self.assertEqual(answer(ident, 0xFFFFFFFF), link.recv(14))

    def report(self, first, last):
        self.open("--json")
        link = self.connect()
        for ident in range(first, last):
            self.send(link, ident)
        self.end(self.server)

    def streamed(self):
        """The IDs in the stream."""
        return [json.loads(line)["id"] for line in self.ask("XRANGE", "keldwick", "-", "+").splitlines() if line.startswith("{")]

    def test_each_report_comes_once_whoever_is_killed(self):
        feed = self.feed()
        self.assertIn("trying again", feed.stderr.readline())  # neither the file nor Redis is there
        redis = self.redis()
        self.report(0, 100)
        self.until(lambda: len(self.streamed()) == 100, "reports of a feed that was first")
        self.end(feed, signal.SIGKILL)
        self.report(100, 200)
        os.rename(self.reports, self.reports + ".1")
        self.report(200, 300)
        feed = self.feed()
        self.until(lambda: len(self.streamed()) == 300, "reports of two files, of before the feed was started again")
        self.end(redis, signal.SIGKILL)
        self.report(300, 400)
        self.redis()
        self.until(lambda: len(self.streamed()) >= 400, "reports of while Redis was away")
        other = self.feed()
        self.until(lambda: self.ask("CLIENT", "LIST").count("id=") == 3, "two feeds beside this one who asks")
        going, stopped = signal.SIGCONT, signal.SIGSTOP
        for last, one, two in ((450, stopped, going), (475, going, stopped), (500, going, going)):
            feed.send_signal(one)
            other.send_signal(two)
            self.report(len(self.streamed()), last)
            self.until(lambda: len(self.streamed()) >= last, "reports of two feeds")
        self.assertEqual(list(range(500)), self.streamed())

        def seen():  # the last line of a killed one may not be whole
            return {line for file in pathlib.Path(self.root).glob("seen*") for line in file.read_text("utf-8").split("\n")[:-1]}

        for enough in (50, 500):
            consumer = self.consume(f"seen{enough}")
            self.until(lambda: len(seen()) >= enough, "reports at the consumer")
            if enough == 500:
                self.until_acknowledged()
            self.end(consumer, signal.SIGKILL)
        self.assertEqual({rf"'logon' '10.9.8.7' {ascii(USER.format(ident))} 'CORP\\WS1'" for ident in range(500)}, seen())

    def test_a_line_that_was_cut_costs_no_other(self):
        self.redis()
        self.open("--json", tls=0, restore_signals=False,
                  preexec_fn=lambda: signal.signal(signal.SIGXFSZ, signal.SIG_IGN))
        link = self.connect()
        for ident, room in enumerate((-1, 600, -1)):  # a disk that is full for a while
            resource.prlimit(self.server.pid, resource.RLIMIT_FSIZE, (room, -1))
            self.send(link, ident)
            if room == 600:
                self.assertIn("cannot print requests", self.server.stderr.readline())
            else:
                self.until(lambda: pathlib.Path(self.reports).read_bytes().endswith(b"}\n"), "a whole line")
        self.end(self.server)
        self.feed()
        self.consume("seen")
        seen = f"{self.root}/seen"
        self.until(lambda: text_of(seen).count("\n") == 3, "three lines")
        self.until_acknowledged()
        self.assertEqual(["'logon'", "unreadable", "'logon'"], [line.split()[0] for line in text_of(seen).splitlines()])
