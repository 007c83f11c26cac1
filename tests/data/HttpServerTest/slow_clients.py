# slow_clients.py PORT: a client that stops inside a head, one that never
# sends, and one that goes idle after a reply; for each, the 200s it got and
# whether the server closed 0.2 to 5 seconds after its last word.
import socket, sys, time


def closed_after(first):
    s = socket.create_connection(('127.0.0.1', int(sys.argv[1])), timeout=10)
    if first:
        s.sendall(first)
    t = time.time()
    out = b''
    while True:
        d = s.recv(4096)
        if not d:
            break
        out += d
        if out.endswith(b'hello'):
            t = time.time()
    return out, time.time() - t


for first in [b'GET /hello HTTP/1.1\r\nHo', b'', b'GET /hello HTTP/1.1\r\nHost: h\r\n\r\n']:
    out, waited = closed_after(first)
    print(out.count(b'HTTP/1.1 200'), 0.2 < waited < 5)
