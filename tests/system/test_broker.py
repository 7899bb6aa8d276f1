"""The way of the reports into a Redis stream and out of it, by the examples that the package ships."""
import json
import os
import pathlib
import resource
import signal
import socket
import subprocess
import unittest

from machine import MachineTest
from wire import encode

EXAMPLES = os.path.realpath(f"{os.path.dirname(__file__)}/../../packaging/examples")


class Broker(MachineTest):
    address = "127.71.0.1"

    @staticmethod
    def user(ident):
        return f"CORP\\{ident} '\" \\ \u202e\n"

    def end(self, program, how=signal.SIGKILL):
        program.send_signal(how)
        program.communicate()
        self.agents.remove(program)

    def redis(self):
        program = self.begin("redis-server", "--port", "0", "--unixsocket", f"{self.root}/redis", "--dir", self.root, "--save", "",
                             "--appendonly", "yes", stdout=subprocess.DEVNULL)
        self.until(lambda: self.ask("PING") == "PONG", "Redis answers")
        return program

    def ask(self, *words):
        done = subprocess.run(["redis-cli", "-s", f"{self.root}/redis", *words], capture_output=True, text=True, timeout=10)
        return done.stdout.strip()

    def feed(self):
        return self.begin(f"{EXAMPLES}/redis-feed.py", self.reports, f"unix://{self.root}/redis")

    def report(self, first, last):
        """keldwick-server writes these reports into the file, where it goes on."""
        with open(self.reports, "ab") as output:
            server = self.keldwick_server("--json", stdout=output)
        with socket.create_connection((self.address, 1306)) as link:
            for ident in range(first, last):
                link.sendall(encode(ident, "10.9.8.7", (self.user(ident), "", ""), ("CORP\\WS1", "", "")))
                self.assertEqual(14, len(link.recv(14, socket.MSG_WAITALL)))
        self.end(server, signal.SIGTERM)

    def streamed(self):
        """The IDs in the stream."""
        return [json.loads(line)["id"] for line in self.ask("XRANGE", "keldwick", "-", "+").splitlines() if line.startswith("{")]

    def test_each_report_comes_once_whoever_is_killed(self):
        self.reports = f"{self.root}/reports"
        feed = self.feed()
        self.assertIn("trying again", feed.stderr.readline())  # neither the file nor Redis is there
        redis = self.redis()
        self.report(0, 100)
        self.until(lambda: len(self.streamed()) == 100, "reports of a feed that was first")
        self.end(feed)
        self.report(100, 200)
        os.rename(self.reports, self.reports + ".1")
        self.report(200, 300)
        feed = self.feed()
        self.until(lambda: len(self.streamed()) == 300, "reports of two files, of before the feed was started again")
        self.end(redis)
        self.report(300, 400)
        self.redis()
        self.until(lambda: len(self.streamed()) >= 400, "reports of while Redis was away")
        self.feed()
        self.until(lambda: self.ask("CLIENT", "LIST").count("id=") == 3, "two feeds beside this one who asks")
        self.report(400, 500)
        self.until(lambda: len(self.streamed()) >= 500, "reports of two feeds at once")
        self.assertEqual(list(range(500)), self.streamed())

        def seen():  # the last line of a killed one may not be whole
            return {line for file in pathlib.Path(self.root).glob("seen*") for line in file.read_text("utf-8").split("\n")[:-1]}

        for enough in (50, 500):
            with open(f"{self.root}/seen{enough}", "wb") as output:
                consumer = self.begin(f"{EXAMPLES}/redis-consumer.py", f"unix://{self.root}/redis", stdout=output)
            self.until(lambda: len(seen()) >= enough, "reports at the consumer")
            if enough == 500:
                self.until(lambda: self.ask("XPENDING", "keldwick", "example").startswith("0"), "acknowledgements")
            self.end(consumer)
        self.assertEqual({f"'logon' '10.9.8.7' {ascii(self.user(ident))} {ascii('CORP' + chr(92) + 'WS1')}" for ident in range(500)}, seen())

    def test_a_line_that_was_cut_costs_no_other(self):
        self.reports = f"{self.root}/reports"
        self.redis()
        with open(self.reports, "ab") as output:
            server = self.keldwick_server("--json", stdout=output, restore_signals=False,
                                          preexec_fn=lambda: signal.signal(signal.SIGXFSZ, signal.SIG_IGN))
        with socket.create_connection((self.address, 1306)) as link:
            for ident, room in enumerate((-1, 600, -1)):  # a disk that is full for a while
                resource.prlimit(server.pid, resource.RLIMIT_FSIZE, (room, -1))
                link.sendall(encode(ident, "10.9.8.7", (self.user(ident), "", ""), ("CORP\\WS1", "", "")))
                self.assertEqual(14, len(link.recv(14, socket.MSG_WAITALL)))
                if room == 600:
                    self.assertIn("cannot print requests", server.stderr.readline())
                else:
                    self.until(lambda: pathlib.Path(self.reports).read_bytes().endswith(b"}\n"), "a whole line")
        self.end(server, signal.SIGTERM)
        self.feed()
        with open(f"{self.root}/seen", "w+b") as output:
            self.begin(f"{EXAMPLES}/redis-consumer.py", f"unix://{self.root}/redis", stdout=output)
        seen = pathlib.Path(f"{self.root}/seen")
        self.until(lambda: seen.read_text("utf-8").count("\n") == 3, "three lines")
        self.until(lambda: self.ask("XPENDING", "keldwick", "example").startswith("0"), "acknowledgements")
        self.assertEqual(["'logon'", "unreadable", "'logon'"], [line.split()[0] for line in seen.read_text("utf-8").splitlines()])


if __name__ == "__main__":
    unittest.main()
