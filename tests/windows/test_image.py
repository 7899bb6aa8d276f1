"""The linked Keldwick.exe, read by a reader that is not the linker's: what it needs, and the resources in it."""
import os
import re
import struct
import unittest

import pefile

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../src")
SYSTEM = {"activeds", "advapi32", "crypt32", "kernel32", "msvcrt", "ole32", "oleaut32", "secur32", "shell32", "user32",
          "version", "ws2_32"}


def listed(file, macro, key):
    """The rows of a list of src/resources: MACRO(..., key, "text")."""
    row = re.compile(macro + r'\((?:\w+,\s*)??(' + key + r'),\s*"((?:[^"\\]|\\.)*)"\)')
    with open(f"{SOURCE}/resources/{file}", encoding="ascii") as source:
        rows = row.findall(source.read())
    return {name: text.encode().decode("unicode_escape") for name, text in rows}


def messages(data):
    """Blocks of (first id, last id, offset of their entries); an entry is its length, flags (1: UTF-16) and its text,
    filled up with NULs."""
    found = {}
    for block in range(struct.unpack_from("<I", data)[0]):
        first, last, at = struct.unpack_from("<III", data, 4 + 12 * block)
        for number in range(first, last + 1):
            length, flags = struct.unpack_from("<HH", data, at)
            assert flags == 1
            found[f"0x{number:08X}"] = data[at + 4:at + length].decode("utf-16-le").rstrip("\0")
            at += length
    return found


class Image(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.image = pefile.PE(f"{os.environ['KELDWICK_WINDOWS_BIN']}/Keldwick.exe")

    def resources(self, kind):
        """(id, bytes) of each resource of that kind, all of which are US English."""
        number = pefile.RESOURCE_TYPE[kind]
        for entry in self.image.DIRECTORY_ENTRY_RESOURCE.entries:
            for named in entry.directory.entries if entry.id == number else ():
                (language,) = named.directory.entries
                if kind != "RT_MANIFEST":
                    self.assertEqual(0x409, language.id)
                place = language.data.struct
                yield named.id, self.image.get_data(place.OffsetToData, place.Size)

    def test_it_is_a_protected_64_bit_window_program_that_needs_the_system_alone(self):
        self.assertEqual(pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_AMD64"], self.image.FILE_HEADER.Machine)
        self.assertEqual(pefile.SUBSYSTEM_TYPE["IMAGE_SUBSYSTEM_WINDOWS_GUI"], self.image.OPTIONAL_HEADER.Subsystem)
        needed = {entry.dll.decode().lower().removesuffix(".dll") for entry in self.image.DIRECTORY_ENTRY_IMPORT}
        self.assertEqual(set(), needed - SYSTEM)
        for flag in ("DYNAMIC_BASE", "HIGH_ENTROPY_VA", "NX_COMPAT"):
            self.assertTrue(getattr(self.image.OPTIONAL_HEADER, f"IMAGE_DLLCHARACTERISTICS_{flag}"), flag)

    def test_strings_are_the_listed_ones(self):
        found = {}
        for block, data in self.resources("RT_STRING"):
            pefile.parse_strings(data, 16 * (block - 1), found)
        self.assertLess(15, len(found))
        self.assertEqual(listed("string_table.inc", "KELDWICK_STRING", r"\d+"), {str(key): found[key] for key in found})

    def test_messages_are_the_listed_ones(self):
        ((number, data),) = self.resources("RT_MESSAGETABLE")
        self.assertEqual(1, number)  # where the system looks
        found = messages(data)
        self.assertLess(20, len(found))
        self.assertEqual(listed("message_table.inc", "KELDWICK_MESSAGE", r"0x[0-9A-F]{8}"), found)

    def test_the_version_is_the_listed_one(self):
        listed_values = listed("version.inc", "KELDWICK_VERSION_VALUE", r'"\w+"')
        (table,) = [entry.StringTable for entry in self.image.FileInfo[0] if entry.Key == b"StringFileInfo"]
        self.assertEqual({name.strip('"'): text for name, text in listed_values.items()},
                         {name.decode(): text.decode() for name, text in table[0].entries.items()})
        self.assertEqual(b"040904B0", table[0].LangID)
        with open(f"{SOURCE}/platform/version_numbers.h", encoding="ascii") as file:
            numbers = [int(number) for number in re.findall(r"DWORD \w+ = (\d+);", file.read())]
        fixed = self.image.VS_FIXEDFILEINFO[0]
        for high, low in ((fixed.FileVersionMS, fixed.FileVersionLS), (fixed.ProductVersionMS, fixed.ProductVersionLS)):
            self.assertEqual(numbers, [high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF])

    def test_the_manifest_asks_for_the_true_version_long_paths_and_no_rights(self):
        ((number, data),) = self.resources("RT_MANIFEST")
        self.assertEqual(1, number)
        for text in (b"{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}", b'level="asInvoker"', b">true</longPathAware>"):
            self.assertIn(text, data)
