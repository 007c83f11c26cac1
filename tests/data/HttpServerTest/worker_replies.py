# worker_replies.py PORT FORM: requests served on worker threads, with the
# form as a whole body and as a chunked one, on one connection.
import http.client, sys

c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=20)
form = open(sys.argv[2], 'rb').read()


def chunks():
    yield form[:3]
    yield form[3:100]
    yield form[100:]


for method, url, body, enc in [('GET', '/threaded', None, False),
                               ('POST', '/threaded', form, False),
                               ('POST', '/threaded', chunks(), True),
                               ('GET', '/stream', None, False), ('HEAD', '/stream', None, False),
                               ('GET', '/hello', None, False)]:
    c.request(method, url, body=body, encode_chunked=enc,
              headers={'Transfer-Encoding': 'chunked'} if enc else {})
    r = c.getresponse()
    print(method, url, r.status, r.getheader('Transfer-Encoding'), r.read()[:40])
