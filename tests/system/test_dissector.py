"""The dissector for Wireshark: what tshark makes of a real exchange, of long and of damaged ones. The captures are written
here from the bytes that a relay saw, so that no right to capture is needed and the segments are as each test wants them."""
import json
import os
import queue
import random
import socket
import struct
import subprocess
import threading
import time
import unittest

from machine import MachineTest
from wire import Server, answer, certificate, decode

SCRIPT = os.path.realpath(f"{os.path.dirname(__file__)}/../../packaging/wireshark/keldwick.lua")
EXPERTS = ("wrong_length", "wrong_value", "stray", "cut", "groups_not_sent", "unasked", "late", "unanswered")


class Relay:
    """Passes one port's connections on, and keeps (stream, from the client, bytes, time) of what passes."""

    def __init__(self, address, target, port):
        self.seen, self.streams = queue.Queue(), 0
        self.listener, self.target = socket.create_server((address, port)), (target, port)
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        try:
            while True:
                client, _ = self.listener.accept()
                server = socket.create_connection(self.target)
                self.streams += 1
                for source, sink, up in ((client, server, True), (server, client, False)):
                    threading.Thread(target=self.pump, args=(self.streams, source, sink, up), daemon=True).start()
        except OSError:
            pass

    def pump(self, stream, source, sink, up):
        try:
            while data := source.recv(65536):
                self.seen.put((stream, up, data, time.time()))
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def exchange(self):
        return [self.seen.get() for _ in range(self.seen.qsize())]


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
        for layer in [layers[name] for name in layers if name == "keldwick"]:
            for one in layer if isinstance(layer, list) else [layer]:
                fields = {}
                flatten(one, fields)
                fields["experts"] = sorted(set(EXPERTS) & set(fields))
                found.setdefault(int(layers["tcp"]["tcp.stream"]), []).append(fields)
    return found


def text(value):
    return struct.pack(">H", len(value.encode("utf-16-le")) // 2) + value.encode("utf-16-le")


def request(ident=2, user="CORP\\ann", groups=(), stated=None):
    """A logon at 10.9.8.7 from CORP\\WS1, as a real one looks."""
    body = bytes.fromhex("0200000001 04 0A090807 13010205 0C0A00") + text("CORP\\WS1") + text("") * 2 + text(user) + text("") * 2
    body += struct.pack(">H", len(groups)) + (b"\0" + b"".join(text(each) for group in groups for each in group) if groups else b"") + b" "
    return struct.pack(">HHHII", (14 + len(body)) % 65536 if stated is None else stated, 3, 0x10, ident, 0xFFE) + body


def changed(message, at, value):
    return message[:at] + value + message[at + len(value):]


class Dissector(MachineTest):
    address, behind = "127.45.0.1", "127.45.0.2"

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

    def test_a_real_exchange_is_shown_as_it_was_sent(self):
        for protocol, port in (("tcp", 1306), ("tcps", 1308)):
            with self.subTest(protocol=protocol):
                keys, wires = f"{self.root}/keys", []
                server = Server(self.behind, tls_files=certificate(self.root) if port == 1308 else None,
                                reply=lambda link, wire, fields: (wires.append(wire), link.sendall(answer(fields["id"], 7))))
                self.addCleanup(server.close)
                if server.tls:
                    server.tls.keylog_filename = keys
                relay = Relay(self.address, self.behind, port)
                self.addCleanup(relay.close)
                self.prepare(protocol)
                agent = self.start()
                for user, ip in (("ann", "10.9.8.7"), ("bob", "10.9.8.7"), ("\U0001F980 \u202e", "2001:db8::7")):
                    self.logon(user, ip, "WS1")
                self.until(lambda: len(wires) == 4, "four requests")
                self.shut_down(agent)
                server.close()
                capture(f"{self.root}/real", relay.exchange(), port)
                for passes in ((), ("-2",)):
                    shown = messages(f"{self.root}/real", "-o", f"tls.keylog_file:{keys}", *passes)[0]
                    self.assertEqual(8, len(shown))
                    for wire, asked, answered in zip(wires, shown[::2], shown[1::2]):
                        self.check(asked, wire)
                        self.assertEqual((["7"], asked["id"], []), (answered["status"], answered["id"], answered["experts"]))
                        self.assertTrue(0 <= float(answered["time"][0]) < 20, answered)
                        self.assertEqual(bool(passes), "response_in" in asked)
                os.remove(f"{self.root}/Keldwick.log")

    def test_damage_is_marked_and_costs_no_other_message(self):
        good, other, reply = request(), request(3), answer(2)
        cases = (  # what it is, from the client, from the server, marks of the requests and then of the answers
            ("nothing wrong", [good, other], [reply, answer(3)], [[], []], [[], []]),
            ("two in a segment", [good + other], [], [[], ["unanswered"]], []),
            ("a length too small", [request(stated=77), other], [], [["wrong_length"], ["unanswered"]], []),
            ("a length too large", [request(stated=79), other], [], [["wrong_length"], ["unanswered"]], []),
            ("too large, another after it", [request(stated=79) + other], [], [["wrong_length"], ["unanswered"]], []),
            ("a name too long", [changed(good, 58, b"\1\0"), other], [], [["wrong_length"], ["unanswered"]], []),
            ("too long, another after it", [changed(good, 58, b"\1\0") + other], [], [["wrong_length"], ["unanswered"]], []),
            ("a name too short", [changed(good, 58, b"\0\1"), other], [], None, []),
            ("a constant", [changed(good, 18, b"\2"), other], [], [["wrong_value"], ["unanswered"]], []),
            ("a kind", [good[:-1] + b"x", other], [], [["wrong_value"], ["unanswered"]], []),
            ("an address version", [changed(good, 19, b"\5") + other], [], [["wrong_value"], ["unanswered"]], []),
            ("a mask", [changed(good, 12, b"\x0e\x8e") + other], [], [["wrong_value"], ["unanswered"]], []),
            ("a format", [changed(good, 3, b"\4"), other], [], [["wrong_value"], ["unanswered"]], []),
            ("no beginning", [good[20:], other], [], [["stray"], []], []),
            ("groups only counted", [request(stated=79)[:-3] + b"\0\5\0 ", other], [], [["groups_not_sent"], ["unanswered"]], []),
            ("an answer too short", [good, other], [reply[:13], answer(3)], [[], ["unanswered"]], None),
            ("an answer too long", [good], [reply + b"x"], [[]], [[], ["wrong_length"]]),
            ("a length the other way round", [good], [changed(reply, 0, b"\x0e\0")], [[]], [["wrong_length"]]),
            ("an answer's code", [good], [answer(2, code=0x10)], [[]], [["wrong_value"]]),
            ("an answer nobody asked for", [good], [answer(9)], [[]], [["unasked"]]),
            ("an answer in pieces", [good], [reply[:9], reply[9:]], [[]], [["pieces"]]),
            ("a late answer", [good, other], [reply, answer(3)], [[], ["unanswered"]], [["late"], []]),
        )
        exchange = []
