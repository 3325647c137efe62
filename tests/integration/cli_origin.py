"""A web server that the tests of the program steer."""

import http.server
import re
import ssl
import threading

PATIENCE = 60


class Origin:
    """A server of one resource that answers ranges, and holds or fails requests on demand."""

    def __init__(self, body, certificate=None):
        self.body = body
        self.etag = '"first"'
        self.lock = threading.Condition()
        self.served = 0          # body bytes of complete answers
        self.requests = []       # (verb, path, range, headers)
        self.answers_left = None  # complete answers before the next request is held; None: all
        self.held = 0
        self.fail_with = []      # statuses of the next answers to ranges past the first
        self.uploads = {}
        self.begun = set()
        self.extra_headers = []
        origin = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *_):
                pass

            def do_HEAD(self):
                self.answer(head=True)

            def do_GET(self):
                self.answer(head=False)

            def do_PUT(self):
                size = int(self.headers["Content-Length"])
                origin.begun.add(self.path)
                origin.uploads[self.path] = self.rfile.read(size)
                if self.path == "/stalling":
                    self.send_response(201)
                    self.send_header("Content-Length", "10")
                    self.end_headers()
                    with origin.lock:
                        origin.held += 1
                        origin.lock.notify_all()
                        origin.lock.wait_for(lambda: origin.answers_left is None, PATIENCE)
                        origin.held -= 1
                    return
                self.reply(201, b"")

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                status = 400 if self.path == "/bad" else 200
                self.reply(status, self.command.encode() + b" " + body, [("X-Answer", "yes\x1b[2J")])

            do_PATCH = do_DELETE = do_OPTIONS = do_POST

            def reply(self, status, body, headers=()):
                self.send_response(status)
                for name, value in headers:
                    self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def answer(self, head):
                wanted = self.headers.get("Range")
                with origin.lock:
                    origin.requests.append((self.command, self.path, wanted, dict(self.headers)))
                    if self.path.startswith("/missing"):
                        fail = 404
                    elif origin.fail_with and wanted and not wanted.startswith("bytes=0-"):
                        fail = origin.fail_with.pop(0)
                    else:
                        fail = None
                    if fail is None and not head and origin.answers_left is not None:
                        if origin.answers_left == 0:
                            origin.held += 1
                            origin.lock.notify_all()
                            origin.lock.wait_for(lambda: origin.answers_left != 0, PATIENCE)
                            origin.held -= 1
                        if origin.answers_left:
                            origin.answers_left -= 1
                if fail is not None:
                    self.reply(fail, b"no such thing here\n", [("Content-Type", "text/plain")])
                    return
                body, status = origin.body, 200
                headers = [("ETag", origin.etag), ("Accept-Ranges", "bytes"), *origin.extra_headers]
                if head:
                    self.send_response(200)
                    for name, value in headers:
                        self.send_header(name, value)
                    self.send_header("Content-Length", str(len(body)))
                    self.end_headers()
                    return
                match = re.fullmatch(r"bytes=(\d+)-(\d*)", wanted or "")
                if match and int(match[1]) >= len(body):
                    self.reply(416, b"", [("Content-Range", f"bytes */{len(body)}")])
                    return
                if match:
                    first = int(match[1])
                    last = min(int(match[2] or len(body)), len(body) - 1)
                    status = 206
                    headers.append(("Content-Range", f"bytes {first}-{last}/{len(body)}"))
                    body = body[first:last + 1]
                try:
                    self.reply(status, body, headers)
                except OSError:
                    return
                with origin.lock:
                    origin.served += len(body)

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True
            request_queue_size = 64

            def handle_error(self, *_):
                pass  # clients of these tests are killed on purpose

        self.server = Server(("127.0.0.1", 0), Handler)
        self.scheme = "http"
        if certificate:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(*certificate)
            self.server.socket = context.wrap_socket(self.server.socket, server_side=True,
                                                     do_handshake_on_connect=False)
            self.scheme = "https"
        self.port = self.server.server_address[1]
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()

    def url(self, path="/file.bin", user=""):
        return f"{self.scheme}://{user}127.0.0.1:{self.port}{path}"

    def hold_after(self, answers):
        with self.lock:
            self.answers_left = answers

    def release(self):
        with self.lock:
            self.answers_left = None
            self.lock.notify_all()

    def wait_until_held(self):
        with self.lock:
            if not self.lock.wait_for(lambda: self.held > 0, PATIENCE):
                raise TimeoutError("no request is held")

    def close(self):
        self.release()
        self.server.shutdown()
        self.server.server_close()
