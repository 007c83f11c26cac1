# read_head.py FILE: the request line's method and target, then each header
# as http.client reads it, lower-case name '=' value.
import sys, http.client

f = open(sys.argv[1], 'rb')
method, target, version = f.readline().decode('latin-1').split()
print(method, target)
for k, v in http.client.parse_headers(f).items():
    print(k.lower() + '=' + v)
