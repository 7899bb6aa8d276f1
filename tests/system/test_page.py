"""The server's page in a real browser, and the server's HTTP side before clients that are no browser."""
import contextlib
import http.client
import json
import socket
import subprocess

from browser import Browser
from machine import PATIENCE, MachineTest
from wire import encode

HOST, PORT = "127.81.0.1", 8306
HOSTILE = ("<img src=x onerror=\"window.hit=1\">", "<script>window.hit=2</script>", "\u202egnp.exe\u2066\u200b\u3164\U000e0041", "\"'&amp;${1}`\\",
           "</span><b>bold", "javascript:window.hit=3")
SHOWN = (*HOSTILE[:2], "\\u202egnp.exe\\u2066\\u200b\\u3164\\udb40\\udc41", *HOSTILE[3:])


class ServerTest(MachineTest):
    address = HOST

    def setUp(self):
        super().setUp()
        self.server = self.keldwick_server("--http", f"{HOST}:{PORT}", stdout=subprocess.DEVNULL)

    def report(self, *requests):
        """Sends the requests over one connection, which then ends; all are answered."""
        with socket.create_connection((HOST, 1306), timeout=PATIENCE) as agent, agent.makefile("rb") as heard:
            agent.sendall(b"".join(requests))
            self.assertEqual(14 * len(requests), len(heard.read(14 * len(requests))))

    def user(self, number, kind="logon"):
        name = f"user{number:05}"
        return encode(number + 1, f"10.0.{number >> 8}.{number & 255}", (f"CORP\\{name}", f"CN={name},OU=People", "OU=People"),
                      (f"CORP\\WS{number:05}", f"CN=WS{number:05}", ""), [("CORP\\Staff", "CN=Staff"), ("CORP\\Night", "CN=Night")], kind)

    def get(self, path, headers=None, method="GET", source="127.0.0.1"):
        """Status and body."""
        connection = http.client.HTTPConnection(HOST, PORT, timeout=PATIENCE, source_address=(source, 0))
        with contextlib.closing(connection):
            connection.request(method, path, headers=headers or {})
            answer = connection.getresponse()
            return answer.status, answer.read().decode()


class Page(ServerTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.browser = Browser(PATIENCE)
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        super().setUp()
        self.browser.complaints.clear()
        self.browser.size(1280, 760)
        self.browser.scheme("light")
        self.browser.open(f"http://{HOST}:{PORT}/")
        self.browser.run("localStorage.clear()")
        self.browser.open(f"http://{HOST}:{PORT}/")
        self.browser.until("document.querySelector('#live').textContent == 'live'")

    def tearDown(self):
        thrown = [each for each in self.browser.complaints if "503" not in each]  # which a server with sanitizers may answer: the page asks again
        self.assertEqual([], thrown, "nothing was thrown, and no policy was broken")
        self.browser.open("about:blank")

    def search(self, text, *addresses):
        """Types the text and waits until the identities at the addresses are left, in that order; gives their rows."""
        self.browser.press("/")
        self.browser.type(text)
        self.browser.until("[...document.querySelectorAll('#scroller .address')].map(cell => cell.textContent).join() == "
                           f"'{','.join(addresses)}'")
        return self.browser.run("[...document.querySelectorAll('#scroller .row')].map(row => [...row.children].map(cell => cell.textContent))")

    def test_five_thousand_logons_arrive_and_search_finds_one(self):
        browser = self.browser
        self.report(*map(self.user, range(5000)))
        browser.until("Number(document.querySelector('#identities').textContent.replace(',', '')) >= 5000")
        row, = self.search("night WS04321", "10.0.16.225")
        self.assertEqual(["CORP\\user04321", "10.0.16.225", "CORP\\WS04321", "CN=user04321,OU=People", "CORP\\Staff, CORP\\Night"], row[:5])
        self.assertRegex(row[7], r"^127\.0\.0\.1:\d+$")
        browser.press("Enter")
        browser.press("Enter")
        browser.until("document.querySelector('#details').open")
        self.assertIn("CORP\\Night (CN=Night)", browser.run("document.querySelector('#details-body').innerText"))
        browser.press("Escape")
        browser.until("!document.querySelector('#details').open")
        browser.press("/")
        browser.press("Escape")
        browser.until("document.querySelectorAll('#scroller .row').length > 10")
        browser.click("[data-sort=user]")
        browser.run("document.querySelector('#scroller').focus()")
        browser.press("End")
        browser.until("[...document.querySelectorAll('#scroller .row.chosen .user')].some(cell => cell.textContent == 'CORP\\\\user04999')",
                      "the last row, chosen")
        self.assertLess(browser.run("document.querySelectorAll('#scroller .row').length"), 60, "only what can be seen is made")

    def test_hostile_names_show_as_text(self):
        addresses = [f"10.9.0.{number}" for number in range(len(HOSTILE))]
        self.report(*(encode(1, address, (name, f"CN={name}", name), (name, name, name), [(name, name)])
                      for address, name in reversed(list(zip(addresses, HOSTILE)))))
        rows = self.search("10.9.0.", *addresses)
        self.browser.press("Enter")
        for row, shown in zip(rows, SHOWN):
            self.assertEqual([shown, shown, f"CN={shown}", shown], [row[0], *row[2:5]])
            self.browser.press("Enter")
            self.browser.until("document.querySelector('#details').open")
            self.assertEqual(9, self.browser.run("document.querySelector('#details').innerText").count(shown), shown)
            self.browser.press("Escape")
            self.browser.until("!document.querySelector('#details').open")
            self.browser.press("ArrowDown")
        self.assertEqual([None, 0], self.browser.run(
            "[window.hit ?? null, document.querySelectorAll('main img, main script, dialog script, dialog img, main b:not(.status)').length]"))

    def test_logoffs_and_refusals_are_marked(self):
        self.report(self.user(1), self.user(1, "logoff"))
        with socket.create_connection((HOST, 1306), timeout=PATIENCE) as stranger:
            stranger.sendall(b"GET / HTTP/1.1\r\n\r\n")
            self.assertEqual(b"", stranger.recv(1))
        self.browser.until("document.querySelector('#reports .refused') && document.querySelector('#reports .logoff')")
        self.browser.click("#reports .refused button")
        self.browser.until("document.querySelector('#details .wrong')")
        self.assertIn("the format is not 3", self.browser.run("document.querySelector('#details .wrong').innerText"))

    def test_light_dark_and_a_phone(self):
        back = "getComputedStyle(document.body).backgroundColor"
        light = self.browser.run(back)
        self.browser.scheme("dark")
        self.browser.until(f"{back} != '{light}'", "dark as the system is")
        self.browser.press("t")
        self.assertEqual(light, self.browser.run(back), "light by the switch")
        self.browser.open(f"http://{HOST}:{PORT}/")
        self.assertEqual(light, self.browser.run(back), "the choice is kept")
        self.report(self.user(1))
        self.browser.size(390, 760, mobile=True)
        self.browser.open(f"http://{HOST}:{PORT}/")
        self.browser.until("document.querySelectorAll('#scroller .row').length > 0")
        self.assertLessEqual(self.browser.run("document.documentElement.scrollWidth"), 390)
        self.browser.click("[data-shows=reports]")
        self.browser.until("document.querySelector('#reports li')?.getBoundingClientRect().width > 300")

    def test_a_page_out_of_view_takes_no_stream(self):
        browser = self.browser
        for text in ("not in view", "live") * 7:  # a browser has six connections to one server
            browser.run(f"Object.defineProperty(document, 'hidden', {{value: {str(text != 'live').lower()}, configurable: true}}), "
                        "document.dispatchEvent(new Event('visibilitychange'))")
            browser.until(f"document.querySelector('#live').textContent == '{text}'")

    def test_what_is_left_out_is_counted_and_the_clock_may_be_set(self):
        browser = self.browser
        self.report(self.user(1))
        browser.until("!reports.early && reports.list.length")
        self.assertEqual("and 9 more", browser.run(
            "takeReports([{...reports.list[0], number: reports.newest + 10}]), document.querySelector('#reports .gap').textContent"))
        browser.until("seconds.size")
        self.assertLessEqual(browser.run("takeSeconds([{...[...seconds.values()][0], at: 1e10}], Date.now()), chart.last"), 9e9)
        browser.run("""(first => Promise.all([begin(first), begin(first)]))({data: JSON.stringify({
            time: new Date(), seconds: [], version: 1, identities: 0, connections: 0, logons: 0, logoffs: 0, refusals: 0})})""")
        browser.until("!reports.early")
        self.search("1 2 3 4 5 6 7 8 9")
        browser.until("document.querySelector('#nobody').textContent.includes('at most 8 words')")
        browser.complaints.clear()  # the answers to that search

    def test_the_page_comes_back_with_the_server(self):
        self.end(self.server)
        self.browser.until("document.querySelector('#live').className == 'off'")
        self.keldwick_server("--http", f"{HOST}:{PORT}", stdout=subprocess.DEVNULL)
        self.browser.until("document.querySelector('#live').textContent == 'live'")
        self.report(self.user(77))
        self.browser.until("document.querySelector('#scroller .user')?.textContent == 'CORP\\\\user00077'")
        self.browser.complaints.clear()  # the stream that broke off


class Http(ServerTest):
    def test_who_may_not_ask_is_refused(self):
        for status, headers in ((200, {}), (200, {"Host": "localhost:8306"}), (200, {"Host": "[::1]"}), (421, {"Host": "evil.example"}),
                                (421, {"Host": "127.0.0.1.evil.example:8306"}), (403, {"Sec-Fetch-Site": "cross-site"}),
                                (403, {"Sec-Fetch-Site": "same-site", "Sec-Fetch-Mode": "cors"}),
                                (200, {"Sec-Fetch-Site": "same-origin"}), (431, {"X-Long": "x" * 40_000})):
            with self.subTest(headers=str(headers)[:80]):
                self.assertEqual(status, self.get("/api/reports", headers)[0])
        self.assertEqual(405, self.get("/api/reports", method="DELETE")[0])
        self.assertEqual(404, self.get("/../etc/passwd")[0])
        connection = http.client.HTTPConnection(HOST, PORT, timeout=PATIENCE)
        self.addCleanup(connection.close)
        for status, body in ((200, None), (200, None), (413, b"x" * 100_000)):
            connection.request("GET", "/metrics", body=body)
            answer = connection.getresponse()
            self.assertEqual((status, status == 413), (answer.status, answer.getheader("Connection") == "close"))
            answer.read()

    def test_silent_clients_and_readers_that_do_not_read_keep_nobody_out(self):
        stranger, clients = "127.81.0.66", contextlib.ExitStack()
        self.addCleanup(clients.close)

        def connect(count):
            made = [socket.create_connection((HOST, PORT), PATIENCE, (stranger, 0)) for _ in range(count)]
            return [clients.enter_context(each) for each in made]

        streams = connect(40)
        for each in streams:
            each.sendall(b"GET /api/stream HTTP/1.1\r\nHost: localhost\r\n\r\n")
        heads = [each.recv(12) for each in streams]
        self.assertEqual((24, 16), (heads.count(b"HTTP/1.1 200"), heads.count(b"HTTP/1.1 503")))
        for each in connect(250):
            with contextlib.suppress(OSError):  # it was ended to make room
                each.sendall(b"GET")
        self.report(*map(self.user, range(3000)))
        self.until(lambda: json.loads(self.get("/api/identities?limit=1", source=stranger)[1]).get("total", 0) >= 3000, "all identities")

    def test_what_programs_ask_for_fits_together(self):
        self.report(*map(self.user, range(40)), *(self.user(number, "heartbeat") for number in range(5)))
        self.until(lambda: self.get("/api/agents")[1].count('"reports":45,') == 1, "the page learns of them after their answers")
        answer = json.loads(self.get("/api/identities?search=user000&sort=address&order=asc&limit=7&offset=14")[1])
        self.assertEqual([f"CORP\\user{number:05}" for number in range(14, 21)], [each["user"] for each in answer["identities"]])
        self.assertEqual(21, answer["next"])
        one = json.loads(self.get(f"/api/identities/{answer['identities'][0]['number']}")[1])
        connection = one["from"].pop()["connection"]
        answer["identities"][0]["from"].clear()
        self.assertEqual(answer["identities"][0], one)
        self.assertEqual({"domain": "CORP\\Night", "dn": "CN=Night"}, one["groups"][1])
        agents = json.loads(self.get("/api/agents")[1])["agents"]
        self.assertEqual(agents[0]["connection"], connection)
        self.assertEqual((45, 40), (agents[0]["reports"], agents[0]["identities"]))
        report = json.loads(self.get("/api/reports?limit=1")[1])["reports"][0]
        laid = json.loads(self.get(f"/api/reports/{report['number']}")[1])
        self.assertEqual(("heartbeat", report["length"]), (report["kind"], sum(field["length"] for field in laid["fields"])))
        checked = subprocess.run(["promtool", "check", "metrics"], input=self.get("/metrics")[1], text=True, capture_output=True)
        self.assertEqual((0, ""), (checked.returncode, checked.stdout + checked.stderr))
