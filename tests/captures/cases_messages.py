"""Cases: what messages say and how they are written."""

from kit import CLIENT, HOST, HTML, SERVER, head, new_list_of_cases, ok

CASES, case = new_list_of_cases()


# ---- ordinary traffic --------------------------------------------------------------------

@case
def visit(capture):
    """A page and its parts over one connection; this case is written in other formats as well."""
    connection = capture.connect()
    connection.exchange(
        head("GET / HTTP/1.1", HOST),
        ok(b"<p>Hello</p>", content_type="text/html; charset=utf-8"),
        "GET www.example.test / 200 text/html 12  1 1 1 1")
    connection.exchange(
        head("GET /style.css?v=2 HTTP/1.1", HOST, "Referer: http://www.example.test/"),
        ok(b"p{color:red}", content_type="text/css"),
        "GET www.example.test /style.css?v=2 200 text/css 12  1 1 1 0")
    connection.exchange(
        head("GET /dot.gif HTTP/1.1", HOST, "Referer: http://www.example.test/"),
        ok(b"GIF89a\x01\0\x01\0\x80\0\0\xff\xff\xff\0\0\0"
           b",\0\0\0\0\x01\0\x01\0\0\x02\x02D\x01\0;", content_type="image/gif"),
        "GET www.example.test /dot.gif 200 image/gif 35  1 0 1 0")
    connection.exchange(
        head("POST /login HTTP/1.1", HOST, "Referer: http://www.example.test/",
             "Content-Length: 9") + b"user=anna",
        head("HTTP/1.1 301 Moved Permanently", "Location: /in", HTML, "Content-Length: 0"),
        "POST www.example.test /login 301 text/html 0  1 1 0 0")
    connection.close(first=CLIENT)


@case
def interleaved(capture):
    """Two connections at a time, and a third with the ports of one that is over."""
    slow = capture.connect("10.0.0.5:40001")
    fast = capture.connect("10.0.0.6:40001", "203.0.113.80:8080")
    slow_time = slow.client(head("GET /slow HTTP/1.1", HOST))
    fast_time = fast.client(head("GET /fast HTTP/1.1", HOST))
    slow.server(ok(b"0123456789")[:-7])
    fast.server(ok(b"quick"))
    fast.row(fast_time, "GET www.example.test /fast 200 text/html 5  1 1 1 1")
    slow.server(b"3456789")
    slow.row(slow_time, "GET www.example.test /slow 200 text/html 10  1 1 1 1")
    slow.close()
    again = capture.connect("10.0.0.5:40001", starts=(900_000, 700_000))
    again.exchange(
        head("GET /again HTTP/1.1", HOST),
        ok(b"new"),
        "GET www.example.test /again 200 text/html 3  1 1 1 1")
    again.close()
    fast.close()


@case
def pipelining(capture):
    """Requests that do not wait, with HEADs among them: their responses have no body."""
    connection = capture.connect()
    # All in one packet, so that all requests have its time; the last one comes in two packets.
    time = connection.client(
        head("GET /a HTTP/1.1", HOST)
        + head("HEAD /b HTTP/1.1", HOST)
        + head("HEAD /c HTTP/1.1", HOST)
        + head("GET /d HTTP/1.1", HOST)
        + head("GET /e HTTP/1.1", HOST)[:9])
    connection.client(head("GET /e HTTP/1.1", HOST)[9:])
    answers = (
        ok(b"first")
        + head("HTTP/1.1 200 OK", "Content-Type: image/png", "Content-Length: 5000")
        + head("HTTP/1.1 200 OK", "Content-Type: text/html", "Transfer-Encoding: chunked")
        + ok(b"second", content_type="text/plain")
        + head("HTTP/1.1 404 Not Found", HTML, "Content-Length: 4") + b"none")
    # The packets end within a status line, a header and a body.
    connection.server(answers[:75], answers[75:110], answers[110:-2], answers[-2:])
    connection.row(time, "GET www.example.test /a 200 text/html 5  1 1 1 1")
    connection.row(time, "HEAD www.example.test /b 200 image/png 0  1 0 1 0")
    connection.row(time, "HEAD www.example.test /c 200 text/html 0  1 1 1 1")
    connection.row(time, "GET www.example.test /d 200 text/plain 6  1 1 1 1")
    connection.row(time, "GET www.example.test /e 404 text/html 4  1 1 0 1")
    connection.close()


@case
def interim_answers(capture):
    """100 Continue and 103 Early Hints: no rows of their own, and nothing shifts."""
    connection = capture.connect()
    time = connection.client(head("POST /upload HTTP/1.1", HOST, "Expect: 100-continue",
                                  "Content-Type: text/plain", "Content-Length: 16"))
    connection.server(head("HTTP/1.1 100 Continue"))
    connection.client(b"eight...", b"and more")
    connection.server(head("HTTP/1.1 201 Created", "Content-Type: application/json",
                           "Content-Length: 8") + b'{"id":1}')
    connection.row(time, "POST www.example.test /upload 201 application/json 8  1 1 1 1")
    # Two interim answers, in one packet with the final one.
    connection.exchange(
        head("GET /page HTTP/1.1", HOST),
        head("HTTP/1.1 103 Early Hints", "Link: </style.css>; rel=preload")
        + head("HTTP/1.1 102 Processing", "Content-Type: text/x-interim")
        + ok(b"page"),
        "GET www.example.test /page 200 text/html 4  1 1 1 1")
    # The client lost patience and sent the body; 100 comes late, the answer at once after it.
    time = connection.client(head("PUT /late HTTP/1.1", HOST, "Expect: 100-Continue",
                                  "Content-Length: 3"), b"abc")
    connection.server(head("HTTP/1.1 100 Continue") + head("HTTP/1.1 204 No Content"))
    connection.row(time, "PUT www.example.test /late 204 - 0  1 0 0 0")
    connection.close()


@case
def chunked(capture):
    """Chunks with extensions and trailers, cut into packets at the worst places."""
    connection = capture.connect()
    # 5 + 26 + 1 = 32 bytes of body; packets end within a size, between CR and LF, within data.
    time = connection.client(head("GET /list HTTP/1.1", HOST))
    connection.server(
        head("HTTP/1.1 200 OK", HTML, "Transfer-Encoding: chunked") + b"0000",
        b"5;note=first\r", b"\nhel", b"lo\r", b"\n1",
        b"A ; a=b;quoted=\"x;y\"\r\nabcdefghijklmnopqrstuvwxyz", b"\r\n1\r\n!\r\n0",
        b";last\r\nX-Check", b": 1\r\nX-More: 2\r\n", b"\r\n")
    connection.row(time, "GET www.example.test /list 200 text/html 32  1 1 1 1")
    # Other codings before it, odd case; what Content-Length says does not count then.
    connection.exchange(
        head("GET /both HTTP/1.1", HOST),
        head("HTTP/1.1 200 OK", "Content-Type: text/plain", "Content-Length: 4000",
             "Transfer-Encoding: gzip, Chunked") + b"a\r\n0123456789\r\n0\r\n\r\n",
        "GET www.example.test /both 200 text/plain 10  1 1 1 1")
    # A request with chunks and a trailer, and an empty chunked response.
    connection.exchange(
        head("POST /send HTTP/1.1", HOST, "Transfer-Encoding: chunked")
        + b"3\r\nabc\r\n2;x\r\nde\r\n0\r\nX-Sum: 9\r\n\r\n",
        head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked") + b"0\r\n\r\n",
        "POST www.example.test /send 200 - 0  1 0 1 0")
    connection.exchange(
        head("GET /after HTTP/1.1", HOST),
        ok(b"in step"),
        "GET www.example.test /after 200 text/html 7  1 1 1 1")
    connection.close()


@case
def no_body(capture):
    """204 and 304 have no body, whatever their headers promise."""
    connection = capture.connect()
    connection.exchange(
        head("GET /page HTTP/1.1", HOST, 'If-None-Match: "1"'),
        head("HTTP/1.1 304 Not Modified", 'ETag: "1"'),
        "GET www.example.test /page 304 - 0  1 0 1 0")
    connection.exchange(
        head("GET /page HTTP/1.1", HOST, 'If-None-Match: "1"'),
        head("HTTP/1.1 304 Not Modified", HTML, "Content-Length: 1234"),
        "GET www.example.test /page 304 text/html 0  1 1 1 1")
    connection.exchange(
        head("DELETE /item HTTP/1.1", HOST),
        head("HTTP/1.1 204 No Content"),
        "DELETE www.example.test /item 204 - 0  1 0 0 0")
    connection.exchange(
        head("GET /beacon HTTP/1.1", HOST),
        head("HTTP/1.1 204 No Content", "Content-Type: text/plain", "Transfer-Encoding: chunked"),
        "GET www.example.test /beacon 204 text/plain 0  1 1 0 1")
    connection.exchange(
        head("GET /after HTTP/1.1", HOST),
        ok(b"in step"),
        "GET www.example.test /after 200 text/html 7  1 1 1 1")
    connection.close()


@case
def until_close(capture):
    """Bodies without a length, which end with the connection."""
    connection = capture.connect("10.0.0.5:40001")
    time = connection.client(head("GET /old HTTP/1.0"))
    connection.server(head("HTTP/1.0 200 OK", HTML) + b"<p>One", b" two</p>")
    connection.close()
    connection.row(time, "GET - /old 200 text/html 14  1 1 1 1")

    # The client ends its side first and still gets its answer.
    connection = capture.connect("10.0.0.5:40002")
    time = connection.client(head("GET /half HTTP/1.0", HOST))
    connection.fin(CLIENT)
    connection.server(head("HTTP/1.0 200 OK", "Content-Type: text/plain") + b"still here")
    connection.fin(SERVER)
    connection.row(time, "GET www.example.test /half 200 text/plain 10  1 1 1 1")

    # The last bytes come in the packet that ends the connection.
    connection = capture.connect("10.0.0.5:40003")
    time = connection.client(head("GET /last HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Connection: close") + b"abc")
    connection.fin(SERVER, b"defg")
    connection.fin(CLIENT)
    connection.row(time, "GET www.example.test /last 200 text/html 7  1 1 1 1")

    # A transfer coding that is not chunked leaves the length to the connection as well.
    connection = capture.connect("10.0.0.5:40004")
    time = connection.client(head("GET /packed HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Transfer-Encoding: gzip") + b"12345")
    connection.close()
    connection.row(time, "GET www.example.test /packed 200 text/html 5  1 1 1 1")


# ---- how messages are written ------------------------------------------------------------

@case
def header_forms(capture):
    """Folded headers, bare line feeds, odd case, blanks, no reason phrase."""
    connection = capture.connect()
    connection.exchange(
        head("GET /folded HTTP/1.1", "Referer:", "  http://www.example.test/page",
             "HOST:\twww.example.test \t"),
        head("HTTP/1.1 200 OK", "content-TYPE: text/plain", "\t; charset=utf-8",
             "CONTENT-LENGTH:", " 4") + b"fold",
        "GET www.example.test /folded 200 text/plain 4  1 1 1 0")
    connection.exchange(
        b"GET /bare HTTP/1.1\nhost:www.example.test\nreferer:http://other.example.net/\n\n",
        b"HTTP/1.1 200 OK\nContent-type:text/html;charset=utf-8\ncontent-length:3\n\n1\n2",
        "GET www.example.test /bare 200 text/html 3  1 1 1 1")
    connection.exchange(
        b"GET /mixed HTTP/1.1\r\nHost: www.example.test\n\r\n",
        b"HTTP/1.1 200\r\nContent-Type: Text/HTML\nTransfer-Encoding: CHUNKED\n\n"
        b"4\nwiki\n2\r\nok\n0\r\n\n",
        "GET www.example.test /mixed 200 Text/HTML 6  1 0 1 0")
    connection.exchange(
        head("GET /none HTTP/1.1", HOST),
        head("HTTP/1.1 500", "Content-Length: 0", "X-Content-Type: text/html"),
        "GET www.example.test /none 500 - 0  1 0 0 0")
    connection.close()


@case
def stray_line_ends(capture):
    """Blank lines before a request, which old browsers send after a POST, belong to nobody."""
    connection = capture.connect()
    connection.exchange(
        head("POST /form HTTP/1.1", HOST, "Content-Length: 3") + b"a=1\r\n",
        ok(b"done"),
        "POST www.example.test /form 200 text/html 4  1 1 1 1")
    connection.client(b"\r\n")
    connection.exchange(
        head("GET /next HTTP/1.1", HOST),
        ok(b"next"),
        "GET www.example.test /next 200 text/html 4  1 1 1 1")
    connection.close()


@case
def methods(capture):
    """Any token is a method, any port will do, and the target stays as it was sent."""
    connection = capture.connect("10.0.0.5:40001", "203.0.113.80:4711")
    connection.exchange(
        head("BREW /pot HTTP/1.1", "Host: www.example.test:4711"),
        head("HTTP/1.1 418 I'm a teapot", HTML, "Content-Length: 5") + b"short",
        "BREW www.example.test:4711 /pot 418 text/html 5  1 1 0 1")
    connection.exchange(
        head("x-Kp.9!#$%&'*+^_`|~ /odd HTTP/1.1", "Host: www.example.test:4711"),
        ok(b"{}", content_type="application/json"),
        "x-Kp.9!#$%&'*+^_`|~ www.example.test:4711 /odd 200 application/json 2  1 1 1 1")
    connection.exchange(
        head("OPTIONS * HTTP/1.1", "Host: www.example.test:4711"),
        head("HTTP/1.1 200 OK", "Allow: GET", "Content-Length: 0"),
        "OPTIONS www.example.test:4711 * 200 - 0  1 0 1 0")
    connection.exchange(
        head("GET http://www.example.test/via-proxy HTTP/1.1", HOST),
        ok(b"proxy"),
        "GET www.example.test http://www.example.test/via-proxy 200 text/html 5  1 1 1 1")
    connection.close()
    # The same with the ports the other way round: who asks is the client.
    connection = capture.connect("10.0.0.5:80", "203.0.113.80:50123")
    connection.exchange(
        head("PROPFIND /files/ HTTP/1.1", HOST, "Depth: 1"),
        head("HTTP/1.1 207 Multi-Status", "Content-Type: application/xml",
             "Content-Length: 4") + b"<a/>",
        "PROPFIND www.example.test /files/ 207 application/xml 4  1 1 0 1")
    connection.close()


@case
def escapes(capture):
    """Bytes that would break a line of columns are written as numbers; no Host is a dash."""
    connection = capture.connect()
    connection.exchange(
        head("GET /tab\there HTTP/1.1", HOST),
        ok(b"1"),
        r"GET www.example.test /tab\x09here 200 text/html 1  1 1 1 1")
    connection.exchange(
        head("GET /back\\slash\\x41 HTTP/1.1", HOST),
        ok(b"2"),
        r"GET www.example.test /back\x5Cslash\x5Cx41 200 text/html 1  1 1 1 1")
    connection.exchange(
        head(b"GET /caf\xe9?\xff\x80=\x01\x7f HTTP/1.1", HOST),
        ok(b"3"),
        r"GET www.example.test /caf\xE9?\xFF\x80=\x01\x7F 200 text/html 1  1 1 1 1")
    connection.exchange(
        head("GET /%41~\"'<>|{}^`,;:@!$&()*+=[]# HTTP/1.1", "Host: b\xfccher.test"),
        ok(b"4", content_type="text/x\\y\xa0z; charset=none"),
        r"""GET b\xFCcher.test /%41~"'<>|{}^`,;:@!$&()*+=[]# 200 text/x\x5Cy\xA0z 1  1 1 1 1""")
    connection.exchange(
        head("GET /no-host HTTP/1.1"),
        ok(b"5"),
        "GET - /no-host 200 text/html 1  1 1 1 1")
    # Without a Host every Referer counts as one of the site's own.
    connection.exchange(
        head("GET /no-host HTTP/1.1", "Referer: http://other.example.net/"),
        ok(b"6"),
        "GET - /no-host 200 text/html 1  1 1 1 0")
    connection.close()


@case
def decoys(capture):
    """What looks like HTTP within a body is a body; other protocols make no rows."""
    connection = capture.connect("10.0.0.5:40001")
    # 36 bytes each way.
    connection.exchange(
        head("POST /log HTTP/1.1", HOST, "Content-Type: text/plain", "Content-Length: 36")
        + b"GET /false HTTP/1.1\r\nHost: false\r\n\r\n",
        head("HTTP/1.1 200 OK", HTML, "Content-Length: 36")
        + b"HTTP/1.1 404 False\r\nX: 123456789\r\n\r\n",
        "POST www.example.test /log 200 text/html 36  1 1 1 1")
    connection.exchange(
        head("GET /after HTTP/1.1", HOST),
        ok(b"in step"),
        "GET www.example.test /after 200 text/html 7  1 1 1 1")
    connection.close()

    ssh = capture.connect("10.0.0.5:40002", "203.0.113.80:22")
    ssh.server(b"SSH-2.0-OpenSSH_9.2\r\n")
    ssh.client(b"SSH-2.0-Client_1.0\r\n")
    ssh.close()

    tls = capture.connect("10.0.0.5:40003", "203.0.113.80:443")
    tls.client(b"\x16\x03\x01\x00\x2f\x01\x00\x00\x2b\x03\x03" + bytes(range(32)) + b"\0" * 9)
    tls.server(b"\x15\x03\x03\x00\x02\x02\x28")
    tls.close()

    mail = capture.connect("10.0.0.5:40004", "203.0.113.80:25")
    mail.server(b"220 mail.example.test ESMTP\r\n")
    mail.client(b"HELO client.example.test\r\n")
    mail.server(b"250 OK\r\n")
    mail.client(b"QUIT\r\n")
    mail.close()

    almost = capture.connect("10.0.0.5:40005")
    almost.client(b"GET /no-version\r\nHost: www.example.test\r\n\r\n")
    almost.server(b"<p>an answer of the first days</p>")
    almost.close()

    capture.connect("10.0.0.5:40006").close()
