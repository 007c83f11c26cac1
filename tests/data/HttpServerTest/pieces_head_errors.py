# pieces_head_errors.py PORT: several requests on one connection, each
# answer's status, framing headers and first bytes.
import http.client, sys

c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=20)
for method, url in [('GET', '/pieces'), ('HEAD', '/hello'), ('GET', '/hello'),
                    ('DELETE', '/nowhere'), ('OPTIONS', '/hello'), ('OPTIONS', '*'),
                    ('GET', '/hello')]:
    c.request(method, url)
    r = c.getresponse()
    print(method, url, r.status, r.getheader('Transfer-Encoding'),
          r.getheader('Content-Length'), r.read()[:20])
