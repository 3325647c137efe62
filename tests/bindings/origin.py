#!/usr/bin/env python3
"""An HTTP server for tests: resources with ranges, an echo, uploads, S3's multipart protocol.

GET, HEAD /file...          the resource, with ranges; requests wait while the origin is held
GET, HEAD /missing...       404
POST /echo                  the request's body and headers as JSON; 422 when it is not JSON
PUT /anything               stored in Origin.objects
POST ?uploads, PUT ?partNumber, POST ?uploadId    S3's multipart upload, stored likewise

usage: origin.py PORT_FILE [SIZE]    serves SIZE bytes at /file until it is ended
"""

import hashlib
import http.server
import json
import random
import re
import sys
import threading
import urllib.parse

PATIENCE = 60


class Origin:
    """Runs from construction until close(); on a free port of 127.0.0.1."""

    def __init__(self, body=b""):
        self.body = body
        self.condition = threading.Condition()
        self.requests = []        # (verb, path, headers)
        self.objects = {}         # path -> bytes
        self.parts = {}           # upload id -> {number: bytes}
        self.answers_left = None  # complete answers until requests are held; None: all
        self.held = 0
        self.fail_with = []       # statuses of the next answers to ranges past the first
        origin = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def setup(self):
                super().setup()
                self.connection.settimeout(PATIENCE)

            def log_message(self, *_):
                pass

            def handle_any(self):
                length = int(self.headers.get("Content-Length", 0))
                content = self.rfile.read(length) if length else b""
                with origin.condition:
                    origin.requests.append((self.command, self.path, dict(self.headers)))
                    origin.condition.notify_all()
                path, _, query = self.path.partition("?")
                status, headers, body = origin.answer(self.command, path, query, self.headers,
                                                      content)
                self.send_response(status)
                for name, value in headers.items():
                    self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                if self.command != "HEAD":
                    self.wfile.write(body)

            do_GET = do_HEAD = do_PUT = do_POST = do_PATCH = do_DELETE = handle_any

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True
            request_queue_size = 64

            def handle_error(self, *_):
                pass  # clients of these tests are cut off on purpose

        self.server = Server(("127.0.0.1", 0), Handler)
        self.port = self.server.server_address[1]
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()

    def close(self):
        self.hold_after(None)
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()

    def url(self, path="/file.bin"):
        return f"http://127.0.0.1:{self.port}{path}"

    def hold_after(self, answers):
        """Requests for the resource wait once so many more were answered; None: no longer."""
        with self.condition:
            self.answers_left = answers
            self.condition.notify_all()

    def wait_until_held(self):
        with self.condition:
            if not self.condition.wait_for(lambda: self.held > 0, PATIENCE):
                raise AssertionError("no request came")

    def answer(self, verb, path, query, headers, content):
        if path.startswith("/missing"):
            return 404, {"Content-Type": "text/plain"}, b"no such thing here\n"
        if path.startswith("/echo"):
            try:
                document = json.loads(content) if content else None
            except ValueError:
                return 422, {"Content-Type": "text/plain"}, b"not JSON\n"
            return (200, {"Content-Type": "application/json"},
                    json.dumps({"verb": verb, "query": query, "headers": dict(headers),
                                "document": document}).encode())
        if verb in ("GET", "HEAD"):
            return self.resource(verb, headers)
        return self.store(verb, path, query, content)

    def resource(self, verb, headers):
        wanted = re.fullmatch(r"bytes=(\d+)-(\d*)", headers.get("Range") or "")
        with self.condition:
            if verb == "GET" and self.answers_left is not None:
                if self.answers_left == 0:
                    self.held += 1
                    self.condition.notify_all()
                    self.condition.wait_for(lambda: self.answers_left != 0, PATIENCE)
                    self.held -= 1
                if self.answers_left:
                    self.answers_left -= 1
            if self.fail_with and wanted and wanted[1] != "0":
                return self.fail_with.pop(0), {"Content-Type": "text/plain"}, b"not now\n"
        fields = {"ETag": '"first"', "Accept-Ranges": "bytes"}
        if not wanted:
            return 200, fields, self.body
        first = int(wanted[1])
        last = min(int(wanted[2] or len(self.body)), len(self.body) - 1)
        if first > last:
            return 416, {"Content-Range": f"bytes */{len(self.body)}"}, b""
        fields["Content-Range"] = f"bytes {first}-{last}/{len(self.body)}"
        return 206, fields, self.body[first:last + 1]

    def store(self, verb, path, query, content):
        fields = urllib.parse.parse_qs(query, keep_blank_values=True)
        xml = {"Content-Type": "application/xml"}
        with self.condition:
            if verb == "POST" and "uploads" in fields:
                name = f"upload-{len(self.parts) + 1}"
                self.parts[name] = {}
                return 200, xml, f"<R><UploadId>{name}</UploadId></R>".encode()
            if verb == "PUT" and "partNumber" in fields:
                self.parts[fields["uploadId"][0]][int(fields["partNumber"][0])] = content
                return 200, {"ETag": f'"{hashlib.md5(content).hexdigest()}"'}, b""
            if verb == "POST" and "uploadId" in fields:
                parts = self.parts[fields["uploadId"][0]]
                listed = [(int(number), tag) for number, tag in re.findall(
                    r"<PartNumber>(\d+)</PartNumber><ETag>\"(\w+)\"</ETag>", content.decode())]
                if listed != [(n, hashlib.md5(parts[n]).hexdigest()) for n in sorted(parts)]:
                    return 400, xml, b"<Error><Code>InvalidPart</Code></Error>"
                self.objects[path] = b"".join(parts[n] for n in sorted(parts))
                return 200, xml, b"<CompleteMultipartUploadResult/>"
            self.objects[path] = content
        return 201, {}, b"stored"


def sample(size, seed=1):
    return random.Random(seed).randbytes(size)


def main():
    origin = Origin(sample(int(sys.argv[2]) if len(sys.argv) > 2 else 1 << 20))
    with open(sys.argv[1], "w", encoding="ascii") as file:
        file.write(f"{origin.port} {hashlib.sha256(origin.body).hexdigest()}\n")
    threading.Event().wait()


if __name__ == "__main__":
    main()
