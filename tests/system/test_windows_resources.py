"""The Windows build's resources: the recipe in keldwick.rc gives the texts that the Linux build has."""
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../src/resources")
TOOLS = [f"x86_64-w64-mingw32-{name}" for name in ("windmc", "windres")]
ENTRY = re.compile(r'KELDWICK_MESSAGE\(\w+,\s*(0x[0-9A-F]{8}),\s*"((?:[^"\\]|\\.)*)"\)')


def listed_messages():
    with open(f"{SOURCE}/message_table.inc", encoding="ascii") as file:
        return {int(number, 16): text.encode().decode("unicode_escape") for number, text in ENTRY.findall(file.read())}


def compiled_messages(table):
    """The texts of a MESSAGE_RESOURCE_DATA by id: blocks of (first id, last id, offset of their entries), where an
    entry is its length, flags (1: UTF-16) and its text, filled up with NULs."""
    messages = {}
    for block in range(struct.unpack_from("<I", table)[0]):
        first, last, at = struct.unpack_from("<III", table, 4 + 12 * block)
        for number in range(first, last + 1):
            length, flags = struct.unpack_from("<HH", table, at)
            assert flags == 1
            messages[number] = table[at + 4:at + length].decode("utf-16-le").rstrip("\0")
            at += length
    return messages


@unittest.skipUnless(all(map(shutil.which, TOOLS)), "needs the mingw-w64 resource tools")
class WindowsResources(unittest.TestCase):
    def test_the_compiled_messages_are_the_listed_ones(self):
        with tempfile.TemporaryDirectory() as folder:
            def run(*command, **options):
                subprocess.run(command, cwd=folder, check=True, timeout=60, **options)

            with open(f"{folder}/keldwick_messages.mc", "wb") as file:
                run(sys.executable, f"{SOURCE}/message_table_mc.py", f"{SOURCE}/message_table.inc", stdout=file)
            run(TOOLS[0], "keldwick_messages.mc")
            for script in (f"{SOURCE}/keldwick.rc", "keldwick_messages.rc"):
                run(TOOLS[1], "-I", f"{SOURCE}/..", script, f"{os.path.basename(script)}.o")
            tables = [name for name in os.listdir(folder) if name.endswith(".bin")]
            self.assertEqual(1, len(tables))
            with open(f"{folder}/{tables[0]}", "rb") as file:
                compiled = compiled_messages(file.read())
        self.assertLess(20, len(compiled))
        self.assertEqual(listed_messages(), compiled)


if __name__ == "__main__":
    unittest.main()
