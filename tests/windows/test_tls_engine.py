"""The tests of the client over TLS, which check OpenSSL's engine on Linux, with Schannel's under wine."""
import os
import shlex
import subprocess
import unittest

from wine import BIN, WINE, WineTest


class TlsEngine(WineTest):
    def test_every_case_of_the_linux_engine(self):
        command = shlex.join([*self.machine, f"{WINE}/wine64", f"{BIN}/tls_client.exe"])
        done = subprocess.run([f"{os.environ['KELDWICK_BIN']}/tests_agent", "--gtest_filter=SecureConnection.*"],
                              env={**self.environment, "KELDWICK_TLS_CLIENT": command}, capture_output=True, text=True,
                              timeout=240)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        self.assertIn("[  PASSED  ]", done.stdout)


if __name__ == "__main__":
    unittest.main()
