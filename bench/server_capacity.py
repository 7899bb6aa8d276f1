#!/usr/bin/env python3
"""What one identity server holds: KELDWICK_BIN=build/release/bin bench/server_capacity.py [--identities N] [--agents N] [--groups N]

Different users log on at different addresses over several connections, as fast as the server answers; it prints JSON lines into a file. Prints
reports a second and the server's memory beside the number of identities, once without the page and once with it, where it remembers them."""
import argparse
import os
import socket
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../tests/system"))
from wire import encode  # noqa: E402

HOST, HTTP_PORT = "127.73.0.1", 8306
parser = argparse.ArgumentParser()
parser.add_argument("--identities", type=int, default=50_000)
parser.add_argument("--agents", type=int, default=10, help="connections")
parser.add_argument("--groups", type=int, default=20, help="of each user")
options = parser.parse_args()


def logon(number):
    name, unit = f"user{number}", "OU=People,DC=office,DC=example"
    groups = [(f"OFFICE\\group{each}", f"CN=group{each},OU=Groups,DC=office,DC=example") for each in range(options.groups)]
    return encode(number % 2**32, f"10.{number >> 16 & 255}.{number >> 8 & 255}.{number & 255}",
                  (f"OFFICE\\{name}", f"CN={name},{unit}", "People"), (f"OFFICE\\WS{number}", f"CN=WS{number},{unit}", "People"), groups)


def agent(numbers):
    with socket.create_connection((HOST, 1306)) as link:
        for first in range(0, len(numbers), 100):
            part = numbers[first:first + 100]
            link.sendall(b"".join(map(messages.__getitem__, part)))
            left = 14 * len(part)
            while left:
                got = len(link.recv(left))
                assert got, "the server has closed the connection"
                left -= got


def memory(process):
    with open(f"/proc/{process.pid}/smaps_rollup", encoding="ascii") as file:
        return int(next(line for line in file if line.startswith("Rss:")).split()[1]) * 1024


def processor_time(process):
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as file:
        return sum(map(int, file.read().rpartition(")")[2].split()[11:13])) / os.sysconf("SC_CLK_TCK")


messages = [logon(number) for number in range(options.identities)]
print(f"{options.identities} identities, {options.groups} groups each, {sum(map(len, messages)) // len(messages)} bytes a report, "
      f"{options.agents} connections; load average before {os.getloadavg()[0]:.1f}")
for name, extra in (("without the page", []), ("with the page", ["--http", f"{HOST}:{HTTP_PORT}"])):
    with tempfile.TemporaryFile() as lines:
        server = subprocess.Popen([f"{os.environ['KELDWICK_BIN']}/keldwick-server", "--host", HOST, "--tls-port", "0", "--json", *extra],
                                  stdout=lines, stderr=subprocess.PIPE, text=True)
        try:
            for said in ["listening on", "the page is at"][:1 + bool(extra)]:
                while said not in (line := server.stderr.readline()):
                    assert line, "the server has ended"
            before, begun = memory(server), time.monotonic()
            with ThreadPoolExecutor(options.agents) as pool:
                list(pool.map(agent, [range(which, options.identities, options.agents) for which in range(options.agents)]))
            took, grown = time.monotonic() - begun, memory(server) - before
            print(f"{name}: {options.identities / took:.0f} reports a second, {processor_time(server) * 1e6 / options.identities:.0f} us of the "
                  f"server's time each; {before / 2**20:.1f} MiB at first, {grown / 2**20:.1f} MiB more ({grown / options.identities:.0f} bytes an identity)")
        finally:
            server.terminate()
            server.communicate()
