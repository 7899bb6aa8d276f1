"""The dissector for Wireshark: what tshark makes of a real exchange, of long and of damaged ones. The captures are written
here from the bytes that a relay saw, so that no right to capture is needed and the segments are as each test wants them."""
import json
import os
import random
import select
import socket
import struct
import subprocess
import threading
import time

from machine import BIN, SOURCE, MachineTest
from wire import answer, certificate, decode, encode

SCRIPT = f"{SOURCE}/packaging/wireshark/keldwick.lua"
EXPERTS = ("wrong_length", "wrong_value", "stray", "cut", "groups_not_sent", "unasked", "late", "pieces", "unanswered")


def relay(address, target, port):
    """Passes one connection on to the same port at target. Gives the list of (stream, from the client, bytes, time) that pass."""
    seen, listener = [], socket.create_server((address, port))

    def run():
        with listener, listener.accept()[0] as client, socket.create_connection((target, port)) as server:
            other, data = {client: server, server: client}, b"-"
            while data:
                source = select.select(list(other), [], [])[0][0]
                if data := source.recv(65536):
                    seen.append((1, source is client, data, time.time()))
                    other[source].sendall(data)

    threading.Thread(target=run, daemon=True).start()
    return seen


def capture(path, exchange, port, segment=1448, keep=65535):
    """A capture file with (stream, from the client, bytes, time) as segments of at most that many bytes."""
    sequence = {}
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, keep, 101))  # 101: IP without a link layer
        for stream, up, data, when in exchange:
            for at in range(0, len(data), segment):
                piece, side, other = data[at:at + segment], (stream, up), (stream, not up)
                ports = (40000 + stream, port) if up else (port, 40000 + stream)
                hosts = ("10.0.0.1", "10.0.0.2") if up else ("10.0.0.2", "10.0.0.1")
                tcp = struct.pack(">HHIIBBHHH", *ports, sequence.get(side, 1), sequence.get(other, 1), 0x50, 0x18, 65535, 0, 0)
                packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(piece), 0, 0, 64, 6, 0,
                                     *map(socket.inet_aton, hosts)) + tcp + piece
                sequence[side] = sequence.get(side, 1) + len(piece)
                file.write(struct.pack("<IIII", int(when), int(when % 1 * 1e6), len(packet[:keep]), len(packet)) + packet[:keep])


def tshark(path, *options):
    done = subprocess.run(["tshark", "-n", "-X", f"lua_script:{SCRIPT}", "-r", path, *options], capture_output=True, timeout=120)
    text = done.stdout.decode("utf-8", "surrogatepass")
    if done.returncode or "Lua Error" in text or b"Lua:" in done.stderr:
        raise AssertionError(f"tshark: {done.returncode} {done.stderr.decode()} {text[-3000:]}")
    return text


def flatten(node, fields):
    for name, value in node.items():
        for one in value if isinstance(value, list) else [value]:
            if isinstance(one, dict):
                flatten(one, fields)
            else:
                fields.setdefault(name.replace("keldwick.", "", 1), []).append(one)


def messages(path, *options):
    """The dissected messages in their order by stream, each as {field: [values]}, with "experts": the names of what is marked."""
    found = {}
    for packet in json.loads(tshark(path, "-T", "json", "--no-duplicate-keys", "-J", "keldwick tcp", *options)):
        layers = packet["_source"]["layers"]
        layer = layers.get("keldwick", [])
        for one in layer if isinstance(layer, list) else [layer]:
            fields = {}
            flatten(one, fields)
            fields["experts"] = sorted(set(EXPERTS) & set(fields))
            found.setdefault(int(layers["tcp"]["tcp.stream"]), []).append(fields)
    return found


class Reply(bytes):
    """What the server sends."""


def request(ident=2, user="CORP\\ann", groups=(), stated=None):
    wire = encode(ident, "10.9.8.7", (user, "", ""), ("CORP\\WS1", "", ""), groups)
    return wire if stated is None else changed(wire, 0, struct.pack(">H", stated))


def changed(message, at, value):
    return message[:at] + value + message[at + len(value):]


class Dissector(MachineTest):
    address, behind = "127.72.0.1", "127.72.0.2"

    def check(self, shown, wire):
        """What is shown of a request beside its own decoding."""
        fields = decode(wire)
        kinds = {"0x20": "logon", "0x30": "heartbeat", "0x21": "logoff"}
        self.assertEqual((fields["kind"], str(fields["id"]), fields["mask"], len(wire), []),
                         (kinds[shown["kind"][0]], shown["id"][0], int(shown["mask"][0], 16), int(shown["size"][0]), shown["experts"]))
        self.assertEqual([fields["address"]], shown.get("ipv4") or shown.get("ipv6"))
        self.assertEqual(fields["os"], tuple(int(shown[f"os.{each}"][0]) for each in ("code", "major", "minor")))
        for block in ("user", "computer"):
            parts = tuple(shown[name][0] for name in (block, f"{block}.dn", f"{block}.ou") if name in shown)
            self.assertEqual(fields.get(block, ()), parts)
        self.assertEqual(fields["groups"], list(zip(shown.get("group", []), shown.get("group.dn", []))))

    def exchange(self, protocol, logons, answered):
        """Captures what passes between the agent and the server while the logons are reported."""
        port = 1306 if protocol == "tcp" else 1308
        passed = relay(self.address, self.behind, port)
        self.prepare(protocol)
        agent = self.start()
        for user, ip in logons:
            self.logon(user, ip, "WS1")
        self.until(answered, "the answers")
        self.shut_down(agent)
        capture(f"{self.root}/real", passed, port)

    def test_a_real_exchange_is_shown_as_it_was_sent(self):
        for protocol in ("tcp", "tcps"):
            with self.subTest(protocol=protocol):
                keys, wires = f"{self.root}/keys", []
                server = self.serve(self.behind, tls_files=certificate(self.root) if protocol == "tcps" else None,
                                    reply=lambda link, wire, fields: (wires.append(wire), link.sendall(answer(fields["id"], 7))))
                if server.tls:
                    server.tls.keylog_filename = keys
                logons = ("ann", "10.9.8.7"), ("bob", "10.9.8.7"), ("\U0001F980 \u202e", "2001:db8::7")
                self.exchange(protocol, logons, lambda: len(wires) == 4)
                server.close()
                for passes in ((), ("-2",)):
                    shown = messages(f"{self.root}/real", "-o", f"tls.keylog_file:{keys}", *passes)[0]
                    self.assertEqual(8, len(shown))
                    for wire, asked, answered in zip(wires, shown[::2], shown[1::2]):
                        self.check(asked, wire)
                        self.assertEqual((["7"], asked["id"], []), (answered["status"], answered["id"], answered["experts"]))
                        self.assertTrue(0 <= float(answered["time"][0]) < 20, answered)
                        self.assertEqual(bool(passes), "response_in" in asked)
                os.remove(f"{self.root}/Keldwick.log")

    def test_the_keys_that_the_reference_server_logs_open_a_capture(self):
        keys = f"{self.root}/keys"
        server = self.begin(f"{BIN}/keldwick-server", "--host", self.behind, "--key-log", keys)
        self.assertIn("listening", server.stderr.readline())
        self.exchange("tcps", [("ann", "10.9.8.7")], lambda: "IdentityReportLogon request status = 0" in self.log())
        self.assertFalse(messages(f"{self.root}/real"), "without them nothing is seen")
        shown = messages(f"{self.root}/real", "-o", f"tls.keylog_file:{keys}")[0]
        self.assertEqual([(["0x20"], None), (None, ["0"])], [(each.get("kind"), each.get("status")) for each in shown], shown)
        self.assertEqual(0o600, os.stat(keys).st_mode & 0o777)

    def test_damage_is_marked_and_costs_no_other_message(self):
        good, other, reply, next_reply = request(), request(3), Reply(answer(2)), Reply(answer(3))
        long_name, short_name = changed(good, 53, b"\1\0"), changed(good, 53, b"\0\1")
        cases = (  # what it is; what passes, in segments, a number being seconds; the marks of each message shown
            ("nothing", [good, reply, other, next_reply], [[], [], [], []]),
            ("two in a segment", [good + other], [[], ["unanswered"]]),
            ("a length too small", [request(stated=77), reply, other], [["wrong_length"], [], []]),
            ("a length too large", [request(stated=79), reply, other], [["wrong_length"], [], []]),
            ("too large, another after it", [request(stated=79) + other], [["wrong_length"], ["unanswered"]]),
            ("a name too long", [long_name, reply, other], [["wrong_length"], [], []]),
            ("too long, another after it", [long_name + other], [["wrong_length"], ["unanswered"]]),
            ("too long, into another", [changed(good, 53, b"\0\x20") + other], [["wrong_length"], ["unanswered"]]),
            ("too long, in two segments", [long_name[:40], long_name[40:], reply, other], [["wrong_length"], [], []]),
            ("a name too short", [short_name, reply, other], [["wrong_length"], [], []]),
            ("a constant", [changed(good, 18, b"\2"), reply, other], [["wrong_value"], [], []]),
            ("a NUL in a name", [request(user="ann\0x")], [["wrong_value"]]),
            ("no NUL in a name", [request(user="\u0100a\u0200")], [[]]),
            ("a kind", [good[:-1] + b"x", reply, other], [["wrong_value"], [], []]),
            ("an address version", [changed(good, 19, b"\5") + other], [["wrong_value"], ["unanswered"]]),
            ("a mask", [changed(good, 12, b"\x0e\x8e") + other], [["wrong_value"], ["unanswered"]]),
            ("a format", [changed(good, 3, b"\4"), reply, other], [["wrong_value"], [], []]),
            ("no beginning", [good[20:], other], [["stray"], []]),
            ("groups counted, not sent", [request(stated=79)[:-3] + b"\0\5\0 ", reply, other], [["groups_not_sent"], [], []]),
            ("an answer too short", [good, Reply(reply[:13]), other, next_reply], [[], ["unanswered"], ["late", "pieces"],
                                                                                  ["unasked", "wrong_length", "wrong_value"]]),
            ("an answer too long", [good, Reply(reply + b"x"), other, next_reply], [[], [], ["wrong_length"], [], []]),
            ("an answer's length turned round", [good, Reply(b"\x0e\0" + reply[2:])], [[], ["wrong_length"]]),
            ("an answer's code", [good, Reply(answer(2, code=0x10))], [[], ["wrong_value"]]),
            ("an answer that was not asked for", [good, Reply(answer(9))], [[], ["unasked"]]),
            ("an answer in pieces", [good, Reply(reply[:9]), Reply(reply[9:])], [[], ["pieces"]]),
            ("an answer to the request before", [good, other, reply, next_reply], [[], ["unanswered"], ["late"], []]),
            ("an answer after 21 seconds", [good, 21, reply], [[], ["late"]]),
        )
        exchange = []
        for stream, (_, steps, _) in enumerate(cases):
            now = 1000.0
            for step in steps:
                if isinstance(step, int):
                    now += step
                else:
                    exchange.append((stream, not isinstance(step, Reply), step, now))
        capture(f"{self.root}/damage", exchange, 1306)
        shown = messages(f"{self.root}/damage")
        for stream, (what, _, marks) in enumerate(cases):
            with self.subTest(what):
                self.assertEqual(marks, [each["experts"] for each in shown[stream]], [each.get("id") for each in shown[stream]])

    def test_long_requests_are_put_together_from_their_segments(self):
        groups = [(f"CORP\\group{i}", "CN=" + "x" * (i % 200)) for i in range(1000)]
        wires = [request(2, groups=groups[:count]) for count in (1, 30, 300, 500, 1000)]
        self.assertGreater(len(wires[-1]), 2 * 65536)
        for segment, some in ((40, wires[:2]), (1448, wires), (65495, wires)):
            exchange = [(stream, True, wire + request(3), 1000) for stream, wire in enumerate(some)]
            capture(f"{self.root}/long", exchange, 1306, segment)
            shown = messages(f"{self.root}/long")
            for stream, wire in enumerate(some):
                with self.subTest(segment=segment, size=len(wire)):
                    first, second = shown[stream]
                    self.check(first, wire)
                    self.assertEqual((["3"], ["unanswered"]), (second["id"], second["experts"]))

    def test_a_capture_that_keeps_only_beginnings_says_so(self):
        capture(f"{self.root}/cut", [(1, True, request(), 1000), (1, False, answer(2), 1001)], 1306, keep=90)
        shown = messages(f"{self.root}/cut")[0]
        self.assertEqual([["cut"], []], [each["experts"] for each in shown])
        self.assertEqual("10.9.8.7", shown[0]["ipv4"][0])

    def test_no_bytes_stop_it(self):
        chance = random.Random(5)
        seeds = [request(), request(groups=[("CORP\\g", "CN=g")] * 3), answer(2), request() + request(3)]
        exchange = []
        for stream in range(400):
            data = bytearray(chance.choice(seeds))
            for _ in range(chance.randint(1, 6)):
                data[chance.randrange(len(data))] = chance.choice((0, 1, 4, 6, 0x7F, 0xFF, chance.randrange(256)))
            cut = chance.randrange(len(data) + 1)
            exchange += [(stream, stream % 3 > 0, bytes(part), 1000) for part in (data[:cut], data[cut:], request(3)) if part]
        endless = struct.pack(">HHHII", 60000, 3, 0x10, 2, 0xE06) + bytes.fromhex("0200000001 00 13010205 0C0A00 FFFF 00") + bytes(2000)
        exchange += [(401, True, endless[at:at + 1], 1000) for at in range(len(endless))]
        capture(f"{self.root}/chance", exchange, 1306)
        begun = time.monotonic()
        self.assertGreater(len(messages(f"{self.root}/chance")), 350)
        self.assertLess(time.monotonic() - begun, 60)
