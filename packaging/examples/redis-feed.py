#!/usr/bin/python3
# Puts what `keldwick-server --json >>FILE` writes into the Redis stream "keldwick": redis-feed.py FILE [URL]. Needs python3-redis.
# The place in FILE is kept in Redis and moves together with the stream, so that no report is lost or there twice, whichever of
# the three is started again. To begin a new FILE, rename it to FILE.1 and start keldwick-server again.
import os
import sys
import time

import redis

PLACE, STREAM, MOST = "keldwick:place", "keldwick", 1_000_000  # about so many reports are kept


def place(where):
    return tuple(int(each or 0) for each in where.hmget(PLACE, "inode", "at"))


def move(where, inode, at):
    where.hset(PLACE, mapping={"inode": inode, "at": at})


def follow(path, link):
    """Returns when another file, or this one again from its place, is to be followed."""
    inode, at = place(link)
    old = os.path.exists(path + ".1") and os.stat(path + ".1").st_ino == inode
    with open(path + ".1" if old else path, "rb") as file:
        own = os.fstat(file.fileno())
        if inode != own.st_ino or at > own.st_size:
            at = 0
            move(link, own.st_ino, at)
        file.seek(at)
        while True:
            newer = os.stat(path).st_ino  # looked at before reading: then nothing is added to this file any more
            lines = [line for line in file.readlines(1 << 20) if line.endswith(b"\n")]
            if not lines and newer != own.st_ino:
                return move(link, newer, 0)
            if lines:
                with link.pipeline() as batch:
                    batch.watch(PLACE)
                    if place(batch) != (own.st_ino, at):  # Redis has lost its last writes, or another feed is at work
                        return None
                    batch.multi()
                    for line in lines:
                        batch.xadd(STREAM, {"report": line.rstrip()}, maxlen=MOST, approximate=True)
                    at += sum(map(len, lines))
                    move(batch, own.st_ino, at)
                    batch.execute()
            else:
                time.sleep(0.1)
            file.seek(at)  # before a line that was not whole


connection = redis.Redis.from_url((sys.argv[2:] or ["redis://localhost"])[0])
while True:
    try:
        follow(sys.argv[1], connection)
    except (redis.RedisError, OSError) as error:
        print(f"redis-feed: {error}; trying again", file=sys.stderr, flush=True)
        time.sleep(1)
