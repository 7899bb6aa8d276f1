"""Look-ups in a real Active Directory, Samba's, in a network namespace of its own: what keldwickctl and the agent find is
compared with what ldapsearch and samba-tool say. Needs root, for the namespace."""
import base64
import concurrent.futures
import ctypes
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest
from datetime import datetime

from machine import BIN, PATIENCE, MachineTest, text_of
from wire import Server, certificate

SCRIPT = f"{os.path.dirname(os.path.abspath(__file__))}/samba-dc"
BASE = "DC=corp,DC=example,DC=com"
CLONE_NEWNET = 0x40000000


class DomainController:
    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="keldwick-dc-")
        try:
            self.script("start")
            self.script("populate")
            self.env = dict(re.findall(r"^(\w+)='?([^'\n]*)'?$", text_of(f"{self.folder}/env"), re.M))
        except BaseException:
            self.close()
            raise

    def script(self, command, *arguments):
        done = subprocess.run([SCRIPT, command, self.folder, *arguments], capture_output=True, text=True, timeout=180)
        if done.returncode:
            raise RuntimeError(f"samba-dc {command}: {done.stdout}{done.stderr}")
        return done.stdout

    def inside(self, function):
        """Runs the function with the namespace's network: sockets made there stay there."""
        def run():
            with open(f"/proc/{int(text_of(f'{self.folder}/run/dc.pid'))}/ns/net", encoding="utf-8") as namespace:
                if ctypes.CDLL(None, use_errno=True).setns(namespace.fileno(), CLONE_NEWNET):
                    raise OSError(ctypes.get_errno(), "setns")
            return function()

        with concurrent.futures.ThreadPoolExecutor(1) as thread:
            return thread.submit(run).result()

    def close(self):
        subprocess.run([SCRIPT, "stop", self.folder], capture_output=True, timeout=60)
        shutil.rmtree(self.folder, ignore_errors=True)


class Truth:
    """The directory as ldapsearch shows it, and the groups of a user by the rule alone: the primary group first, then
    each membership, every group followed at once by its own, none twice."""

    def __init__(self, controller):
        text = controller.script("run", "ldapsearch", "-LLL", "-x", "-o", "ldif-wrap=no", "-H",
                                 controller.env["DC_LDAPI_SYSTEM"], "-b", BASE, "(objectSid=*)", "sAMAccountName", "memberOf",
                                 "primaryGroupID", "objectSid")
        self.objects, self.by_sid = {}, {}
        for block in text.split("\n\n"):
            values = {}
            for name, encoded, value in re.findall(r"^(\w+):(:?) (.*)$", block, re.M):
                values.setdefault(name, []).append(base64.b64decode(value) if encoded else value.encode())
            if "dn" in values:
                dn = values["dn"][0].decode()
                self.objects[dn] = values
                self.by_sid[values["objectSid"][0]] = dn

    def nt4_name(self, dn):
        domain = "BUILTIN" if dn.endswith(f",CN=Builtin,{BASE}") else "CORP"
        return f"{domain}\\{self.objects[dn]['sAMAccountName'][0].decode()}"

    def dn(self, account):
        return next(dn for dn, values in self.objects.items() if values.get("sAMAccountName") == [account.encode()])

    def groups(self, account):
        found = []

        def add(dn):
            if dn not in found:
                found.append(dn)
                for parent in self.objects[dn].get("memberOf", []):
                    add(parent.decode())

        user = self.objects[self.dn(account)]
        add(self.by_sid[user["objectSid"][0][:-4] + int(user["primaryGroupID"][0]).to_bytes(4, "little")])
        for parent in user.get("memberOf", []):
            add(parent.decode())
        return [(self.nt4_name(dn), dn) for dn in found]


def setUpModule():
    global DC, TRUTH
    DC = DomainController()
    unittest.addModuleCleanup(DC.close)
    DC.script("crowd")
    TRUTH = Truth(DC)


class InTheDomain(MachineTest):
    def ctl(self, *arguments, code=0, text=None):
        done = subprocess.run([SCRIPT, "run", DC.folder, f"{BIN}/keldwickctl", "--root", self.root, *arguments], input=text,
                              capture_output=True, text=True, timeout=60)
        self.assertEqual(code, done.returncode, f"keldwickctl {arguments}: {done.stdout}{done.stderr}")
        return done.stdout if code == 0 else done.stderr

    def use(self, **settings):
        for name, value in settings.items():
            self.ctl("settings", "set", f"Linux\\Directory{name}", str(value))

    def lookup(self, name):
        return json.loads(self.ctl("directory", "lookup", "--json", name))


class Lookups(InTheDomain):
    def setUp(self):
        super().setUp()
        self.ctl("init")
        self.use(Uri=DC.env["DC_LDAPI_SYSTEM"])

    def test_every_account_is_found_with_the_groups_that_ldapsearch_shows(self):
        for account in ("ann", "bob", "dora", "eve", "zoë", "WS01$", "Administrator", "many"):
            with self.subTest(account=account):
                found = self.lookup(f"corp\\{account}")
                self.assertEqual(TRUTH.dn(account), found["dn"])
                self.assertEqual(TRUTH.groups(account), [(group["domain"], group["dn"]) for group in found["groups"]])
        self.assertGreater(len(TRUTH.groups("many")), 2000)
        self.assertEqual(TRUTH.groups("bob")[0][0], "CORP\\contractors", "a primary group of his own")
        self.assertTrue({"CORP\\opsnet", "CORP\\plusminus", "CORP\\sayhi", "CORP\\größe"} <= {
            name for name, _ in TRUTH.groups("dora")})

    def test_hostile_and_unknown_names_find_nobody(self):
        for name in ("CORP\\*", "CORP\\*)(objectClass=*", "CORP\\nobody", "NOWHERE\\ann", "CORP\\", "CORP\\" + "a" * 1000,
                     "CORP\\ann\\", "*@corp.example.com", "ann@*", "ann@nowhere.example", "ann", "@", "CORP\\a\x01\\2a"):
            with self.subTest(name=name):
                self.assertIn("(0x80072116)", self.ctl("directory", "lookup", name, code=1))


class Binds(InTheDomain):
    def setUp(self):
        super().setUp()
        self.ctl("init")

    def check(self, wanted):
        """wanted: an identity, or (error code, a word of the reason)."""
        if isinstance(wanted, str):
            shown = self.ctl("directory", "check")
            self.assertIn(f"this is {wanted}\n", shown)
            self.assertIn("CORP (corp.example.com)", shown)
            self.assertIn("ou", self.lookup("CORP\\ann"))
        else:
            error = self.ctl("directory", "check", code=1)
            self.assertEqual([], [word for word in wanted if word not in error], error)

    def test_by_name_and_password_over_tls_only(self):
        host, user = DC.env["DC_HOST"], DC.env["DC_ADMIN"]
        password, wrong = DC.env["DC_ADMIN_PASSWORD"], ("0x8007052e",)
        self.use(Uri=f"ldaps://{host}", Bind="simple", User=user, CaFile=DC.env["DC_CA"])
        for settings, secret, mode, wanted in (
                ({}, password, 0o600, user), ({}, password, 0o640, ("0x80070005", "refused")), ({}, "wrong", 0o600, wrong),
                ({}, "", 0o600, wrong), ({"CaFile": certificate(self.root)[0]}, password, 0o600, ("0x8007203a", "TLS")),
                ({"CaFile": f"{self.root}/no-file"}, password, 0o600, ("0x8007203a", "cannot be read", "no-file")),
                ({"CaFile": DC.env["DC_CA"], "Uri": f"ldap://{host}"}, password, 0o600, ("StartTls",)),
                ({"StartTls": 1}, password, 0o600, user)):
            with self.subTest(settings=settings, mode=oct(mode), secret=secret):
                with open(f"{self.root}/password", "w", encoding="utf-8") as file:
                    file.write(secret + "\n")
                os.chmod(file.name, mode)
                self.use(PasswordFile=file.name, **settings)
                self.check(wanted)

    def test_by_keytab_to_a_named_server_and_to_those_of_dns(self):
        keytab = f"{self.root}/agent.keytab"
        self.use(Uri=f"ldap://{DC.env['DC_HOST']}", Keytab=keytab)
        self.check(("0x8007052e",))
        DC.script("run", "samba-tool", "domain", "exportkeytab", keytab, "--principal=DC1$",
                  f"--configfile={DC.folder}/etc/smb.conf")
        self.check("DC1$@CORP.EXAMPLE.COM")
        self.use(Uri="", Domain="corp.example.com")
        self.check("DC1$@CORP.EXAMPLE.COM")
        self.ctl("settings", "set", "AdServer", DC.env["DC_HOST"])
        self.assertEqual(TRUTH.dn("ann"), self.lookup("CORP\\ann")["dn"])
        self.use(Domain="nowhere.example")
        self.check(("0x8007203a", "_ldap._tcp.dc._msdcs.nowhere.example"))


class LiveLogons(InTheDomain):
    """Users log on to the domain controller from workstations; its audit log is fed to the agent."""
    NTLM = ("smbclient", "//dc1.corp.example.com/sysvol", "--use-kerberos=off", "-n", "WS01", "-c", "ls")
    KERBEROS = 'echo "$1" | kinit "$2" >&2 && smbclient //dc1.corp.example.com/sysvol --use-kerberos=required -c ls'

    def setUp(self):
        super().setUp()
        self.server = DC.inside(lambda: Server("127.0.0.1"))
        self.addCleanup(self.server.close)
        self.prepare()
        self.use(Uri=DC.env["DC_LDAPI_SYSTEM"])
        self.audit = DC.env["DC_AUTH_LOG"]
        self.ctl("feed", "samba-audit", self.audit, "--once")  # what other tests left is no matter here
        self.start("-A", "-V", through=(SCRIPT, "run", DC.folder))
        self.feed = self.begin(f"{BIN}/keldwickctl", "feed", "samba-audit", self.audit)

    def log_on(self, address, *command):
        """Runs the command on the workstation with that address. Gives its reports with the time that each came at."""
        process = subprocess.Popen([SCRIPT, "ws", DC.folder, address, *command], stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True)
        report = self.server.next(timeout=PATIENCE)
        heard = time.time()
        said, _ = process.communicate(timeout=PATIENCE)
        self.assertEqual(0, process.returncode, said)
        self.assertEqual(("logon", address), (report["kind"], report["address"]))
        return report, heard

    def audited(self, address):
        """When the controller wrote its first line about a successful logon from the address."""
        with open(self.audit, encoding="utf-8") as file:
            for line in file:
                event = json.loads(line)
                fields = event[event["type"]]
                if fields["remoteAddress"].startswith(f"ipv4:{address}:") and fields.get("status", "NT_STATUS_OK") == "NT_STATUS_OK":
                    return datetime.fromisoformat(event["timestamp"]).timestamp()
        return self.fail(f"no line about {address}")

    def test_a_logon_over_ntlm_or_kerberos_is_one_report_with_groups_within_a_second(self):
        delays = []
        for number, (user, ntlm) in enumerate((("ann", True), ("bob", False), ("zoë", True), ("dora", False))):
            address, password = f"10.53.57.{20 + number}", DC.env["DC_USER_PASSWORD"]
            with self.subTest(user=user):
                command = ((*self.NTLM, "-U", f"CORP\\{user}%{password}") if ntlm
                           else ("sh", "-c", self.KERBEROS, "sh", password, f"{user}@{DC.env['DC_REALM']}"))
                report, heard = self.log_on(address, *command)
                self.assertEqual((f"CORP\\{user}", TRUTH.dn(user)), report["user"][:2])
                self.assertEqual(TRUTH.groups(user), report["groups"])
                if ntlm:
                    self.assertEqual(("CORP\\WS01", TRUTH.dn("WS01$")), report["computer"][:2])
                delays.append(heard - self.audited(address))
        self.assertLess(max(delays), 1, delays)
        said, complaint = self.end(self.feed)
        self.assertEqual("", complaint, said)
        self.assertIn("4 records written to the Security log", said, "a ticket and the session it opens are one logon")
        self.until(lambda: len(self.ctl("identities", "--json").splitlines()) == 4, "four are listed")
