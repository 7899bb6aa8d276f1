#!/usr/bin/python3
# Puts what `keldwick-server --json >>FILE` writes into the Redis stream "keldwick": redis-feed.py FILE [URL]. Needs python3-redis.
# The place in FILE is kept in Redis and moves together with the stream, so that no report is lost or there twice, whichever of
# the three is started again. To begin a new FILE, rename it to FILE.1 and start keldwick-server again.
import os
import sys
import time

import redis

PLACE, STREAM, MOST = "keldwick:place", "keldwick", 1_000_000  # about so many reports are kept

path, link = sys.argv[1], redis.Redis.from_url((sys.argv[2:] or ["redis://localhost"])[0])
while True:
    try:
        inode, at = (int(each or 0) for each in link.hmget(PLACE, "inode", "at"))
        old = os.path.exists(path + ".1") and os.stat(path + ".1").st_ino == inode
        with open(path + ".1" if old else path, "rb") as file:
            own = os.fstat(file.fileno())
            file.seek(at if own.st_ino == inode and at <= own.st_size else 0)
            while True:
                newer = os.stat(path).st_ino  # looked at before reading: then nothing is added to this file any more
                lines = file.readlines(1 << 20)
                if lines and not lines[-1].endswith(b"\n"):
                    file.seek(-len(lines.pop()), os.SEEK_CUR)
                if lines:
                    with link.pipeline(transaction=True) as batch:
                        for line in lines:
                            batch.xadd(STREAM, {"report": line.rstrip()}, maxlen=MOST, approximate=True)
                        batch.hset(PLACE, mapping={"inode": own.st_ino, "at": file.tell()})
                        batch.execute()
                elif newer != own.st_ino:
                    link.hset(PLACE, mapping={"inode": newer, "at": 0})
                    break
                else:
                    time.sleep(0.1)
    except (redis.RedisError, OSError) as error:
        print(f"redis-feed: {error}; trying again", file=sys.stderr, flush=True)
        time.sleep(1)
