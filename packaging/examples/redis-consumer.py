#!/usr/bin/python3
# Prints what agents report, from the Redis stream "keldwick": redis-consumer.py [URL [GROUP [NAME]]]. Needs python3-redis.
# Each consumer of a group gets reports of its own; one that is started again begins with those that it had not acknowledged.
import json
import sys
import redis
url, group, name = sys.argv[1:4] + ["redis://localhost", "example", "one"][len(sys.argv[1:4]):]
link, start = redis.Redis.from_url(url), "0"
if group.encode() not in [each["name"] for each in link.exists("keldwick") and link.xinfo_groups("keldwick") or []]:
    link.xgroup_create("keldwick", group, "0", mkstream=True)
while True:
    [[_, entries]] = link.xreadgroup(group, name, {"keldwick": start}, count=100, block=0)
    start = "0" if entries and start == "0" else ">"
    for key, fields in entries:
        if fields:  # otherwise the stream had to let it go
            try:
                report = json.loads(fields[b"report"])
                print(*(ascii(report[each]) for each in ("kind", "address", "user", "computer")), flush=True)
            except (ValueError, KeyError, TypeError):  # a line that was not written whole, when the disk was full
                print("unreadable", ascii(fields.get(b"report")), flush=True)
        link.xack("keldwick", group, key)
