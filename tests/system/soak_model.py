"""What the agent must have done, told from what was written to its log, what the servers received and what it says itself.
Reads the agent's messages in order and keeps identities as the agent should; any difference is a Violation."""
import calendar
import re
import threading
import time
from dataclasses import dataclass, field

STAMP = re.compile(r"^(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d [AP]M) KDWK: \(\d+\.\d+\) ", re.M)
QUOTED = re.compile(r'"([^"]*)"')
ENDLESS = float("inf")
LOGON, HEARTBEAT, LOGOFF = "logon", "heartbeat", "logoff"
BEGINS = {"IdentityReportLogon:\n    User name = ": LOGON, "IdentityReportHeartbeat: Request length": HEARTBEAT,
          "IdentityReportLogoff: NtUserName": LOGOFF}
# What no trouble of this kind explains. A step names those that it does explain.
NEVER = ("thread abnormal exit", "Wait failed", "Terminating", "wait result", "Invalid", "Insufficient", "Failed to reallocate",
         "Unable to load registry", "Unable to read the", "Uable to", "Unable to write the list", "Unable to set registry")


class Violation(AssertionError):
    """The agent did what it must not, or did not what it must."""


@dataclass
class Record:
    """One written event that asks for a report."""
    user: str
    ip: str
    computer: str
    source: str
    sure: bool = True     # it must have an outcome; otherwise it may lie in a gap
    outcome: str = ""     # reported, failed, renewed
    dn: str = ""          # the user's DN that the report must carry


@dataclass
class Entry:
    """An identity, its times as (earliest, latest) by the agent's clock."""
    user: str
    computer: str
    renewed: tuple
    beat: tuple


@dataclass
class Exchange:
    kind: str
    ip: str = ""
    user: str = ""
    computer: str = ""
    began: float = 0
    answered: bool | None = None


class Received:
    """What the servers received, in order, each with what became of it; and marks of what happened to the servers."""

    def __init__(self):
        self.items, self.at, self.news = [], 0, threading.Condition()

    def add(self, verdict, fields=None):
        with self.news:
            self.items.append((verdict, fields))
            self.news.notify()

    def peek(self, patience=0.0, ahead=0):
        with self.news:
            self.news.wait_for(lambda: len(self.items) > self.at + ahead, patience)
            return self.items[self.at + ahead] if len(self.items) > self.at + ahead else (None, None)

    def take(self):
        self.at += 1


def spread(stamp, before=0.0, after=1.0):
    """A log's stamp has whole seconds."""
    return stamp - before, stamp + after


def elapsed(since, now):
    """The least and the most time; a time in the future is very long ago."""
    least, most = now[0] - since[1], now[1] - since[0]
    return (ENDLESS if most < 0 else max(least, 0), ENDLESS if least < 0 else most)


@dataclass
class Model:
    received: Received
    pending: list = field(default_factory=list)     # records without outcome, as written
    gap: list | None = None                         # records that may be lost as one run, while such a gap is open
    table: dict = field(default_factory=dict)       # by address, oldest first
    allowed: tuple = ()
    ttl: int = 720
    heartbeat: int = 1800
    sweeps: int = 0
    follows: int = 0
    counts: dict = field(default_factory=lambda: {"reported": 0, "failed": 0, "renewed": 0, "lost": 0, HEARTBEAT: 0,
                                                   "expired": 0, LOGOFF: 0})
    exchange: Exchange | None = None
    replaced: tuple | None = None  # the logoff that must come next
    may_fail: bool = False     # the exchange to come, for what the server did before it
    stopping: bool = False
    swept: tuple = (0, ENDLESS)
    sweep_began: float = 0     # 0: none runs
    beats: list = field(default_factory=list)
    swept_size: int = 0
    answered: int = 0          # exchanges of this run of the agent's
    failed: int = 0
    last_reported: str = ""    # the message

    # What is written.

    def wrote(self, record):
        record.sure = record.sure and self.gap is None
        self.pending.append(record)
        if self.gap is not None:
            self.gap.append(record)
        return record

    def open_gap(self, also=()):
        """From here on records may be lost, but only as one run of each source; so may those of `also`."""
        self.gap = []
        for record in also:
            record.sure = False
            self.gap.append(record)

    def close_gap(self):
        """What is to come is reported again. Everything of the gap has had its turn when a later record has."""
        gap, self.gap = self.gap, None
        return gap

    def settle_gap(self, gap):
        for source in {record.source for record in gap}:
            had = "".join("+" if record.outcome else "-" for record in gap if record.source == source)
            if "-" in had.strip("+") and "+" in had.strip("+").strip("-") and re.search(r"-\++-", had):
                raise Violation(f"records of {source} are lost here and there, not in one run: {had}")
        for record in gap:
            if not record.outcome:
                self.pending.remove(record)
                self.counts["lost"] += 1

    def missing(self):
        return [record for record in self.pending if record.sure]

    # What the agent says.

    def hear(self, stamp, text):
        if (stamp is None or any(each in text for each in NEVER)) and not any(each in text for each in self.allowed):
            raise Violation(f"the agent said: {text}")
        kind = next((kind for begin, kind in BEGINS.items() if text.startswith(begin)), None)
        if kind:
            self.begin(kind, stamp, QUOTED.findall(text))
        elif " request status = " in text:
            self.end(True)
        elif any(each in text for each in ("request response length = ", "Unexpected response for", "Retry #3")):
            self.end(False)
        elif text.startswith("Do_EVENT_ACCOUNT_LOGON: "):
            self.outcome(stamp, text)
        elif text.startswith("Logon expired: "):
            self.expire(stamp, *QUOTED.findall(text))
        elif text == "Updating statistics":
            self.end_sweep(stamp)
        elif text.startswith("Heartbeat interval = "):
            self.heartbeat = int(text.split()[3]) * 60
        elif text.startswith("Logon time-to-live = "):
            self.ttl = int(text.split()[3]) * 60
        elif text.startswith("EVENT_LOG::Process: OldestRecordNumber"):
            self.follows += 1
        elif text.startswith("Stopping Service: Reason"):
            self.stopping = True
        elif text.startswith("Service version") and " started" in text:
            self.restart(stamp)

    def restart(self, stamp):
        """A new process: nothing is kept. One request of the old one may be on its way without a word in the log."""
        unheard = 0
        while (verdict := self.received.peek(5)[0]) not in ("ended", "killed"):
            if verdict is None:
                raise Violation("the agent started again by itself")
            unheard += self.received.peek()[1] is not None
            self.received.take()
        self.received.take()
        if unheard > (verdict == "killed"):
            raise Violation(f"{unheard} requests were sent that the log does not know")
        self.table.clear()
        self.exchange, self.replaced, self.stopping, self.may_fail, self.answered, self.failed = None, None, False, False, 0, 0
        self.swept, self.sweep_began, self.beats = spread(stamp), 0, []

    # Exchanges, each with what a server received.

    def begin(self, kind, stamp, quoted):
        self.fail_open_one()
        self.exchange = Exchange(kind, began=stamp)
        if kind == LOGON:
            user, computer, ip = quoted
            self.exchange = Exchange(kind, ip, user, computer.replace("<N/A>", ""), stamp)
        elif kind == LOGOFF:
            self.exchange.user, self.exchange.ip = quoted
        else:
            self.sweep_began = self.sweep_began or stamp
        if self.replaced not in (None, (kind, self.exchange.user, self.exchange.ip)):
            raise Violation(f"{self.replaced} is owed, but next comes {self.exchange}")
        self.replaced = None

    def fail_open_one(self):
        if self.exchange is not None and self.exchange.answered is None:
            self.end(False)

    def end(self, answered):
        exchange = self.exchange
        if exchange is None or exchange.answered is not None:
            raise Violation("the end of an exchange that did not begin")
        exchange.answered = answered
        self.answered += answered
        self.failed += not answered
        verdict, fields = self.received.peek(2 if answered else 0.3)
        while verdict == "died":
            self.may_fail = True
            self.received.take()
            verdict, fields = self.received.peek(2 if answered else 0.3)
        same = fields is not None and fields["kind"] == exchange.kind and (
            exchange.kind == HEARTBEAT or (fields["user"][0], fields["address"]) == (exchange.user, exchange.ip))
        if answered and not same:
            raise Violation(f"{exchange} was answered, but the servers received {fields}")
        explained = self.may_fail or self.stopping
        if same:
            self.received.take()
            if exchange.kind == HEARTBEAT:
                exchange.ip = fields["address"]
            self.check_request(exchange, fields)
            explained = explained or verdict != "good" or self.received.peek()[0] == "died"
            if answered and verdict not in ("good", "late", "split", "closing"):
                raise Violation(f"{exchange} counts as answered, but the server's answer was: {verdict}")
        if not answered and not explained:
            raise Violation(f"{exchange} failed without a reason; the servers received {verdict} {fields}")
        self.may_fail = same and verdict in ("late", "split", "closing")
        if exchange.kind == HEARTBEAT:
            self.beats.append(exchange.ip if same else None)
            self.counts[HEARTBEAT] += 1
        elif exchange.kind == LOGOFF:
            self.counts[LOGOFF] += 1

    def check_request(self, exchange, fields):
        if exchange.kind == LOGON:
            got = fields.get("computer", ("",))[0]
            wanted = [record.dn for record in self.pending if (record.user, record.ip) == (exchange.user, exchange.ip)]
            if got != exchange.computer or (wanted and fields["user"][1] != wanted[0]):
                raise Violation(f"{exchange} was sent as {fields}; DN {wanted} expected")
            return
        entry = self.table.get(exchange.ip)
        if exchange.kind == HEARTBEAT and (entry is None or entry.user != fields["user"][0]):
            raise Violation(f"a heartbeat for {fields['user'][0]} at {exchange.ip}, who is not there: {entry}")

    # Outcomes and the table.

    def outcome(self, stamp, text):
        what = text.split("\n")[0].removeprefix("Do_EVENT_ACCOUNT_LOGON: ")
        quoted = QUOTED.findall(text)
        if what.startswith("User name changed"):
            old, ip = quoted[0], text.rsplit(" ", 1)[1]
            entry = self.table.pop(ip, None)
            if entry is None or entry.user != old:
                raise Violation(f"{old} is replaced at {ip}, where there is {entry}")
            self.replaced = LOGOFF, old, ip
        elif what.startswith("Logon reported,") or what.startswith("Unable to report logon,"):
            user, computer, ip = quoted
            self.fail_open_one()
            reported = what.startswith("Logon reported")
            last = self.exchange
            if last is None or (last.kind, last.user, last.ip, last.answered) != (LOGON, user, ip, reported):
                raise Violation(f"{what} for {user}, but the exchange was {last}")
            self.match(user, ip, "reported" if reported else "failed", computer)
            if ip in self.table:
                raise Violation(f"{user} at {ip} while {self.table[ip]} is there")
            self.last_reported = text
            if reported:
                times = spread(last.began, before=4)
                self.table[ip] = Entry(user, computer, times, times)
        elif what.startswith("Reset TTL,"):
            user, ip = quoted
            if ip not in self.table or self.table[ip].user != user:
                raise Violation(f"{user} is renewed at {ip}, where there is {self.table.get(ip)}")
            self.match(user, ip, "renewed")
            self.table[ip].renewed = spread(stamp)

    def match(self, user, ip, outcome, computer=None):
        same = [record for record in self.pending if (record.user, record.ip) == (user, ip)]
        record = next((each for each in same if computer in (None, each.computer)), None)
        if record is None:
            raise Violation(f"{user} at {ip} ({computer}) was {outcome}, but no such record waits: {same}")
        record.outcome = outcome
        self.pending.remove(record)
        self.counts[outcome] += 1

    def expire(self, stamp, user, ip):
        self.sweep_began = self.sweep_began or stamp
        entry = self.table.pop(ip, None)
        if entry is None or entry.user != user or elapsed(entry.renewed, spread(stamp))[1] <= self.ttl:
            raise Violation(f"{user} at {ip} expired at {stamp}; there was {entry}, time-to-live {self.ttl}")
        self.counts["expired"] += 1

    def end_sweep(self, stamp):
        self.fail_open_one()
        now = (self.sweep_began or stamp, stamp + 1)
        if elapsed(self.swept, now)[1] <= 60:
            raise Violation(f"a sweep at {stamp}, after one at {self.swept}")
        unknown = self.beats.count(None)
        for ip, entry in self.table.items():
            if elapsed(entry.renewed, now)[0] > self.ttl + 1:
                raise Violation(f"{entry} at {ip} outlived the sweep at {stamp}, time-to-live {self.ttl}")
            due, beaten = elapsed(entry.beat, now), ip in self.beats
            if beaten and (due[1] <= self.heartbeat or self.beats.count(ip) > 1):
                raise Violation(f"{entry} at {ip}: heartbeat at {stamp}, which was not due ({self.heartbeat})")
            if not beaten and due[0] > self.heartbeat + 1:
                unknown -= 1
                if unknown < 0:
                    raise Violation(f"{entry} at {ip}: no heartbeat at {stamp} ({self.heartbeat})")
            if beaten or unknown < self.beats.count(None):
                entry.beat = now
        self.swept, self.sweep_began, self.beats, self.swept_size = now, 0, [], len(self.table)
        self.sweeps += 1


class Messages:
    """The agent's messages as they come at the end of a growing file, each once and whole. Those that the layer writes there
    have no time."""

    def __init__(self, path):
        self.path, self.at, self.rest = path, 0, ""

    def new(self):
        with open(self.path, "rb") as file:
            file.seek(self.at)
            data = file.read()
        data = data[:data.rfind(b"\n") + 1]
        self.at += len(data)
        self.rest += data.decode("utf-8", "replace").replace("\r", "")
        starts = [found.start() for found in STAMP.finditer(self.rest)]
        whole = len(self.rest) if self.rest.endswith("\n\n") else (starts[-1] if starts else 0)
        text, self.rest = self.rest[:whole], self.rest[whole:]
        first, *parts = STAMP.split(text)
        yield from ((None, line) for line in first.split("\n") if line)
        for stamp, message in zip(parts[::2], parts[1::2]):
            message, _, more = message.partition("\n\n")
            yield calendar.timegm(time.strptime(stamp, "%Y/%m/%d %I:%M:%S %p")), message
            yield from ((None, line) for line in more.split("\n") if line)
