"""Servers with certificates of every kind, as Keldwick.exe and the agent on Linux see them: both report to each that shows one, and
log the same except for the words of their systems."""
import hashlib
import os
import re
import ssl
import struct
import subprocess
from pathlib import Path
from ssl import TLSVersion as Version

from wine import HOST, HOST_ADDRESS, LINUX, WineTest
from wire import Server

ROOTS = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\SystemCertificates\\Root\\Certificates"
NAMED = f"subjectAltName=DNS:{HOST}"
MONTH = 30 * 24 * 60 * 60
OPTIONS = ("-R", "-V", "-TCP", "-SERVER", HOST, "-PROTOCOL", "TCPS", "-REPORT_IDENTITY", "-USER_NAME", "CORP\\ann",
           "-COMPUTER_NAME", "WS1")
THE_SYSTEMS_OWN = re.compile(r"(?<=Status = ).*(?=,)|(?<=done: TLSv1\.\d, ).*|(?<=: TLS: ).*")


class Certificates(WineTest):
    def issue(self, name, issuer, *extensions, moved=0):
        """NAME.crt and NAME.key, valid for two days from now and the seconds `moved`; without an issuer, by itself. RSA, as
        wine refused a sound ECDSA signature once (0x80096004)."""
        base, by = f"{self.folder}/{name}", f"{self.folder}/{issuer}"
        Path(f"{self.folder}/clock").write_bytes(struct.pack("<q", moved))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-utf8",
                        "-days", "2", "-subj", f"/O=B\u00fcro/CN={name}", "-keyout", f"{base}.key", "-out", f"{base}.crt",
                        *(("-CA", f"{by}.crt", "-CAkey", f"{by}.key") if issuer else ()),
                        *(word for extension in extensions for word in ("-addext", extension))], check=True, capture_output=True,
                       env={**os.environ, "KELDWICK_TEST_CLOCK": f"{self.folder}/clock",
                            "LD_PRELOAD": f"{LINUX}/libmoved_clock.so"})

    def text(self, *names):
        return "".join(Path(f"{self.folder}/{name}.crt").read_text(encoding="ascii") for name in names)

    def report(self, name, *sent_with_it, versions=(Version.TLSv1_2, Version.TLSv1_2), ciphers="DEFAULT", asks=False):
        """Both agents report to a server with those certificates, and log alike. Gives their lines and the number of reports."""
        Path(f"{self.folder}/chain").write_text(self.text(name, *sent_with_it), encoding="ascii")
        server = Server(HOST_ADDRESS, tls_files=(f"{self.folder}/chain", f"{self.folder}/{name}.key"))
        server.tls.set_ciphers(f"{ciphers}:@SECLEVEL=0")
        server.tls.minimum_version, server.tls.maximum_version = versions
        server.tls.verify_mode = ssl.CERT_REQUIRED if asks else ssl.CERT_NONE
        try:
            self.wine("C:\\Keldwick\\Keldwick.exe", *OPTIONS)
            logs = self.log(), self.on_linux(*OPTIONS, SSL_CERT_FILE=f"{self.folder}/trusted.crt")
        finally:
            server.close()
        logs = ["".join(re.findall(r"IDENTITY_TCPS::Fire.*\n(?:    .*\n)*", log)) for log in logs]
        windows, linux = (THE_SYSTEMS_OWN.sub("", log).replace(", O=", ",O=") for log in logs)
        self.assertEqual(linux, windows)
        return logs, server.requests.qsize()

    def test_each_certificate_is_judged_logged_and_accepted(self):
        self.set()
        for name, issuer in (("trusted", None), ("unknown", None), ("between", "trusted")):
            self.issue(name, issuer)
        encoded = ssl.PEM_cert_to_DER_cert(self.text("trusted"))
        self.bring_in(f"[{ROOTS}\\{hashlib.sha1(encoded).hexdigest().upper()}]",
                      '"Blob"=hex:' + (struct.pack("<III", 32, 1, len(encoded)) + encoded).hex(","))
        cases = (("good", "between", [NAMED], 0, ["between"], "ok", "ok"),
                 ("alone", "between", [NAMED], 0, [], "error 0x800b010a", "unable to get local issuer certificate"),
                 ("self", None, [NAMED], 0, [], "error 0x800b0109", "self-signed certificate"),
                 ("stranger", "unknown", [NAMED], 0, ["unknown"], "error 0x800b0109",
                  "self-signed certificate in certificate chain"),
                 ("old", "trusted", [NAMED], -MONTH, [], "error 0x800b0101", "certificate has expired"),
                 ("early", "trusted", [NAMED], MONTH, [], "error 0x800b0101", "certificate is not yet valid"),
                 ("other", "trusted", [f"{NAMED}.au"], 0, [], "error 0x800b010f", "hostname mismatch"),
                 ("client", "trusted", [NAMED, "extendedKeyUsage=clientAuth"], 0, [], "error 0x800b0110",
                  "unsuitable certificate purpose"))
        for name, issuer, extensions, moved, sent_with_it, *statuses in cases:
            with self.subTest(name):
                self.issue(name, issuer, *extensions, moved=moved)
                logs, arrived = self.report(name, *sent_with_it)
                self.assertEqual(statuses, [re.search("Status = (.*),", log)[1] for log in logs])
                self.assertIn(f"CertSubject = CN={name},O=B\u00fcro,\n    CertIssuer = CN={issuer or name},O=B\u00fcro,\n", logs[1])
                self.assertEqual(("Accept = 1\n" in logs[0], "Accepting non-recommended connection" not in logs[0]),
                                 (name == "good",) * 2)
                self.assertEqual(2, arrived)

    def test_what_the_server_asks_of_tls_leads_both_to_the_same(self):
        self.set()
        self.issue("own", None, NAMED)
        for spoken, options in (("TLSv1.1", {"versions": (Version.TLSv1_1,) * 2}), (None, {"versions": (Version.TLSv1,) * 2}),
                                ("TLSv1.2", {"versions": (Version.TLSv1, Version.TLSv1_3)}),
                                (None, {"ciphers": "ADH"}), (None, {"asks": True})):  # no certificate; one of the agent
            with self.subTest(options):
                logs, arrived = self.report("own", **options)
                self.assertIn(f"done: {spoken}, " if spoken else "StatusCode = 10053,", logs[0])
                self.assertEqual(2 if spoken else 0, arrived)
