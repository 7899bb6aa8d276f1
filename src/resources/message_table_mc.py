#!/usr/bin/env python3
"""Prints the message compiler's input for message_table.inc, which is named as the argument."""
import re
import sys

SEVERITIES = {1: "Informational", 2: "Warning", 3: "Error"}
ENTRY = re.compile(r'KELDWICK_MESSAGE\((\w+),\s*(0x[0-9A-F]{8}),\s*"((?:[^"\\]|\\.)*)"\)')


def main() -> int:
    if len(sys.argv) != 2:
        print("usage: message_table_mc.py message_table.inc", file=sys.stderr)
        return 2
    # The message compiler takes a text's line breaks as it finds them, and the table's are CR LF.
    sys.stdout.reconfigure(newline="\r\n")
    with open(sys.argv[1], encoding="utf-8") as file:
        entries = ENTRY.findall(file.read())
    for name, number, text in entries:
        identifier = int(number, 16)
        # The last line ends where it is printed, so the text's own last line break is not written out.
        lines = text.replace('\\"', '"').removesuffix("\\r\\n").replace("\\r\\n", "\n")
        print(f"MessageId=0x{identifier & 0xFFFF:X}\nSeverity={SEVERITIES[identifier >> 30]}\n"
              f"SymbolicName={name}\nLanguage=English\n{lines}\n.\n")
    return 0 if entries else 1


sys.exit(main())
