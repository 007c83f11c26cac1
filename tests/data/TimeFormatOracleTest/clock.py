# Reads hex-encoded lines: "S seconds hex-format" answers strftime of that
# format on gmtime(seconds) in the C locale, hex-encoded; "I seconds" answers
# the ISO year, week and weekday of that UTC day.
import sys, time, datetime, locale
locale.setlocale(locale.LC_ALL, 'C')
for line in open(sys.argv[1]):
    kind, t, *fmt = bytes.fromhex(line.strip()).decode().split(' ')
    if kind == 'S':
        print(time.strftime(bytes.fromhex(fmt[0]).decode(), time.gmtime(int(t))).encode().hex())
    else:
        d = datetime.datetime.fromtimestamp(int(t), datetime.timezone.utc).date()
        print('%04d %02d %d' % d.isocalendar())
