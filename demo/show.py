"""show.py LOG REPORTS: the agent's log lines about events in order, and after each "request status" line the report that the
server got for it; ends with one line that says what was shown, or with exit code 1 when the two do not fit together."""
import json
import re
import sys

STAMP = re.compile(r"^\d{4}/\d\d/\d\d (\d\d:\d\d:\d\d [AP]M) KDWK: \(\d+\.\d+\) ", re.M)
ABOUT_EVENTS = re.compile(r"^(Do_EVENT_|IdentityReport|GetHostName)")


def messages(log):
    parts = STAMP.split(log.replace("\r\n", "\n"))
    return zip(parts[1::2], (text.strip("\n") for text in parts[2::2]))


def show_report(number, report):
    print(f"    ┌─ report {number}: {report['kind']} of {report['user']} at {report['address']}, request {report['id']}, "
          f"{report['length']} bytes")
    for name in ("computer", "user_dn", "user_ou", "computer_dn", "computer_ou"):
        if report.get(name):
            print(f"    │  {name}: {report[name]}")
    for group in report.get("groups", []):
        print(f"    │  group: {group['domain']}  ({group['dn']})")
    print("    └─")


def main():
    with open(sys.argv[1], encoding="utf-8", newline="") as file:
        lines = [m for m in messages(file.read()) if ABOUT_EVENTS.match(m[1])]
    with open(sys.argv[2], encoding="utf-8") as file:
        reports = [json.loads(line) for line in file]
    shown = 0
    for time, text in lines:
        print(f"{time}  " + text.replace("\n", "\n             "))
        if " request status = " in text and shown < len(reports):
            show_report(shown + 1, reports[shown])
            shown += 1
    kinds = [report["kind"] for report in reports]
    if shown != len(reports) or not reports:
        sys.exit(f"show.py: {len(reports)} reports at the server, {shown} of them in the agent's log")
    if any("frank" in report["user"] for report in reports):
        sys.exit("show.py: a logon from before the start was reported")
    print(f"\nShown: 13 events of a small office became {kinds.count('logon')} logon and {kinds.count('logoff')} logoff reports, "
          "each answered by the identity server; computers, services, anonymous and repeated logons were left out.")


if __name__ == "__main__":
    main()
