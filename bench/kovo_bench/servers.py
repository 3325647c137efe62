"""What the tools are measured against: an nginx of our own, slow lines to it, a sink for uploads."""

import os
import pathlib
import shutil
import socket
import subprocess
import sys
import time

MIB = 1 << 20

NGINX = """
daemon off;
worker_processes {workers};
pid {folder}/nginx.pid;
error_log {folder}/error.log;
worker_rlimit_nofile 8192;
events {{ worker_connections 2048; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 10000000;
  keepalive_timeout 3600s;
  open_file_cache max=8192;
  default_type application/octet-stream;
  client_max_body_size 0;
  client_body_temp_path {folder}/body;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
  ssl_certificate {folder}/certificate.pem;
  ssl_certificate_key {folder}/key.pem;
  ssl_protocols TLSv1.3;
  server {{
    listen 127.0.0.1:{http};
    listen 127.0.0.1:{tls} ssl;
    root {folder}/www;
    location / {{ autoindex on; }}
    location /dav/ {{ dav_methods PUT DELETE; create_full_put_path on; }}
  }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """An nginx over a folder in tmpfs."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.www = self.folder / "www"
        self.www.mkdir()
        (self.www / "dav").mkdir()
        (self.www / "dav").chmod(0o777)
        self.http, self.tls = free_port(), free_port()
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                        str(self.folder / "key.pem"), "-out", str(self.folder / "certificate.pem")],
                       check=True, capture_output=True)
        self.folder.chmod(0o755)
        configuration = self.folder / "nginx.conf"
        configuration.write_text(NGINX.format(folder=self.folder, http=self.http, tls=self.tls,
                                              workers=os.cpu_count()))
        nginx = shutil.which("nginx") or "/usr/sbin/nginx"
        self.process = subprocess.Popen([nginx, "-e", str(self.folder / "error.log"), "-c",
                                         str(configuration)])
        for _ in range(100):
            try:
                socket.create_connection(("127.0.0.1", self.http), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        sys.exit("nginx does not start:\n" + (self.folder / "error.log").read_text())

    def close(self):
        self.process.terminate()
        self.process.wait()

    def big(self, name, size):
        path = self.www / name
        if path.exists() and path.stat().st_size == size:
            return path
        block = os.urandom(MIB)
        with open(path, "wb") as out:
            for i in range(size // MIB):
                # Every block differs, so that a block in the wrong place is noticed.
                out.write(i.to_bytes(8, "little") + block[8:])
        return path

    def small(self, count, size):
        folder = self.www / "small"
        if not folder.exists():
            folder.mkdir()
            for i in range(count):
                (folder / str(i)).write_bytes(os.urandom(size))
        return folder


class Helper:
    """A program of bench/ that prints its port and runs until its standard input ends."""

    def __init__(self, command):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends it; what it printed last."""
        self.process.stdin.close()
        last = self.process.stdout.read()
        self.process.wait()
        return last


def line(build, port, delay_us=0, rate=0, drop_after=0):
    """A slow or broken line to a port of this machine; prints the bytes it carried down."""
    return Helper([build / "bench_line", port, "--delay-us", delay_us, "--rate", rate,
                   "--drop-after", drop_after])


def sink(build, rate=0):
    """A server that takes uploads, of each its MD5, and keeps none."""
    return Helper([build / "bench_sink"] + (["--rate", rate] if rate else []))
