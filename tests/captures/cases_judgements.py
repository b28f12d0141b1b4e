"""Cases: the judgements at the end of a row."""

from kit import HOST, head, new_list_of_cases, ok

CASES, case = new_list_of_cases()


@case
def ranges(capture):
    """Client or server inside 10.0.0.0 to 10.0.0.255; the others are printed with --all only."""
    for port, (client, server, inside) in enumerate([
            ("192.0.2.7", "198.51.100.1", 0),
            ("192.0.2.7", "10.0.0.80", 1),
            ("10.0.0.0", "198.51.100.1", 1),
            ("10.0.0.255", "198.51.100.1", 1),
            ("10.0.1.0", "198.51.100.1", 0),
            ("9.255.255.255", "198.51.100.1", 0),
            ("223.255.255.254", "203.0.113.80", 0),
            ("10.0.0.1", "10.0.0.2", 1)], 40001):
        connection = capture.connect("%s:%d" % (client, port), server + ":80")
        connection.exchange(
            head("GET /who HTTP/1.1", HOST),
            ok(b"you"),
            "GET www.example.test /who 200 text/html 3  %d 1 1 1" % inside)
        connection.close()


@case
def judgements(capture):
    """Content types and statuses; a type is content or not as it is spelt, in lower case."""
    connection = capture.connect()
    for number, (status, content_type, judged) in enumerate([
            ("200", "text/html", "1 1 1 1"),
            ("200", "TEXT/HTML", "1 0 1 0"),
            ("201", "application/json", "1 1 1 1"),
            ("202", "audio/mpeg", "1 1 1 1"),
            ("203", "video/mp4", "1 1 1 1"),
            ("206", "text/plain", "1 1 0 1"),
            ("200", "image/svg+xml", "1 0 1 0"),
            ("200", "font/woff2", "1 0 1 0"),
            ("200", "x-application/x-sheet", "1 1 1 1"),
            ("301", "text/html", "1 1 0 1"),
            ("302", "image/png", "1 0 0 0"),
            ("404", "text/html", "1 1 0 1"),
            ("500", "text/plain", "1 1 0 1"),
            ("599", "image/png", "1 0 0 0")]):
        connection.exchange(
            head("GET /%d HTTP/1.1" % number, HOST),
            head("HTTP/1.1 %s Said" % status, "Content-Type: " + content_type,
                 "Content-Length: 2") + b"ab",
            "GET www.example.test /%d %s %s 2  %s" % (number, status, content_type, judged))
    connection.close()


@case
def entry_points(capture):
    """Content is an entry point unless the Referer names the Host, letter case aside."""
    connection = capture.connect()
    far = "http://other.example.net/" + "x" * 1000 + "/www.example.test"
    for number, (referer, content_type, judged) in enumerate([
            ("Referer: http://www.example.test/page", "text/html", "1 1 1 0"),
            ("Referer: HTTP://WWW.Example.TEST/page", "text/html", "1 1 1 0"),
            ("Referer: http://search.example.net/?q=ferry", "text/html", "1 1 1 1"),
            ("Referer: http://search.example.net/?q=www.example.test", "text/html", "1 1 1 0"),
            ("Referer: http://search.example.net/?q=ferry", "image/png", "1 0 1 0"),
            ("Referer:", "text/html", "1 1 1 1"),
            ("referer:\thttp://www.example.test/", "text/html", "1 1 1 0"),
            # A Referer counts with its first 1022 characters.
            ("Referer: " + far, "text/html", "1 1 1 1")]):
        connection.exchange(
            head("GET /%d HTTP/1.1" % number, HOST, referer),
            ok(b"ab", content_type=content_type),
            "GET www.example.test /%d 200 %s 2  %s" % (number, content_type, judged))
    connection.exchange(
        head("GET /port HTTP/1.1", "Host: WWW.example.test:8080",
             "Referer: http://www.example.test:8080/"),
        ok(b"ab"),
        "GET WWW.example.test:8080 /port 200 text/html 2  1 1 1 0")
    connection.exchange(
        head("GET /other-port HTTP/1.1", "Host: www.example.test:8080",
             "Referer: http://www.example.test/"),
        ok(b"ab"),
        "GET www.example.test:8080 /other-port 200 text/html 2  1 1 1 1")
    connection.close()
