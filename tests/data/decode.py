# Decodes each line of hex in argv[3] with Python's codec argv[1] and error
# handler argv[2]; prints the code points in hex, comma-separated, or "-"
# where the decoder refuses the line. With "backslashreplace" the escapes get
# upper-case digits, as the library writes them. With "first": the first
# character by the shortest prefix of at most four bytes that decodes,
# surrogates allowed, as "length:code point".
import re
import sys

codec, errors = sys.argv[1], sys.argv[2]
for line in open(sys.argv[3]):
    b = bytes.fromhex(line.strip())
    if errors == 'first':
        r = '-'
        for n in range(1, min(4, len(b)) + 1):
            try:
                r = '%d:%x' % (n, ord(b[:n].decode(codec, 'surrogatepass')[0]))
                break
            except UnicodeDecodeError:
                pass
        print(r)
        continue
    try:
        s = b.decode(codec, errors)
    except UnicodeDecodeError:
        print('-')
        continue
    if errors == 'backslashreplace':
        s = re.sub(r'\\x([0-9a-f]{2})', lambda m: '\\x' + m.group(1).upper(), s)
    print(','.join('%x' % ord(c) for c in s))
