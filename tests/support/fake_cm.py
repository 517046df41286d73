#!/usr/bin/env python3
"""Fake cluster manager for tests: an HTTPS (--plain: HTTP) server on a loopback
--address answering handshake and agent-list requests under /quarry/service/ for
the built-in basic-auth account. Logs each request to --log as "<monotonic
seconds> <METHOD> <path?query> <user:password or ->" and writes its port to
--port-file once serving. Answers by --mode (normal: Success and the
--agents=host=address,... list; 500 or 401: that HTTP status; body: --body, 200)
and --agent-mode (agent lists only; default --mode), both also read, one
argument a line, from the --control file at every request. Exits within 5 min.
"""

import base64
import http.server
import os
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

ACCOUNT = "brisk:vqmzt"
SERVICE = "/quarry/service/"
XML_HEAD = '<?xml version="1.0" encoding="UTF-8"?>\n'
MAX_SECONDS = 300


def parse(arguments):
    """--name=value arguments as a dict; a bare --name is "1"."""
    return {name[2:]: value if sep else "1" for name, sep, value in (a.partition("=") for a in arguments)}


def current(args):
    """The answers: defaults, the start-up arguments, then the control file."""
    cfg = {"mode": "normal", "agent-mode": "", "agents": "", "body": ""}
    cfg.update(args)
    if os.path.exists(args.get("control", "")):
        with open(args["control"]) as f:
            cfg.update(parse(line.rstrip("\n") for line in f if line.strip()))
    return cfg


def reply_for(kind, cfg):
    """(status, body) of a request of kind "handshake" or "agents"."""
    mode = (cfg["agent-mode"] or cfg["mode"]) if kind == "agents" else cfg["mode"]
    if mode in ("500", "401"):
        return int(mode), "<html><body>error %s</body></html>" % mode
    if mode == "body":
        return 200, cfg["body"]
    if kind == "handshake":
        return 200, XML_HEAD + "<Quarry><Status>Success</Status><ProtocolVersion>6</ProtocolVersion></Quarry>"
    enc = lambda text: urllib.parse.quote(text, safe="")  # element text travels percent-encoded
    agents = "".join("<Agent><Host>%s</Host><IPAddress>%s</IPAddress><OSID>3</OSID></Agent>" % (enc(h), enc(a))
                     for h, _, a in (item.partition("=") for item in filter(None, cfg["agents"].split(","))))
    return 200, XML_HEAD + "<Quarry>\n<Status>Success</Status>\n<AgentList>%s</AgentList>\n</Quarry>\n" % agents


class Handler(http.server.BaseHTTPRequestHandler):
    timeout = 30

    def setup(self):
        if self.server.tls is not None:
            self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *args): pass

    def do_GET(self): self.answer()

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0") or 0)
        if 0 < length <= 1 << 20:
            self.rfile.read(length)
        self.answer()

    def answer(self):
        value = self.headers.get("Authorization", "")
        try:
            auth = base64.b64decode(value[6:]).decode("utf-8", "replace") if value.startswith("Basic ") else "-"
        except ValueError:
            auth = "?"
        with self.server.log_lock:
            self.server.log.write("%.6f %s %s %s\n" % (time.monotonic(), self.command, self.path, auth))
        kinds = {SERVICE + "handshake.xml": "handshake", SERVICE + "agent_list.xml": "agents"}
        kind = kinds.get(self.path.split("?", 1)[0])
        if kind is None:
            status, body = 404, "<html>not found</html>"
        elif auth != ACCOUNT:
            status, body = 401, "<html>unauthorised</html>"
        else:
            status, body = reply_for(kind, current(self.server.args))
        data = body.encode("utf-8")
        self.send_response(status)
        for name, value in (("Content-Type", "text/xml"), ("Content-Length", str(len(data)))):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(data)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address): pass  # clients hanging up or failing TLS


def make_tls_context(address):
    folder = tempfile.mkdtemp(prefix="fake_cm_")
    try:
        cert, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:" + address],
                       check=True, capture_output=True, timeout=60)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        return context
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def main():
    args = parse(sys.argv[1:])
    address = args.get("address", "127.0.0.1")
    address.startswith("127.") or sys.exit("fake_cm: only loopback addresses are served")
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    limit = threading.Timer(MAX_SECONDS, lambda: os._exit(0))
    limit.daemon = True
    limit.start()

    server = Server((address, 0), Handler)
    server.args = args
    server.tls = None if "plain" in args else make_tls_context(address)
    server.log = open(args["log"], "a", buffering=1)
    server.log_lock = threading.Lock()
    with open(args["port-file"] + ".tmp", "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.rename(args["port-file"] + ".tmp", args["port-file"])
    server.serve_forever(poll_interval=0.2)


if __name__ == "__main__":
    main()
