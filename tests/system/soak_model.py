"""What the agent owes for the records that were written, derived from what the servers received and from its own messages, in
their order. Any difference is a Violation."""
import collections
import re
import threading
from dataclasses import dataclass

from machine import STAMP

QUOTED = re.compile(r'"([^"]*)"')
LOGON, LOGOFF = "logon", "logoff"
# What no trouble of this kind explains.
NEVER = ("thread abnormal exit", "Wait failed", "Terminating", "wait result", "Invalid", "Insufficient", "Failed to reallocate",
         "Unable to load registry", "Unable to read the", "Uable to", "Unable to write the list", "Unable to set registry",
         "Logon expired")


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


class Model:
    def __init__(self):
        self.pending = []       # records without outcome, as written
        self.gap = None         # records that may be lost as one run, while such a gap is open
        self.table = {}         # by address: (user, computer)
        self.owed = None        # the user and the address of the logoff that must come next
        self.answering = threading.Lock()  # an answer and its note here are one to all others
        self.received = []      # (verdict, kind, user, address) of each request
        self.heard = 0          # of these, the agent's messages have come to
        self.trouble = False    # a server is gone, or the agent stops: that explains a report that fails
        self.follows = 0
        self.counts = collections.Counter()

    # What is written.

    def wrote(self, record):
        record.sure = record.sure and self.gap is None
        self.pending.append(record)
        if self.gap is not None:
            self.gap.append(record)

    def open_gap(self, also=()):
        """From here on records may be lost, but only as one run of each source; so may those of `also`."""
        self.gap = list(also)
        for record in also:
            record.sure = False

    def close_gap(self):
        """What is to come is reported again. Everything of the gap has had its turn when a later record has."""
        gap, self.gap = self.gap, None
        return gap

    def settle_gap(self, gap):
        for source in {record.source for record in gap}:
            had = "".join("+" if record.outcome else "-" for record in gap if record.source == source)
            if re.search(r"-\++-", had):
                raise Violation(f"records of {source} are lost here and there, not in one run: {had}")
        for record in gap:
            if not record.outcome:
                self.pending.remove(record)
                self.counts["lost"] += 1

    def missing(self):
        return [record for record in self.pending if record.sure]

    # What the agent says.

    def hear(self, text):
        if any(each in text for each in NEVER):
            raise Violation(f"the agent said: {text}")
        if text.startswith("EVENT_LOG::Process: OldestRecordNumber"):
            self.follows += 1
        if not text.startswith("Do_EVENT_ACCOUNT_LOGON: "):
            return
        what = text.split("\n")[0].removeprefix("Do_EVENT_ACCOUNT_LOGON: ")
        quoted = QUOTED.findall(text)
        if what.startswith("User name changed"):
            user, ip = quoted[0], text.rsplit(" ", 1)[1]
            if self.table.pop(ip, (None,))[0] != user:
                raise Violation(f"{user} is replaced at {ip}, but was not there")
            self.owed = user, ip
        elif what.startswith("Logon reported,") or what.startswith("Unable to report logon,"):
            user, computer, ip = quoted
            reported = what.startswith("Logon reported")
            if self.owed is not None:
                self.request(LOGOFF, *self.owed)
                self.owed = None
            self.request(LOGON, user, ip, reported)
            self.match(user, ip, "reported" if reported else "failed", computer)
            if ip in self.table:
                raise Violation(f"{user} at {ip} while {self.table[ip]} is there")
            if reported:
                self.table[ip] = user, computer
        elif what.startswith("Reset TTL,"):
            user, ip = quoted
            if self.table.get(ip, (None,))[0] != user:
                raise Violation(f"{user} is renewed at {ip}, where there is {self.table.get(ip)}")
            self.match(user, ip, "renewed")

    def request(self, kind, user, ip, answered=None):
        """Compares a request of the agent with the one that the servers received next. answered: what the agent says of it."""
        with self.answering:
            verdict, *got = self.received[self.heard] if self.heard < len(self.received) else (None,)
        came = got == [kind, user, ip]
        self.heard += came
        if answered and not (came and verdict == "good"):
            raise Violation(f"the {kind} of {user} at {ip} counts as answered; the servers have {verdict} {got}")
        if not answered and not (self.trouble or came and (answered is None or verdict != "good")):
            raise Violation(f"the {kind} of {user} at {ip} failed without a reason; the servers have {verdict} {got}")

    def match(self, user, ip, outcome, computer=None):
        same = [record for record in self.pending if (record.user, record.ip) == (user, ip)]
        record = next((each for each in same if computer in (None, each.computer)), None)
        if record is None:
            raise Violation(f"{user} at {ip} ({computer}) was {outcome}, but no such record waits: {same}")
        record.outcome = outcome
        self.pending.remove(record)
        self.counts[outcome] += 1

    def ended(self, killed):
        """The agent is gone and all it said was heard. One request of a killed one may be on its way without a word of it."""
        if len(self.received) - self.heard > killed:
            raise Violation(f"requests that no message names: {self.received[self.heard:]}")
        self.heard, self.owed, self.trouble = len(self.received), None, False
        self.table.clear()


class Messages:
    """The agent's messages as they come at the end of a growing file, each once and whole."""

    def __init__(self, path):
        self.path, self.at = path, 0

    def new(self):
        with open(self.path, "rb") as file:
            file.seek(self.at)
            data = file.read().replace(b"\r", b"")
        data = data[:data.rfind(b"\n\n") + 1]
        self.at += len(data)
        return [message.strip("\n") for message in STAMP.split(data.decode("utf-8", "replace")) if message]
