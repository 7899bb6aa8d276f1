"""The installer: its tables, and what installing and removing it does."""
import os
import re
import subprocess

from wine import BIN, HERE, KEY, WineTest

PROGRAM = "C:\\Program Files\\Keldwick\\Keldwick.exe"


class Installer(WineTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.package = cls.build_package("Keldwick.msi")

    @classmethod
    def build_package(cls, name, *version):
        package = f"{cls.folder}/prefix/drive_c/{name}"
        subprocess.run([f"{HERE}/../../packaging/windows/build-msi", package, f"{BIN}/Keldwick.exe", *version], check=True,
                       capture_output=True)
        return package

    def rows(self, table):
        """The rows of a table by their keys, as dictionaries."""
        text = subprocess.run(["msiinfo", "export", self.package, table], check=True, capture_output=True, text=True).stdout
        names, _types, _keys, *rows = [line.split("\t") for line in text.replace("\r", "").split("\n")[:-1]]
        return {row[0]: dict(zip(names, row)) for row in rows}

    def msiexec(self, *arguments, package="Keldwick.msi"):
        self.wine("msiexec", arguments[0], f"C:\\{package}", *arguments[1:], "/qn")

    def installed(self):
        return self.wine("sc", "query", "Keldwick", code=None) != "" and os.path.exists(
            f"{self.folder}/prefix/drive_c/Program Files/Keldwick/Keldwick.exe")

    def test_the_tables_hold_what_windows_is_to_be_told(self):
        self.assertEqual(("Keldwick", "16", "2"), tuple(self.rows("ServiceInstall")["Service"][field]
                                                       for field in ("Name", "ServiceType", "StartType")))
        self.assertEqual({"DelayedStart": ("3", "1"), "FailureFlag": ("4", "1")},
                         {key: (row["ConfigType"], row["Argument"]) for key, row in self.rows("MsiServiceConfig").items()})
        recovery = self.rows("MsiServiceConfigFailureActions")["Recovery"]
        self.assertEqual(("1[~]1[~]1", "60000[~]60000[~]60000"), (recovery["Actions"], recovery["DelayActions"]))
        sequence = {name: int(row["Sequence"]) for name, row in self.rows("InstallExecuteSequence").items()}
        self.assertTrue(sequence["InstallServices"] < sequence["MsiConfigureServices"] < sequence["StartServices"])
        self.assertTrue(sequence["InstallInitialize"] < sequence["RemoveSettings"] < sequence["InstallFinalize"])
        for component, condition in (("Settings", ""), ("Server", "IDENTSERVER"), ("Protocol", "IDENTPROTOCOL")):
            row = self.rows("Component")[component]
            self.assertEqual((0x114, condition), (int(row["Attributes"]), row["Condition"]), "stays, 64 bit, a value")
        detected = self.rows("Upgrade").values()
        self.assertEqual({self.rows("Property")["UpgradeCode"]["Value"]}, {row["UpgradeCode"] for row in detected})

    def test_it_installs_runs_keeps_the_settings_and_removes_them_when_told(self):
        self.wine("reg", "add", KEY, "/v", "Heartbeat", "/t", "REG_DWORD", "/d", "7", "/f")
        self.msiexec("/i", "IDENTSERVER=127.55.0.1", "IDENTPROTOCOL=2")
        self.assertTrue(self.installed())
        self.until(lambda: self.service_state()[0] == 4, "the service runs")
        self.assertEqual(("127.55.0.1", "0x2", "0x7"), tuple(self.get(name) for name in ("IdentServer", "IdentProtocol", "Heartbeat")))
        self.assertIn(PROGRAM, self.wine("reg", "query", "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Keldwick"))
        self.msiexec("/x")
        self.assertFalse(self.installed())
        self.assertEqual("127.55.0.1", self.get("IdentServer"))
        self.msiexec("/i")
        self.until(lambda: self.service_state()[0] == 4, "the service runs with the settings of before")
        self.msiexec("/x", "REMOVESETTINGS=1")
        self.assertFalse(self.installed())
        self.assertIsNone(self.get("IdentServer"))

    def test_a_newer_version_takes_the_place_of_the_one_that_runs(self):
        self.build_package("Newer.msi", "99.0.0")
        self.msiexec("/i", "IDENTSERVER=127.55.0.1", "IDENTPROTOCOL=2")
        self.msiexec("/i", package="Newer.msi")
        products = self.wine("reg", "query", "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall", "/s")
        self.assertEqual(["99.0.0"], re.findall(r"DisplayVersion +REG_SZ +(\S+)", products))
        self.assertTrue(self.installed())
        self.until(lambda: self.service_state()[0] == 4, "the service runs")
        self.assertEqual("127.55.0.1", self.get("IdentServer"))
        self.msiexec("/x", "REMOVESETTINGS=1", package="Newer.msi")
        self.assertFalse(self.installed())
