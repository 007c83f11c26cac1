# concurrent_clients.py PORT: twelve clients at once, twenty requests each,
# alternating between the loop's and a worker's echo; prints how many
# answers were wrong and the first few of them.
import http.client, sys, threading

bad = []


def client(n):
    c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=30)
    for i in range(20):
        url = '/threaded' if (n + i) % 2 else '/echo'
        c.request('POST', url, body='k=%d' % i,
                  headers={'Content-Type': 'application/x-www-form-urlencoded'})
        body = c.getresponse().read().decode()
        if not body.endswith('k=%d' % i):
            bad.append(body)


ts = [threading.Thread(target=client, args=(n,)) for n in range(12)]
[t.start() for t in ts]
[t.join() for t in ts]
print(len(bad), bad[:3])
