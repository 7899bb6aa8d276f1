"""The tests of the client over TLS, which check OpenSSL's engine on Linux, with Schannel's under wine."""
import shlex

from wine import BIN, LINUX, WINE, WineTest

# Counts the wake-ups between two events; Windows' sockets may wake a program once more than there is something to read.
SPURIOUS = "SecureConnection.AnEndThatArrivesWithBytesLeavesTimeToTakeThem"


class TlsEngine(WineTest):
    def test_every_case_of_the_linux_engine(self):
        client = shlex.join([*self.machine, f"{WINE}/wine64", f"{BIN}/tls_client.exe"])
        said = self.run_to_its_end([f"{LINUX}/tests_agent", f"--gtest_filter=SecureConnection.*-{SPURIOUS}"],
                                   patience=240, KELDWICK_TLS_CLIENT=client)
        self.assertRegex(said, r"\[  PASSED  \] [1-9]")
