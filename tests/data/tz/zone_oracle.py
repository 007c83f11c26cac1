#!/usr/bin/env python3
"""Python's zoneinfo over one TZif file, for the time zone tests.

usage: zone_oracle.py fields TZIF INPUT   INPUT: epoch seconds, one a line
         prints "year month mday hour min sec yday(1-366) wday(0 Sunday) utcoffset
         abbreviation"
       zone_oracle.py locals TZIF INPUT   INPUT: "year month mday hour min sec"
         prints "epoch0 epoch1 exists0 exists1": the instants of fold 0 and 1
         and whether each reads back as the same wall time (a gap: neither)
"""
import datetime
import sys
import zoneinfo

UTC = datetime.timezone.utc


def main():
    mode, path, inp = sys.argv[1:4]
    with open(path, "rb") as f:
        tz = zoneinfo.ZoneInfo.from_file(f)
    out = []
    for line in open(inp):
        line = line.strip()
        if not line:
            continue
        if mode == "fields":
            d = datetime.datetime.fromtimestamp(int(line), tz)
            off = int(d.utcoffset().total_seconds())
            out.append("%d %d %d %d %d %d %d %d %d %s" % (
                d.year, d.month, d.day, d.hour, d.minute, d.second, d.timetuple().tm_yday,
                d.isoweekday() % 7, off, d.tzname()))
        else:
            wall = datetime.datetime(*map(int, line.split()))
            res = []
            for fold in (0, 1):
                d = wall.replace(tzinfo=tz, fold=fold)
                e = int(d.timestamp())
                back = datetime.datetime.fromtimestamp(e, tz).replace(tzinfo=None, fold=0)
                res.append((e, back == wall))
            out.append("%d %d %d %d" % (res[0][0], res[1][0], res[0][1], res[1][1]))
    sys.stdout.write("\n".join(out) + "\n")


main()
