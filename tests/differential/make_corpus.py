#!/usr/bin/env python3
"""Writes client_lines.txt, the differential corpus of client lines.

Each entry is one client line. The file is text: `\\x{HH}` stands for one raw byte (so that
invalid UTF-8, CR and other control bytes stay visible and survive editors) and `\\*{N}{TEXT}`
for TEXT repeated N times (TEXT holds no braces); every other character is the line's own UTF-8. Lines starting with `#` are comments naming the group that
follows; blank lines are ignored. Run this script again after changing a group:

    python3 tests/differential/make_corpus.py > tests/differential/client_lines.txt
"""

import sys

groups = []  # (title, [bytes])


def group(title, lines):
    # Literals spell raw bytes as \\xHH (one character each), so latin-1 gives exactly those bytes.
    groups.append((title, [l if isinstance(l, bytes) else l.encode("latin-1") for l in lines]))


def rep(count, text):
    """TEXT repeated COUNT times, kept short in the file."""
    assert "{" not in text and "}" not in text and "\x02" not in text
    return "\x02%d\x03%s\x02" % (count, text)


def expand(line: bytes) -> bytes:
    parts = line.split(b"\x02")
    out = []
    for i, part in enumerate(parts):
        if i % 2:
            count, text = part.split(b"\x03")
            out.append(text * int(count))
        else:
            out.append(part)
    return b"".join(out)


def call(id_text='1', method='"tools/call"', params='{"name":"delete_everything","arguments":{"path":"/"}}', extra=''):
    members = ['"jsonrpc":"2.0"']
    if id_text is not None:
        members.append('"id":' + id_text)
    members.append('"method":' + method)
    if params is not None:
        members.append('"params":' + params)
    if extra:
        members.append(extra)
    return "{" + ",".join(members) + "}"


P = '{"name":"delete_everything","arguments":{"path":"/"}}'

group("ordinary traffic that must reach the server byte for byte", [
    '{"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"c","version":"1"}}}',
    '{"jsonrpc":"2.0","method":"notifications/initialized"}',
    '{"jsonrpc":"2.0","id":2,"method":"ping"}',
    '{"jsonrpc":"2.0","id":3,"method":"tools/list"}',
    '{"jsonrpc":"2.0","id":"list-1","method":"tools/list","params":{"cursor":"abc"}}',
    '{"jsonrpc":"2.0","id":4,"method":"resources/list"}',
    '{"jsonrpc":"2.0","id":5,"method":"resources/read","params":{"uri":"file:///etc/passwd"}}',
    '{"jsonrpc":"2.0","id":6,"method":"prompts/get","params":{"name":"p","arguments":{"a":"b"}}}',
    '{"jsonrpc":"2.0","id":7,"method":"logging/setLevel","params":{"level":"debug"}}',
    '{"jsonrpc":"2.0","id":8,"method":"completion/complete","params":{"ref":{"type":"ref/prompt","name":"p"},"argument":{"name":"a","value":"b"}}}',
    '{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1,"reason":"user"}}',
    '{"jsonrpc":"2.0","method":"notifications/roots/list_changed"}',
    '{"jsonrpc":"2.0","id":"srv-1","result":{"roots":[]}}',
    '{"jsonrpc":"2.0","id":"srv-2","error":{"code":-32601,"message":"nope"}}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/calls","params":' + P + '}',
    '{"jsonrpc":"2.0","id":10,"method":"tools/call/x","params":' + P + '}',
    '{"jsonrpc":"2.0","id":11,"method":"Tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":12,"method":"TOOLS/CALL","params":' + P + '}',
    '{"jsonrpc":"2.0","id":13,"method":"tools/call ","params":' + P + '}',
    '{"jsonrpc":"2.0","id":14,"method":" tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":15,"method":"tools/call\\u0000","params":' + P + '}',
    '{"jsonrpc":"2.0","id":16,"method":"tools\\\\/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":17,"method":"tools/cal\\u006c\\u0000","params":' + P + '}',
    '{"jsonrpc":"2.0","id":18,"method":"tools/list","params":{"name":"tools/call"}}',
    '{"jsonrpc":"2.0","id":19,"method":"ping","params":{"method":"tools/call","id":1}}',
    '{"jsonrpc":"2.0","id":20,"result":{"method":"tools/call"}}',
])

group("plain tools/call with every kind of id", [call(i) for i in [
    '1', '0', '-1', '42', '9007199254740993', '9223372036854775807', '9223372036854775808',
    '18446744073709551615', '18446744073709551616', '-9223372036854775809', '1e400', '-1e400', '1.0', '1.5',
    '-0', '0.0', '1E2', '"abc"', '""', '"1"', '"\\u0000"', '"\\ud800"', '"\xe2\x82\xac"', 'null', 'true', 'false',
    '{}', '{"a":1}', '[]', '[1]', 'NaN', 'Infinity', '-Infinity', '123456789012345678901234567890',
]])

group("tools/call notifications (no id anywhere): relayed unchecked", [
    call(None),
    call(None, params='{"name":"a","_meta":{"progressToken":"t"}}'),
    call(None, params='{"name":"a","arguments":{"x":1}}'),
    call(None, params=None),
    '{"method":"tools/call","params":{"name":"a"}}',
    '{"jsonrpc":"2.0","method":"tools/call","params":{"name":"a","arguments":{"id":1}}}',
])

group("the member order of an ordinary call", [
    '{"method":"tools/call","params":' + P + ',"id":1,"jsonrpc":"2.0"}',
    '{"params":' + P + ',"id":2,"method":"tools/call"}',
    '{"id":3,"params":' + P + ',"method":"tools/call"}',
    '{"method":"tools/call","id":4}',
    '{"method":"tools/call","id":5,"params":{}}',
])

group("repeated envelope members", [
    '{"jsonrpc":"2.0","id":1,"method":"tools/list","method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":2,"method":"tools/call","method":"tools/list","params":' + P + '}',
    '{"jsonrpc":"2.0","method":"tools/list","id":3,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":4,"id":5,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":null,"id":6,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":7,"id":null,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"safe"},"params":' + P + '}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/call","params":' + P + ',"params":{"name":"safe"}}',
    '{"jsonrpc":"2.0","id":10,"method":"tools/call","params":{"name":"safe","name":"delete_everything"}}',
    '{"jsonrpc":"2.0","id":11,"method":"tools/call","params":{"name":"delete_everything","name":"safe"}}',
    '{"jsonrpc":"2.0","id":12,"method":"tools/call","params":{"name":"a","arguments":{"path":"/tmp"},"arguments":{"path":"/"}}}',
    '{"jsonrpc":"2.0","id":13,"method":"tools/call","params":{"name":"a","_meta":{"progressToken":1},"_meta":{}}}',
    '{"jsonrpc":"2.0","method":"tools/list","method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","method":"tools/call","params":{"name":"a","name":"b"}}',
    '{"jsonrpc":"2.0","id":14,"method":"tools/list","params":{},"params":{"name":"x"}}',
    '{"jsonrpc":"2.0","id":15,"method":"tools/call","params":{"name":"a","arguments":{"path":"/tmp","path":"/"}}}',
    '{"jsonrpc":"2.0","id":16,"method":"tools/call","params":{"name":"a","arguments":{"a":{"b":1,"b":2}}}}',
])

group("envelope members spelled in another case (Go matches them)", [
    '{"jsonrpc":"2.0","id":1,"method":"tools/list","Method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":2,"Method":"tools/call","method":"tools/list","params":' + P + '}',
    '{"jsonrpc":"2.0","id":3,"METHOD":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":4,"mEtHoD":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","ID":5,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","Id":6,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","iD":7,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":8,"ID":9,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":10,"method":"tools/call","Params":' + P + '}',
    '{"jsonrpc":"2.0","id":11,"method":"tools/call","PARAMS":' + P + '}',
    '{"jsonrpc":"2.0","id":12,"method":"tools/call","params":{"name":"safe"},"Params":' + P + '}',
    '{"jsonrpc":"2.0","id":13,"method":"tools/call","para\xc5\xbfms":' + P + ',"params":{"name":"safe"}}',
    '{"jsonrpc":"2.0","id":14,"method":"tools/call","params":{"name":"safe"},"param\xc5\xbf":' + P + '}',
    '{"jsonrpc":"2.0","id":15,"method":"tools/call","params":{"name":"safe","Name":"delete_everything"}}',
    '{"jsonrpc":"2.0","id":16,"method":"tools/call","params":{"name":"safe","NAME":"delete_everything"}}',
    '{"jsonrpc":"2.0","id":17,"method":"tools/call","params":{"name":"a","arguments":{"path":"/tmp"},"Arguments":{"path":"/"}}}',
    '{"jsonrpc":"2.0","id":18,"method":"tools/call","params":{"name":"a","arguments":{"path":"/tmp"},"argument\xc5\xbf":{"path":"/"}}}',
    '{"jsonrpc":"2.0","id":19,"method":"tools/call","params":{"name":"a","arguments":{"path":"/tmp"},"ARGUMENTS":{"path":"/"}}}',
    '{"jsonrpc":"2.0","id":20,"method":"tools/call","params":{"name":"a","_meta":{},"_META":{"progressToken":1}}}',
    '{"jsonrpc":"2.0","id":21,"method":"tools/call","params":{"name":"a","_Meta":{"progressToken":1}}}',
    '{"jsonrpc":"2.0","Method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","method":"tools/call","Params":' + P + '}',
    '{"jsonrpc":"2.0","Method":"tools/call","ID":22,"Params":' + P + '}',
    '{"jsonrpc":"2.0","id":23,"method":"tools/list","METHOD":"tools/list"}',
    '{"jsonrpc":"2.0","id":24,"Method":"ping"}',
    '{"jsonrpc":"2.0","ID":25,"method":"ping"}',
    '{"jsonrpc":"2.0","id":26,"method":"tools/call","\\u0050arams":' + P + ',"params":{"name":"safe"}}',
    '{"jsonrpc":"2.0","id":27,"\\u004dethod":"tools/call","method":"tools/list"}',
    '{"jsonrpc":"2.0","\\u0049\\u0044":28,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":29,"method":"tools/call","params":{"name":"safe","n\\u0041me":"delete_everything"}}',
    '{"jsonrpc":"2.0","id":30,"method":"tools/call","params":{"name":"safe","\xe2\x84\xaaind":"x"}}',
])

group("escapes inside member names and the method (exact after unescaping)", [
    '{"jsonrpc":"2.0","id":1,"method":"tools\\/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":2,"method":"\\u0074ools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":3,"method":"tools\\u002fcall","params":' + P + '}',
    '{"jsonrpc":"2.0","id":4,"method":"tools\\u002Fcall","params":' + P + '}',
    '{"jsonrpc":"2.0","id":5,"method":"\\u0074\\u006f\\u006f\\u006c\\u0073\\u002f\\u0063\\u0061\\u006c\\u006c","params":' + P + '}',
    '{"jsonrpc":"2.0","id":6,"\\u006dethod":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","\\u0069d":7,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","\\u0070arams":' + P + '}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"\\u006eame":"delete_everything"}}',
    '{"jsonrpc":"2.0","id":10,"method":"tools/call","params":{"name":"delete\\u005feverything"}}',
    '{"jsonrpc":"2.0","id":11,"method":"tools/list","\\u006dethod":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":12,"method":"tools/call","params":{"name":"delete_everything\\u0000"}}',
    '{"jsonrpc":"2.0","\\u0069\\u0064":13,"\\u006d\\u0065\\u0074\\u0068\\u006f\\u0064":"\\u0074ools\\/call","params":' + P + '}',
    '{"jsonrpc":"2.0","method":"\\u0074ools/call","params":' + P + '}',
])

group("whitespace between tokens", [
    '{ "jsonrpc" : "2.0" , "id" : 1 , "method" : "tools/call" , "params" : ' + P + ' }',
    '\t{"jsonrpc":"2.0",\t"id":2,\t"method":"tools/call","params":' + P + '}\t',
    '{\r"jsonrpc":"2.0",\r"id":3,\r"method":"tools/call",\r"params":' + P + '}',
    '   ' + call('4'),
    call('5') + '   ',
    call('6') + '\r',
    call('7') + '\r\r',
    call('8') + ' \r',
    '\r' + call('9'),
    '\r' + call('10') + '\r',
    call('11') + '\x0c',
    '\x0c' + call('12'),
    call('13') + '\x0b',
    call('14') + '\x00',
    '\x00' + call('15'),
    call('16') + '\xc2\xa0',
    '\xc2\xa0' + call('17'),
    call('18') + '\xe2\x80\xa8',
    '{"jsonrpc":"2.0","id":19,"method":\r"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":20,"method"\x0c:"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":21,"method":"tools/call","params":' + P + '}\x1c',
    '{"jsonrpc":"2.0","id":22,"method":"tools/call","params":' + P + '}\xc2\x85',
])

group("several messages on one line (Go's stream decoder and Python's universal newlines split here)", [
    '{"jsonrpc":"2.0","method":"notifications/initialized"}\r' + call('1'),
    '{"jsonrpc":"2.0","id":2,"method":"ping"}\r' + call('3') + '\r',
    '{"jsonrpc":"2.0","id":4,"method":"ping"} ' + call('5'),
    '{"jsonrpc":"2.0","id":6,"method":"ping"}' + call('7'),
    call('8') + call('9'),
    call('10') + '\r' + call('11'),
    '{"jsonrpc":"2.0","id":12,"method":"ping"}\r\r' + call('13'),
    '{"jsonrpc":"2.0","id":14,"method":"ping"}\r ' + call('15'),
    '[]\r' + call('16'),
    '{"jsonrpc":"2.0","id":17,"method":"ping"}\x0b' + call('18'),
    '{"jsonrpc":"2.0","id":19,"method":"ping"}\x0c' + call('20'),
    '{"jsonrpc":"2.0","id":21,"method":"ping"}\x1c' + call('22'),
    '{"jsonrpc":"2.0","id":23,"method":"ping"}\xc2\x85' + call('24'),
    '{"jsonrpc":"2.0","id":25,"method":"ping"}\xe2\x80\xa8' + call('26'),
    '{"jsonrpc":"2.0","method":"notifications/initialized"}\r' + call(None),
    'garbage\r' + call('27'),
    '{"jsonrpc":"2.0","id":28,"method":"ping"\r' + call('29'),
])

group("byte order marks", [
    '\xef\xbb\xbf' + call('1'),
    '\xef\xbb\xbf \t' + call('2'),
    '\xef\xbb\xbf\xef\xbb\xbf' + call('3'),
    ' \xef\xbb\xbf' + call('4'),
    call('5') + '\xef\xbb\xbf',
    '\xef\xbb\xbf{"jsonrpc":"2.0","method":"notifications/initialized"}',
    '\xef\xbb\xbf[' + call('6') + ']',
    '{"jsonrpc":"2.0","id":7,"\xef\xbb\xbfmethod":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":8,"method":"\xef\xbb\xbftools/call","params":' + P + '}',
])

LE = call('1', params='{"name":"delete_everything"}').encode('utf-16-le')
BE = call('2', params='{"name":"delete_everything"}').encode('utf-16-be')
U32 = call('3', params='{"name":"delete_everything"}').encode('utf-32-le')
group("other encodings of a whole line (json.loads on bytes detects UTF-16 and UTF-32)", [
    LE, BE, b'\xff\xfe' + LE, b'\xfe\xff' + BE, U32,
])

group("invalid UTF-8 and surrogates", [
    '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"delete_\xff_everything"}}',
    '{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"\xc3\x28\xa0\xa1\xe2\x82\xf0\x90\x80"}}',
    '{"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"over\xc0\xaflong\xe0\x80\xaf"}}',
    '{"jsonrpc":"2.0","id":4,"method":"tools/call","params":{"name":"surrogate\xed\xa0\x80bytes"}}',
    '{"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"\\ud800"}}',
    '{"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"\\udc00\\ud800"}}',
    '{"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"\\ud83d\\ude00"}}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"a\\ud800\\u0041"}}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/call\xff","params":' + P + '}',
    '{"jsonrpc":"2.0","id":10,"method":"tools/call\\ud800","params":' + P + '}',
    '{"jsonrpc":"2.0","id":11,"method\xff":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id\\udc00":12,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":13,"note":"\xff\xfe\xfd","method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":14,"method":"tools/call","params":' + P + '}\xff',
    '\xff{"jsonrpc":"2.0","id":15,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":16,"method":"tools/call","params":{"name":"a","arguments":{"p":"\xff\\ud800"}}}',
    '{"jsonrpc":"2.0","id":17,"method":"tools/call","params":{"name":"a\xed\xbf\xbf"}}',
    '{"jsonrpc":"2.0","method":"notifications/message","params":{"data":"\xff\xfe"}}',
    '{"jsonrpc":"2.0","id":18,"method":"ping","params":{"s":"\\udfff"}}',
])

group("numbers of every size and spelling", [
    '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"a","arguments":{"n":1e400}}}',
    '{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"a","arguments":{"n":-1e400,"path":"/"}}}',
    '{"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"a","arguments":{"n":NaN,"path":"/"}}}',
    '{"jsonrpc":"2.0","id":4,"method":"tools/call","params":{"name":"a","arguments":{"n":Infinity}}}',
    '{"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"a","arguments":{"n":123456789012345678901234567890}}}',
    '{"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"a","arguments":{"n":1e-400}}}',
    '{"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"a","arguments":{"n":-0.0}}}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"a","arguments":{"n":0.1}}}',
    '{"jsonrpc":"2.0","id":01,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":+1,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":.5,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":1.,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":0x10,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":-NaN,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":+Infinity,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":infinity,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":1e5,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":' + rep(400, '9') + ',"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":1,"method":"ping","params":{"n":NaN}}',
])

deep = 100000
group("deep nesting", [
    '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"a","arguments":{"x":' + rep(1000, '[') + rep(1000, ']') + '}}}',
    '{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"a","arguments":{"x":' + rep(deep, '[') + rep(deep, ']') + '}}}',
    '{"jsonrpc":"2.0","pad":' + rep(5000, '[') + '1' + rep(5000, ']') + ',"id":3,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":' + rep(600, '[') + rep(600, ']') + ',"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"a","arguments":' + rep(600, '[') + rep(600, ']') + '}}',
    rep(deep, '[') + rep(deep, ']'),
    '{"jsonrpc":"2.0","method":"notifications/x","params":' + rep(3000, '[') + rep(3000, ']') + '}',
])

group("params variants", [
    call('1', params='[]'),
    call('2', params='["delete_everything"]'),
    call('3', params='null'),
    call('4', params='"delete_everything"'),
    call('5', params=None),
    call('6', params='{"name":5}'),
    call('7', params='{"name":null}'),
    call('8', params='{}'),
    call('9', params='{"name":["delete_everything"]}'),
    call('10', params='{"name":{"name":"delete_everything"}}'),
    call('11', params='{"name":"delete_everything","arguments":"rm -rf /"}'),
    call('12', params='{"name":"delete_everything","arguments":42}'),
    call('13', params='{"name":"delete_everything","arguments":null}'),
    call('14', params='{"name":"delete_everything","arguments":["/"]}'),
    call('15', params='{"name":"delete_everything","_meta":{"progressToken":"tok"}}'),
    call('16', params='{"name":"delete_everything","_meta":{"progressToken":7}}'),
    call('17', params='{"name":"delete_everything","_meta":{"progressToken":{"a":1}}}'),
    call('18', params='{"name":"delete_everything","_meta":"x"}'),
    call('19', params='{"name":"a/b\\/c"}'),
    call('20', params='{"name":""}'),
    call('21', params='{"name":"' + rep(10000, 'n') + '"}'),
    call('22', params='{"name":"delete_everything","arguments":{"path":"/","big":"' + rep(1000000, 'x') + '"}}'),
    call('23', params='{"name":"delete_everything","arguments":{},"extra":{"name":"other"}}'),
    call('24', params='{"arguments":{"name":"delete_everything"}}'),
    call('25', params='{"name":"delete_everything","__proto__":{"name":"x"}}'),
])

group("batches (top-level arrays): relayed without inspection by design", [
    '[' + call('1') + ']',
    '[' + call('2') + ',' + call('3') + ']',
    '[{"jsonrpc":"2.0","id":4,"method":"tools/list"},' + call('5') + ']',
    '[' + call(None) + ']',
    '[[' + call('6') + ']]',
    ' [' + call('7') + '] ',
    '[]',
    '[1,2,3]',
    '[{"jsonrpc":"2.0","id":8,"method":"ping"}]',
    '[' + call('9') + ']\r',
])

group("lines that are not messages", [
    'hello',
    'Content-Length: 120',
    '{}',
    '[]',
    '42',
    'null',
    '"tools/call"',
    'true',
    '{"jsonrpc":"2.0","id":1,"method":"tools/call"',
    '{"jsonrpc":"2.0","id":2,"method":"tools/call","params":' + P + '}}',
    '{"jsonrpc":"2.0","id":3,"method":"tools/call","params":' + P + ',}',
    '{"jsonrpc":"2.0","id":4,"method":"tools/call",/*c*/"params":' + P + '}',
    '// {"jsonrpc":"2.0","id":5,"method":"tools/call"}',
    "{'jsonrpc':'2.0','id':6,'method':'tools/call','params':{'name':'x'}}",
    '{jsonrpc:"2.0",id:7,method:"tools/call",params:{name:"x"}}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"a\tb"}}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":"a\rb"}}',
    '{"jsonrpc":"2.0","id":10,"method":"tools\x00/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":11,"method":"tools/call","params":{"name":"a\\x41"}}',
    '{"jsonrpc":"2.0","id":12,"method":"tools/call","params":{"name":"a\\u12"}}',
    '{"jsonrpc":"2.0","id":13,"method":"tools/call","params":{"name":"a\\"}}',
    '{"jsonrpc":"2.0","id":14 "method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":15,"method":tools/call,"params":' + P + '}',
    '{"jsonrpc":"2.0","id":True,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":undefined,"method":"tools/call","params":' + P + '}',
])

group("method values of other types and other envelopes", [
    '{"jsonrpc":"2.0","id":1,"method":["tools/call"],"params":' + P + '}',
    '{"jsonrpc":"2.0","id":2,"method":{"name":"tools/call"},"params":' + P + '}',
    '{"jsonrpc":"2.0","id":3,"method":null,"params":' + P + '}',
    '{"jsonrpc":"2.0","id":4,"method":1,"params":' + P + '}',
    '{"jsonrpc":"2.0","id":5,"method":true,"params":' + P + '}',
    '{"jsonrpc":"1.0","id":6,"method":"tools/call","params":' + P + '}',
    '{"id":7,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":8,"method":"tools/call","params":' + P + ',"result":{}}',
    '{"jsonrpc":"2.0","id":9,"method":"tools/call","params":' + P + ',"error":{"code":1,"message":"m"}}',
    '{"__proto__":{"method":"tools/call","id":10,"params":' + P + '},"jsonrpc":"2.0"}',
    '{"jsonrpc":"2.0","id":11,"__proto__":{"method":"tools/call"},"method":"ping"}',
    '{"jsonrpc":"2.0","constructor":{"method":"tools/call"},"id":12,"method":"ping"}',
    '{"jsonrpc":"2.0","id":13,"method":"tools/call","method":null,"params":' + P + '}',
    '{"jsonrpc":"2.0","id":14,"method":"tools/call","method":5,"params":' + P + '}',
    '{"jsonrpc":"2.0","id":15,"Method":5,"method":"tools/call","params":' + P + '}',
    '{"jsonrpc":"2.0","id":16,"method":"tools/call","Method":null,"params":' + P + '}',
])


def encode_entry(line: bytes) -> str:
    out = []
    text = line.decode("utf-8", errors="surrogateescape")
    in_repeat = False
    for ch in text:
        cp = ord(ch)
        if ch == "\x02":
            out.append("}" if in_repeat else "\\*{")
            in_repeat = not in_repeat
        elif ch == "\x03":
            out.append("}{")
        elif 0xDC80 <= cp <= 0xDCFF:
            out.append("\\x{%02X}" % (cp - 0xDC00))
        elif cp < 0x20 or cp == 0x7F:
            out.append("\\x{%02X}" % cp)
        else:
            out.append(ch)
    return "".join(out)


def main():
    out = sys.stdout
    out.write("# Differential corpus of client lines; generated by make_corpus.py (see there for the notation).\n")
    total = 0
    for title, lines in groups:
        out.write("\n# " + title + "\n")
        for line in lines:
            assert b"\n" not in expand(line), "a corpus line cannot hold LF"
            # The escape notation must not collide with the text itself.
            assert b"\\x{" not in line and b"\\*{" not in line
            out.write(encode_entry(line) + "\n")
            total += 1
    sys.stderr.write("%d lines\n" % total)


if __name__ == "__main__":
    main()
