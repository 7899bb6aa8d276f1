"""An identity server of the tests' own, written from the protocol alone: decodes requests field by field and answers as a
script tells it. It shares no code with the agent or the reference server."""
import contextlib
import queue
import socket
import ssl
import struct
import subprocess
import threading


def decode(message):
    """The fields of one request as a dictionary; ValueError where a byte is not what the protocol says."""
    at = 0

    def take(count):
        nonlocal at
        if at + count > len(message):
            raise ValueError(f"cut short at {at}")
        at += count
        return message[at - count:at]

    def text():
        units = struct.unpack(">H", take(2))[0]
        return take(2 * units).decode("utf-16-le", "surrogatepass")

    def expect(value, wanted, what):
        if value != wanted:
            raise ValueError(f"{what}: {value!r}, not {wanted!r}")

    length, form, code, ident, mask = struct.unpack(">HHHII", take(14))
    expect(length, len(message) & 0xFFFF, "length")
    expect((form, code), (3, 0x10), "format and code")
    expect(take(5), b"\x02\0\0\0\1", "constants")
    version = take(1)[0]
    address = {4: lambda: socket.inet_ntop(socket.AF_INET, take(4)),
               6: lambda: socket.inet_ntop(socket.AF_INET6, take(16)), 0: lambda: ""}[version]()
    expect(take(4), b"\x13\1\2\5", "agent version")
    fields = {"id": ident, "mask": mask, "address": address, "os": tuple(take(3))}
    expect(mask & ~0x1F8, 0xE06, "mask")
    for block, bits in (("computer", 0x38), ("user", 0x1C0)):
        if mask & bits:
            expect(mask & bits, bits, f"{block} mask")
            fields[block] = (text(), text(), text())
    count = struct.unpack(">H", take(2))[0]
    if count:
        expect(take(1), b"\0", "group separator")
    fields["groups"] = [(text(), text()) for _ in range(count)]
    fields["kind"] = {0x20: "logon", 0x30: "heartbeat", 0x21: "logoff"}[take(1)[0]]
    expect(at, len(message), "end")
    return fields


def encode(ident, address, user=("", "", ""), computer=("", "", ""), groups=(), kind="logon"):
    """One request of an IPv4 address with a user block and a computer block (name, DN, OU), as decode() reads it."""
    def text(value):
        units = value.encode("utf-16-le", "surrogatepass")
        return struct.pack(">H", len(units) // 2) + units

    body = struct.pack(">I", 0xFFE) + b"\x02\0\0\0\1\4" + socket.inet_aton(address) + b"\x13\1\2\5\x0c\x0a\0"
    body += b"".join(map(text, (*computer, *user))) + struct.pack(">H", len(groups)) + (b"\0" if groups else b"")
    body += b"".join(text(name) + text(dn) for name, dn in groups)
    body += bytes([{"logon": 0x20, "heartbeat": 0x30, "logoff": 0x21}[kind]])
    return struct.pack(">HHHI", len(body) + 10 & 0xFFFF, 3, 0x10, ident) + body


def answer(ident, status=0, code=0x8010):
    return struct.pack(">HHHII", 14, 3, code, ident, status)


def certificate(folder):
    """A self-signed certificate and its key below folder, as file names."""
    cert, key = f"{folder}/server.crt", f"{folder}/server.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", key, "-out", cert, "-subj", "/CN=identity.example", "-days", "2"],
                   check=True, capture_output=True)
    return cert, key


class Server:
    """Serves one loopback address on the agent's two ports. `reply(connection, request, fields)` decides what happens to
    each request; the default answers it. Requests come out of `next()`, in order."""

    def __init__(self, address, tls_files=None, reply=None):
        self.address, self.requests, self.accepted = address, queue.Queue(), queue.Queue()
        self.reply = reply or (lambda connection, _request, fields: connection.sendall(answer(fields["id"])))
        self.listeners, self.connections, self.tls = [], [], None
        if tls_files:
            self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self.tls.load_cert_chain(*tls_files)
        for port in (1306, 1308) if tls_files else (1306,):
            self.listeners.append(socket.create_server((address, port)))
            threading.Thread(target=self.accept, args=(self.listeners[-1], port == 1308), daemon=True).start()

    def accept(self, listener, secure):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                threading.Thread(target=self.serve, args=(connection, secure), daemon=True).start()

    def serve(self, connection, secure):
        try:
            if secure:
                connection = self.tls.wrap_socket(connection, server_side=True)
            self.connections.append(connection)
            self.accepted.put("tls" if secure else "plain")
            while request := self.read_request(connection):
                fields = decode(request)
                self.requests.put((request, fields))
                self.reply(connection, request, fields)
        except ValueError as error:
            self.requests.put((request, {"bad": str(error)}))
        except OSError:
            pass
        finally:
            connection.close()

    @staticmethod
    def read_request(connection):
        """One request, read to the length it states (none here is above 64 KiB), and not a byte of the next."""
        data, wanted = b"", 2
        while len(data) < wanted:
            piece = connection.recv(wanted - len(data))
            if not piece:
                return b""
            data += piece
            if len(data) == 2:
                wanted = max(2, struct.unpack(">H", data)[0])
        return data

    def next(self, timeout=15):
        return self.requests.get(timeout=timeout)[1]

    def close(self):
        """Connections are closed by those who serve them: their descriptors must not be another's while they write."""
        for socket_ in self.listeners + self.connections:
            with contextlib.suppress(OSError):
                socket_.shutdown(socket.SHUT_RDWR)
        for listener in self.listeners:
            listener.close()
