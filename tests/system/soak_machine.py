"""The real programs with what they meet, each of which can fail: identity servers, a name server, the log, the audit log that a
feed follows, the clock, the disk. Writes records, waits, and compares what is to be seen with the model."""
import collections
import contextlib
import json
import os
import random
import re
import select
import socket
import struct
import subprocess
import tempfile
import threading
import time

os.environ.setdefault("KELDWICK_BIN", os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../build/dev/bin"))

from machine import BIN, xml
from soak_model import Messages, Model, Received, Record, Violation
from test_feeds import LOG_SIZE, authentication
from wire import Server, answer, certificate

NET = f"127.61.{os.getpid() % 250}."  # so that several may run side by side
HOSTS = (NET + "1", NET + "2")        # identity servers
NAME_SERVER = NET + "53"
PATIENCE = 60  # seconds until a thing that must happen counts as missing
LOOK_UP = 1    # seconds that a name is waited for


class NameServer(threading.Thread):
    """Answers every reverse look-up of 10.A.B.C with pc-A-B-C.corp, or nothing at all while it is silent."""

    def __init__(self):
        super().__init__(daemon=True)
        self.silent, self.socket = False, socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((NAME_SERVER, 53))
        self.start()

    def run(self):
        while True:
            query, client = self.socket.recvfrom(512)
            labels, at = [], 12
            while query[at]:
                labels.append(query[at + 1:at + 1 + query[at]])
                at += 1 + query[at]
            name = b"pc-" + b"-".join(reversed(labels[:3]))
            data = bytes([len(name)]) + name + b"\x04corp\0"
            if not self.silent:
                self.socket.sendto(query[:2] + b"\x85\x80\0\1\0\1\0\0\0\0" + query[12:at + 5] +
                                   b"\xc0\x0c\0\x0c\0\1\0\0\0\0" + struct.pack(">H", len(data)) + data, client)


class Machine:
    def __init__(self, seed, out=print):
        self.seed, self.random, self.out = seed, random.Random(seed), out
        self.work = tempfile.mkdtemp(prefix="keldwick-soak-")
        self.root, self.audit, self.clock = f"{self.work}/root", f"{self.work}/audit.jsonl", f"{self.work}/clock"
        os.mkdir(self.root)
        self.offset, self.number, self.asked, self.slow = 0, 0, set(), 0.0
        self.agent = self.feed = self.baseline = self.name_server = None
        self.servers, self.received, self.script = {}, Received(), collections.deque()
        self.answering = threading.Lock()  # an answer and its record are one to a server's death
        self.protocol, self.host = 0, HOSTS[0]
        self.model, self.messages, self.heard = Model(self.received), Messages(f"{self.work}/agent.err"), []
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(f"{self.work}/notify")

    # The machine.

    def mount(self, *arguments, what):
        done = "SOAK_PRIVATE" in os.environ and subprocess.run(["mount", *arguments], capture_output=True).returncode == 0
        if not done:
            self.out(f"    left out: {what}, since mounting is not permitted")
        return done

    def prepare(self):
        self.small_disk = self.mount("-t", "tmpfs", "-o", "size=24m,mode=700", "soak", self.root, what="the full disk")
        for name in ("audit.jsonl", "agent.err"):
            open(f"{self.work}/{name}", "w").close()
        with open(f"{self.work}/resolv.conf", "w") as file:
            file.write(f"nameserver {NAME_SERVER}\noptions timeout:1 attempts:2\n")
        if self.mount("--bind", f"{self.work}/resolv.conf", os.path.realpath("/etc/resolv.conf"), what="the name server"):
            try:
                self.name_server = NameServer()
            except OSError as error:
                self.out(f"    left out: the name server ({error})")
        self.move_clock(6 * 3600)  # never behind the machine's own
        self.tls = certificate(self.work)
        for host in HOSTS:
            self.serve(host)
        self.ctl("init", "--server", self.host)
        self.ctl("settings", "set", "DebugOutput", "0x103")
        self.ctl("settings", "set", "--type", "dword", "Linux\\NameLookupTimeout", str(LOOK_UP * 1000))
        self.ctl("settings", "set", "--type", "dword", LOG_SIZE, str(128 * 1024))
        self.ctl("events", "clear")
        self.ctl("events", "write", "--id", "4608", "--", "-")
        self.received.add("ended")
        self.start_feed()
        self.start_agent()
        for _ in range(3):
            self.burst(8)
            self.settle()

    def end(self):
        for process in (self.agent, self.feed):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        for server in self.servers.values():
            server.close()

    def ctl(self, *arguments, code=0, text=None):
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, *arguments], input=text, capture_output=True,
                              text=True, timeout=PATIENCE)
        if code is not None and done.returncode != code:
            raise Violation(f"keldwickctl {' '.join(arguments)[:200]} ended with {done.returncode}: {done.stdout}{done.stderr}")
        return done.stdout if code is not None else done.returncode

    def start_agent(self):
        """As a service, whose manager hears what it is told. What it says goes to a disk that does not fill."""
        while select.select([self.manager], [], [], 0)[0]:
            self.manager.recv(4096)
        environment = {**os.environ, "KELDWICK_ROOT": self.root, "LD_PRELOAD": f"{BIN}/libmoved_clock.so", "TZ": "UTC",
                       "KELDWICK_TEST_CLOCK": self.clock, "NOTIFY_SOCKET": f"{self.work}/notify",
                       "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0:quarantine_size_mb=1"}
        follows, self.baseline = self.model.follows, None
        with open(f"{self.work}/agent.err", "ab") as errors:
            self.agent = subprocess.Popen([f"{BIN}/keldwick"], env=environment, stderr=errors, stdout=subprocess.DEVNULL)
        self.until(lambda: self.model.follows > follows, "the agent follows the log")
        self.resume()

    def start_feed(self):
        with open(f"{self.work}/feed.err", "ab") as errors:
            self.feed = subprocess.Popen([f"{BIN}/keldwickctl", "--root", self.root, "feed", "samba-audit", self.audit],
                                         stderr=errors, stdout=subprocess.DEVNULL)

    def move_clock(self, by):
        self.offset = max(3600, self.offset + by)
        with open(self.clock, "r+b" if os.path.exists(self.clock) else "wb") as file:
            file.write(struct.pack("<q", self.offset))

    def serve(self, host):
        self.servers[host] = Server(host, tls_files=self.tls, reply=self.reply)

    def die(self, host):
        with self.answering:
            self.servers.pop(host).close()
            self.received.add("died")

    def reply(self, connection, _request, fields):
        """Answers as the script says next. What became of a good answer is known only after it."""
        verdict, whole = self.script.popleft() if self.script else "good", answer(fields["id"])
        if verdict in ("good", "slow"):
            time.sleep(self.slow if verdict == "slow" else 0)
            with self.answering:
                try:
                    connection.sendall(whole)
                except OSError:
                    return self.received.add("lost", fields)
                return self.received.add("good", fields)
        self.received.add(verdict, fields)
        if verdict == "late":
            time.sleep(20.7)
        if verdict == "split":
            connection.sendall(whole[:5])
            time.sleep(0.003)
        said = {"late": whole, "split": whole[5:], "closing": whole, "garbage": b"\xff" * 14, "foreign": answer(fields["id"] + 1)}
        connection.sendall(said.get(verdict, b""))  # to "stalls", nothing
        if verdict == "resets":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            connection.close()
        elif verdict in ("closing", "closes"):
            connection.shutdown(socket.SHUT_RDWR)
        return None

    # What is written.

    def new(self, source, count=1, **changes):
        """Records of new people at one of few addresses, so that most replace somebody."""
        records = []
        for _ in range(count):
            self.number += 1
            fields = {"user": f"CORP\\u{self.number}", "ip": f"10.5.0.{self.random.randrange(1, 60)}",
                      "computer": f"CORP\\WS{self.number}", "source": source, **changes}
            records.append(Record(**fields))
        return records

    def lone_address(self, net):
        return f"10.{net}.{self.number // 250 % 250}.{self.number % 250 + 1}"

    def again(self, source):
        """Somebody who is there logs on once more; once between two waits, since renewals show not which event they are of."""
        there = sorted(set(self.model.table) - self.asked)
        if not there or self.random.random() > 0.3:
            return self.new(source)
        ip = self.random.choice(there)
        self.asked.add(ip)
        return self.new(source, ip=ip, user=self.model.table[ip].user)

    def write(self, records, workstation=None, code=0, unheard=False):
        """Straight into the log, by one import. Unheard: nobody follows, so none of them may ever be reported."""
        events = ""
        for record in records:
            events += xml(record.user.split("\\")[1], record.ip, workstation or record.computer.split("\\")[1])
            if not unheard:
                self.model.wrote(record)
        return self.ctl("events", "import", "-", text=f"<Events>{events}</Events>", code=code)

    def say(self, records):
        """By the controller's audit log, which the feed follows."""
        with open(self.audit, "a", encoding="utf-8") as file:
            for record in records:
                self.model.wrote(record)
                file.write(authentication(record.user.split("\\")[1], record.ip, workstation=record.computer.split("\\")[1]))

    def burst(self, count):
        """Logons by both ways, some of people who are there, and one that is nobody's."""
        for source, put in (("feed", self.say), ("log", self.write)):
            put([record for _ in range(count // 2)
                 for record in (self.again(source) if self.model.gap is None else self.new(source))])
        self.write(self.new("log", user="CORP\\WS9$"), unheard=True)

    # Waiting and checking.

    def listen(self):
        for stamp, text in self.messages.new():
            self.heard.append(text)
            self.model.hear(stamp, text)
        for server in self.servers.values():
            while not server.requests.empty():
                fields = server.requests.get()[1]
                if "bad" in fields:
                    raise Violation(f"a request cannot be decoded: {fields['bad']}")

    def until(self, condition, what, patience=PATIENCE):
        """`what`: a text, or what gives one."""
        if not self.wait(condition, patience):
            raise Violation(f"never came within {patience} s: {what if isinstance(what, str) else what()}")

    def wait(self, condition, patience):
        end = time.monotonic() + patience
        while time.monotonic() < end:
            self.listen()
            if condition():
                return True
            if self.agent.poll() is not None and not self.model.stopping:
                raise Violation(f"the agent ended with {self.agent.returncode}")
            time.sleep(0.01)
        return False

    def until_heard(self, text, since):
        self.until(lambda: any(text in each for each in self.heard[since:]), text)

    def may_lose(self, records=None):
        """From here to resume() records may be lost as one run; so may these, or else what the feed has yet to write."""
        self.model.open_gap([each for each in self.model.pending if each.source == "feed"] if records is None else records)

    def resume(self):
        """Closes the gap as soon as a record is reported again."""
        if self.model.gap is None:
            self.may_lose()
        end = time.monotonic() + PATIENCE
        probe = self.new("log")
        self.write(probe)
        while not self.wait(lambda: probe[0].outcome, 1):
            if time.monotonic() > end:
                raise Violation("the agent does not go on")
            probe = self.new("log")
            self.write(probe)
        gap = self.model.close_gap()
        self.settle()
        self.model.settle_gap(gap)

    def settle(self, probes=True):
        """Until everything that must have an outcome has one."""
        if probes:
            self.write(self.new("log"))
            self.say(self.new("feed"))
        missing = self.model.missing
        self.until(lambda: not missing(), lambda: f"the outcome of {len(missing())} records, first {missing()[:3]}")
        self.asked.clear()

    def until_same(self, what, wanted, got, patience):
        """Both are asked until they agree."""
        last = []

        def same():
            last[:] = [wanted(), got()]
            return last[0] == last[1]
        self.until(same, lambda: f"{what}: {last[0]} wanted, {last[1]} found", patience)

    def check_identities(self):
        """The list is right within 80 s even if its last writing took long."""
        def listed():
            identities = map(json.loads, self.ctl("identities", "--json").splitlines())
            return sorted((each["address"], each["user"], each["computer"]) for each in identities)
        self.until_same("identities", lambda: sorted((ip, entry.user, entry.computer) for ip, entry in self.model.table.items()),
                        listed, 80)

    def check(self):
        self.script.clear()
        self.settle()
        self.until(lambda: self.received.peek()[1] is None, "in the log, all that the servers received", 5)
        self.check_identities()
        status = json.loads(self.ctl("status", "--json"))
        counts = status["reports_answered"], status["reports_failed"]
        if counts != (self.model.answered, self.model.failed):
            raise Violation(f"status counts {counts} reports, the agent's log {self.model.answered, self.model.failed}")
        with open(f"{self.root}/Keldwick.log", "rb") as log:
            log.seek(max(0, os.path.getsize(log.name) - 65536))
            if (last := self.model.last_reported) and last not in log.read().decode("utf-8", "replace").replace("\r", ""):
                raise Violation(f"Keldwick.log lacks: {last}")
        if self.baseline is None:
            self.baseline = self.resources()
        self.until_same("descriptors, threads, memory to spare", lambda: (*self.baseline[:2], True),
                        lambda: (*self.resources()[:2], self.resources()[2] <= self.baseline[2] + self.margin()), 15)

    def resources(self):
        kinds = collections.Counter()
        for each in os.listdir(f"/proc/{self.agent.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):
                kinds[re.sub(r"\d+", "N", os.readlink(f"/proc/{self.agent.pid}/fd/{each}"))] += 1
        with open(f"/proc/{self.agent.pid}/status") as file:
            status = dict(line.split(":", 1) for line in file)
        return kinds, int(status["Threads"]), int(status["VmRSS"].split()[0])

    def margin(self):
        """KiB that the memory may grow; sanitizers keep what was freed."""
        with open(f"/proc/{self.agent.pid}/status") as file:
            reserved = int(re.search(r"VmSize:\s+(\d+)", file.read())[1])
        return 256 * 1024 if reserved > 1 << 30 else 1024  # nothing else reserves a tebibyte

    def poke(self):
        """Ends the agent's pause between two attempts: another protocol, which every server speaks."""
        self.protocol = 0 if self.protocol else 1
        self.may_lose()
        self.ctl("settings", "set", "IdentProtocol", str(self.protocol))
        self.resume()
