#!/usr/bin/env python3
"""A scripted TCP client for the channel tests: exact control of what is
sent, when, and how the connection ends.

usage: tcp_peer.py PORT ACTION...

  send:TEXT     send TEXT (Python escapes such as \\n are decoded)
  echo:N        send N pseudo-random bytes from a second thread while reading
                N back; prints "echo N ok" or "echo N bad after K"
  recv:N        read exactly N bytes; prints "recv TEXT" (repr of the bytes)
  line          read up to and including a newline; prints "line TEXT"
  eof           read until the peer closes; prints "eof K" (bytes discarded)
                or "reset" when the connection was reset
  nbsend:N      send up to N bytes without blocking, for up to 1 s; prints
                "nbsend K" with the bytes the kernel took
  shutwr        shutdown(SHUT_WR)
  sleep:MS      pause
  states        the TCP states of this connection as ss sees them, server
                side first, once the server's FIN is acknowledged:
                "states FIN-WAIT-2 CLOSE-WAIT"
  reset         close with SO_LINGER 0: the server sees a reset
  close         close normally
  burst:K       K short connections in turn, each sending "x\\n" and reading
                the echo; prints "burst K ok"
  hold:K        open K more connections and keep them until the end
  holdsend:K    the same, each sending "x"
A first action delay:MS waits before connecting. A burst that finds the
server gone prints "burst stopped after K".
Every read gives up after 10 s with "timeout".
"""
import random
import socket
import struct
import subprocess
import sys
import threading
import time


def connect(port):
    s = socket.create_connection(("127.0.0.1", port), timeout=10)
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


def read_exact(s, n):
    out = bytearray()
    while len(out) < n:
        chunk = s.recv(min(n - len(out), 1 << 20))
        if not chunk:
            break
        out += chunk
    return bytes(out)


def states(s):
    local = s.getsockname()[1]
    server = s.getpeername()[1]
    text = subprocess.run(["ss", "-tnaH"], capture_output=True, text=True).stdout
    found = {}
    for row in text.splitlines():
        cols = row.split()
        if len(cols) < 5:
            continue
        src, dst = cols[3].rsplit(":", 1)[1], cols[4].rsplit(":", 1)[1]
        if (src, dst) == (str(server), str(local)):
            found["server"] = cols[0]
        elif (src, dst) == (str(local), str(server)):
            found["client"] = cols[0]
    return found.get("server", "-"), found.get("client", "-")


def main():
    port = int(sys.argv[1])
    actions = sys.argv[2:]
    if actions and actions[0].startswith("delay:"):
        time.sleep(int(actions.pop(0)[6:]) / 1000)
    s = connect(port)
    held = []
    rng = random.Random(1)
    for action in actions:
        name, _, arg = action.partition(":")
        try:
            if name == "send":
                s.sendall(arg.encode().decode("unicode_escape").encode("latin-1"))
            elif name == "echo":
                n = int(arg)
                data = rng.randbytes(n)
                sender = threading.Thread(target=s.sendall, args=(data,))
                sender.start()
                back = read_exact(s, n)
                sender.join()
                if back == data:
                    print("echo %d ok" % n)
                else:
                    same = next((i for i in range(len(back)) if back[i] != data[i]), len(back))
                    print("echo %d bad after %d" % (n, same))
            elif name == "recv":
                print("recv %r" % read_exact(s, int(arg)))
            elif name == "line":
                out = bytearray()
                while not out.endswith(b"\n"):
                    c = s.recv(1)
                    if not c:
                        break
                    out += c
                print("line %r" % bytes(out))
            elif name == "eof":
                total = 0
                try:
                    while True:
                        chunk = s.recv(1 << 16)
                        if not chunk:
                            break
                        total += len(chunk)
                    print("eof %d" % total)
                except ConnectionResetError:
                    print("reset")
            elif name == "nbsend":
                n, sent = int(arg), 0
                s.setblocking(False)
                block = bytes(65536)
                deadline = time.monotonic() + 1
                while sent < n and time.monotonic() < deadline:
                    try:
                        sent += s.send(block[: min(len(block), n - sent)])
                    except BlockingIOError:
                        time.sleep(0.01)
                s.settimeout(10)
                print("nbsend %d" % sent)
            elif name == "shutwr":
                s.shutdown(socket.SHUT_WR)
            elif name == "sleep":
                time.sleep(int(arg) / 1000)
            elif name == "states":
                # Our ACK of the server's FIN may not have left yet.
                deadline = time.monotonic() + 5
                seen = states(s)
                while seen[0] == "FIN-WAIT-1" and time.monotonic() < deadline:
                    time.sleep(0.01)
                    seen = states(s)
                print("states %s %s" % seen)
            elif name == "reset":
                s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                s.close()
            elif name == "close":
                s.close()
            elif name == "burst":
                done = 0
                try:
                    for _ in range(int(arg)):
                        c = connect(port)
                        c.sendall(b"x\n")
                        if read_exact(c, 2) != b"x\n":
                            break
                        c.close()
                        done += 1
                except OSError:
                    pass
                if done == int(arg):
                    print("burst %s ok" % arg)
                else:
                    print("burst stopped after %d" % done)
            elif name in ("hold", "holdsend"):
                for _ in range(int(arg)):
                    held.append(connect(port))
                    if name == "holdsend":
                        held[-1].sendall(b"x")
            else:
                sys.exit("unknown action " + action)
        except socket.timeout:
            print("timeout")
        sys.stdout.flush()


main()
