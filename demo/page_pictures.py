"""page_pictures.py BIN: makes the pictures of the server's page in docs/, in a headless browser, from half a minute of an
invented company."""
import random
import socket
import subprocess
import sys
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(SOURCE / "tests/system"))
from browser import Browser  # noqa: E402
from wire import encode  # noqa: E402

HOST, URL = "127.53.0.2", "http://127.53.0.2:8306/"
FIRST = "anna bernd carla dmitri elena fatima george hanna igor julia karim lena marco nadia omar paula quentin rosa sven tara".split()
LAST = "archer bauer conti dahl ek farouk gruber haas ivanov jansen khan lindt moreau novak ortiz petrov".split()
OFFICES = ("Sales", "Research", "Finance", "Support", "Works")


def person(number, kind):
    first, last = FIRST[number % len(FIRST)], LAST[number // len(FIRST) % len(LAST)]
    office = OFFICES[number % len(OFFICES)]
    name, base = f"{first.title()} {last.title()}", "DC=office,DC=example"
    groups = [(f"OFFICE\\{group}", f"CN={group},OU=Groups,{base}") for group in (office, "Everyone", "VPN", "Printing 2nd floor")]
    return encode(number + 2, f"10.20.{number // 250}.{number % 250 + 2}",
                  (f"OFFICE\\{first}.{last}", f"CN={name},OU={office},OU=Staff,{base}", f"{office}.Staff"),
                  (f"OFFICE\\WS-{number:04}", f"CN=WS-{number:04},OU=Workstations,{base}", "Workstations"), groups[:2 + number % 3], kind)


def report(agents, seconds):
    """Some reports a second, more towards the middle, from each agent."""
    chance, number = random.Random(7), 0
    for tick in range(10 * seconds):
        for agent in agents:
            for _ in range(chance.randrange(1 + int(8 - abs(tick / seconds - 5)))):
                kind = chance.choices(("logon", "heartbeat", "logoff"), (6, 5, 1))[0]
                number += kind == "logon"
                agent.sendall(person(number if kind == "logon" else chance.randrange(number + 1), kind))
                agent.recv(14)
        time.sleep(0.1)


def main():
    server = subprocess.Popen([f"{sys.argv[1]}/keldwick-server", "--host", HOST, "--tls-port", "0", "--http", f"{HOST}:8306"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    while "the page is at" not in server.stderr.readline():
        pass
    browser = Browser()
    try:
        agents = [socket.create_connection((HOST, 1306), source_address=(f"127.20.0.{number}", 0)) for number in (1, 2, 3)]
        browser.size(1440, 760)
        browser.scheme("light")
        browser.open(URL)
        report(agents, 30)
        socket.create_connection((HOST, 1306), source_address=("127.20.0.9", 0)).sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
        report(agents, 1)
        browser.until("document.querySelector('#reports .refused') && document.querySelectorAll('#agents li').length > 3")
        time.sleep(1.5)  # the rows of now
        browser.picture(f"{SOURCE}/docs/page-light.png")
        browser.scheme("dark")
        browser.click("#reports .logoff button")
        browser.until("document.querySelector('#details .fields')")
        browser.picture(f"{SOURCE}/docs/page-dark.png")
        browser.press("Escape")
        browser.size(390, 720, mobile=True)
        time.sleep(0.5)
        browser.picture(f"{SOURCE}/docs/page-phone.png")
    finally:
        browser.close()
        server.terminate()
        server.wait()


if __name__ == "__main__":
    main()
