# The serialized form of each "seconds:microseconds" argument, computed
# independently: seconds since 1601 in 8 base-32 digits, then nanoseconds in 6.
import sys, datetime
off = int((datetime.datetime(1970, 1, 1) - datetime.datetime(1601, 1, 1)).total_seconds())
D = '0123456789ABCDEFGHIJKLMNOPQRSTUV'
def b32(v, n): return ''.join(D[(v >> (5 * (n - 1 - i))) & 31] for i in range(n))
for a in sys.argv[1:]:
    s, us = map(int, a.split(':'))
    print(b32(s + off, 8) + b32(us * 1000, 6))
