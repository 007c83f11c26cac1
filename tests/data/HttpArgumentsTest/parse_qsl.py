# parse_qsl.py FILE: for each line of FILE (a query in hex), the pairs
# urllib.parse.parse_qsl finds, each as hex key ':' hex value, space-separated.
import sys, urllib.parse as u

for line in open(sys.argv[1]):
    q = bytes.fromhex(line.strip()).decode('latin-1')
    r = u.parse_qsl(q, keep_blank_values=True, encoding='latin-1')
    print(' '.join(k.encode('latin-1').hex() + ':' + v.encode('latin-1').hex() for k, v in r))
