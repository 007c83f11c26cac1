# raw_exchange.py PORT HALF_CLOSE PIECE...: sends the pieces (latin-1) a
# little apart, half-closes when HALF_CLOSE is 1, and prints all that comes
# back until the server closes.
import socket, sys, time

s = socket.create_connection(('127.0.0.1', int(sys.argv[1])), timeout=20)
for p in sys.argv[3:]:
    s.sendall(p.encode('latin-1'))
    time.sleep(0.02)
if sys.argv[2] == '1':
    s.shutdown(socket.SHUT_WR)
out = b''
while True:
    d = s.recv(65536)
    if not d:
        break
    out += d
sys.stdout.write(out.decode('latin-1'))
