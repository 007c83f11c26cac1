"""Misbehaving HTTP clients against a server on 127.0.0.1.

usage: http_abuse.py PORT CORPUS_DIR

Sends, each on its own connection: every file of the corpus (as fuzzing
left them: a first byte that the fuzzer used, then the head), random
mutations of a valid head, and heads cut short then reset. Holds slow
clients (a head a few bytes at a time, never finished) while a normal
request is served. Prints one line of figures: "heads=N replies=N
slow=N served_while_slow=yes|no resets=N".
"""
import os
import random
import socket
import struct
import sys
import time

port = int(sys.argv[1])
corpus = sys.argv[2]


def exchange(data, timeout=5.0):
    s = socket.create_connection(('127.0.0.1', port), timeout=timeout)
    try:
        s.sendall(data)
        s.shutdown(socket.SHUT_WR)
        out = b''
        while True:
            try:
                d = s.recv(65536)
            except (ConnectionResetError, socket.timeout):
                break
            if not d:
                break
            out += d
        return out
    except (BrokenPipeError, ConnectionResetError):
        return b''
    finally:
        s.close()


heads = []
for name in sorted(os.listdir(corpus)):
    with open(os.path.join(corpus, name), 'rb') as f:
        heads.append(f.read()[1:])
valid = (b'POST /echo?x=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n'
         b'Transfer-Encoding: chunked\r\nExpect: 100-continue\r\n\r\n5\r\nhello\r\n0\r\n\r\n')
rng = random.Random(20261124)
for _ in range(300):
    b = bytearray(valid)
    for _ in range(rng.randint(1, 8)):
        op = rng.randint(0, 2)
        i = rng.randrange(len(b))
        if op == 0:
            b[i] = rng.randrange(256)
        elif op == 1:
            del b[i]
        else:
            b[i:i] = bytes([rng.choice(b'\r\n :\t\x00\xff0f;')])
    heads.append(bytes(b))

replies = 0
for h in heads:
    if exchange(h).startswith(b'HTTP/1.1 '):
        replies += 1

# Slow clients: a few bytes, then nothing.
slow = []
for _ in range(40):
    s = socket.create_connection(('127.0.0.1', port), timeout=5)
    s.sendall(b'GET /hello HTTP/1.1\r\nHo')
    slow.append(s)
time.sleep(0.2)
served = exchange(b'GET /hello HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n')
for s in slow:
    s.close()

# Heads cut short, then reset.
resets = 0
for i in range(40):
    s = socket.create_connection(('127.0.0.1', port), timeout=5)
    s.sendall(valid[:rng.randrange(1, len(valid))])
    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))
    s.close()
    resets += 1

print('heads=%d replies=%d slow=%d served_while_slow=%s resets=%d' %
      (len(heads), replies, len(slow), 'yes' if served.endswith(b'hello') else 'no', resets))
