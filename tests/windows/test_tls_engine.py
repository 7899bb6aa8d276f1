"""The tests of the client over TLS, which check OpenSSL's engine on Linux, with Schannel's under wine."""
import os
import shlex
import subprocess
import tempfile
import unittest

from wine import BIN, WINE, WineTest

# Counts the wake-ups between two events; Windows' sockets may wake a program once more than there is something to read.
SPURIOUS = "SecureConnection.AnEndThatArrivesWithBytesLeavesTimeToTakeThem"


class TlsEngine(WineTest):
    def test_every_case_of_the_linux_engine(self):
        command = shlex.join([*self.machine, f"{WINE}/wine64", f"{BIN}/tls_client.exe"])
        with tempfile.TemporaryFile() as output:  # wine's own programs would keep a pipe open
            done = subprocess.run([f"{os.environ['KELDWICK_BIN']}/tests_agent", f"--gtest_filter=SecureConnection.*-{SPURIOUS}"],
                                  stdout=output, stderr=subprocess.STDOUT, timeout=240,
                                  env={**self.environment, "KELDWICK_TLS_CLIENT": command})
            output.seek(0)
            text = output.read().decode(errors="replace")
        self.assertEqual(0, done.returncode, text)
        self.assertIn("[  PASSED  ]", text)
        self.assertNotIn("[  PASSED  ] 0 tests", text)


if __name__ == "__main__":
    unittest.main()
