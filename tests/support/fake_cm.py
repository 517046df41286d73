#!/usr/bin/env python3
"""Fake cluster manager for tests.

A small HTTPS (or, with --plain, HTTP) server on a loopback address that
answers the handshake and agent-list requests under /quarry/service/, checks
the built-in basic-auth account and records every request with a monotonic
timestamp. Its certificate is self-signed and generated at start with the
openssl command in a temporary folder.

Log lines:   <monotonic seconds> <METHOD> <path?query> <user:password or ->
             <monotonic seconds> DROP - -        (a connection closed unanswered)

Modes (--mode for every request, --agent-mode for agent-list requests only):
  normal     Status Success; the agent list holds the --agents entries
  500 / 401  that HTTP status
  malformed  a reply whose tags do not match
  fail       Status Failure with --error-message and --error-code
             (the ErrorCode element is left out when the code is empty)
  body       the --body text as it stands, with status 200
  hang       read the request and never answer (until stopped)
  drop       close every connection at once without a byte
  refuse     bind the port but never listen, so connections are refused

--control FILE: when the file exists it is read at every request, one
command-line argument per line (for example "--mode=500"), on top of the
flags given at start.
"""

import argparse
import base64
import http.server
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

ACCOUNT = "brisk:vqmzt"
SERVICE = "/quarry/service/"
MODES = ("normal", "500", "401", "malformed", "fail", "body", "hang", "drop", "refuse")
XML_HEAD = '<?xml version="1.0" encoding="UTF-8"?>\n'


def make_parser():
    p = argparse.ArgumentParser(description="Fake cluster manager for tests")
    p.add_argument("--address", default="127.0.0.1")
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--port-file", help="written with the port once serving")
    p.add_argument("--log", help="request log file")
    p.add_argument("--mode", default="normal", choices=MODES)
    p.add_argument("--agent-mode", choices=MODES)
    p.add_argument("--agents", default="", help="host=address,host=address,...")
    p.add_argument("--error-code", default="")
    p.add_argument("--error-message", default="")
    p.add_argument("--body", default="")
    p.add_argument("--control")
    p.add_argument("--plain", action="store_true", help="serve HTTP")
    p.add_argument("--max-seconds", type=float, default=300.0,
                   help="the server exits after this long")
    return p


class Config:
    """The start-up flags, overridden per request by the control file."""

    def __init__(self, parser, args):
        self.parser = parser
        self.args = args
        self.log_lock = threading.Lock()
        self.log_file = open(args.log, "a", buffering=1) if args.log else None

    def current(self):
        path = self.args.control
        if not path or not os.path.exists(path):
            return self.args
        with open(path) as f:
            extra = [line.rstrip("\n") for line in f if line.strip()]
        return self.parser.parse_args(extra, namespace=argparse.Namespace(**vars(self.args)))

    def log(self, method, path, auth):
        if self.log_file is None:
            return
        with self.log_lock:
            self.log_file.write("%.6f %s %s %s\n" % (time.monotonic(), method, path, auth))
            self.log_file.flush()


def agent_pairs(text):
    pairs = []
    for item in filter(None, text.split(",")):
        host, _, address = item.partition("=")
        pairs.append((host, address))
    return pairs


def enc(text):
    # Element text travels percent-encoded.
    return urllib.parse.quote(text, safe="")


def reply_for(kind, cfg):
    """(status, body) of a request of kind "handshake" or "agents"."""
    mode = (cfg.agent_mode or cfg.mode) if kind == "agents" else cfg.mode
    if mode in ("500", "401"):
        return int(mode), "<html><body>error %s</body></html>" % mode
    if mode == "malformed":
        return 200, XML_HEAD + "<Quarry><Status>Success</Quarry>"
    if mode == "body":
        return 200, cfg.body
    if mode == "fail":
        code = "<ErrorCode>%s</ErrorCode>" % cfg.error_code if cfg.error_code else ""
        return 200, "%s<Quarry><Status>Failure</Status><ErrorMessage>%s</ErrorMessage>%s</Quarry>" % (
            XML_HEAD, enc(cfg.error_message), code)
    if kind == "handshake":
        return 200, XML_HEAD + "<Quarry><Status>Success</Status><ProtocolVersion>6</ProtocolVersion></Quarry>"
    agents = "".join(
        "<Agent><Host>%s</Host><IPAddress>%s</IPAddress><OSID>3</OSID></Agent>" % (enc(h), enc(a))
        for h, a in agent_pairs(cfg.agents))
    return 200, "%s<Quarry>\n<Status>Success</Status>\n<AgentList>%s</AgentList>\n</Quarry>\n" % (
        XML_HEAD, agents)


class Handler(http.server.BaseHTTPRequestHandler):
    timeout = 30

    def setup(self):
        if self.server.tls is not None:
            self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *args):
        pass

    def credentials(self):
        value = self.headers.get("Authorization", "")
        if not value.startswith("Basic "):
            return "-"
        try:
            return base64.b64decode(value[6:]).decode("utf-8", "replace")
        except ValueError:
            return "?"

    def do_GET(self):
        self.answer()

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0") or 0)
        if 0 < length <= 1 << 20:
            self.rfile.read(length)
        self.answer()

    def answer(self):
        auth = self.credentials()
        self.server.config.log(self.command, self.path, auth)
        cfg = self.server.config.current()
        if cfg.mode == "hang":
            self.server.stopping.wait(cfg.max_seconds)
            self.close_connection = True
            return
        path = self.path.split("?", 1)[0]
        if path == SERVICE + "handshake.xml":
            kind = "handshake"
        elif path == SERVICE + "agent_list.xml":
            kind = "agents"
        else:
            return self.send(404, "<html>not found</html>")
        if auth != ACCOUNT:
            return self.send(401, "<html>unauthorised</html>")
        status, body = reply_for(kind, cfg)
        self.send(status, body)

    def send(self, status, body):
        data = body.encode("utf-8")
        self.send_response(status)
        if status == 401:
            self.send_header("WWW-Authenticate", 'Basic realm="cm"')
        self.send_header("Content-Type", "text/xml")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, address, config, tls):
        self.config = config
        self.tls = tls
        self.stopping = threading.Event()
        super().__init__(address, Handler)

    def verify_request(self, request, client_address):
        if self.config.current().mode == "drop":
            self.config.log("DROP", "-", "-")
            return False
        return True

    def handle_error(self, request, client_address):
        pass  # clients that hang up or fail the handshake are expected here


def make_tls_context(address):
    folder = tempfile.mkdtemp(prefix="fake_cm_")
    try:
        conf = os.path.join(folder, "openssl.cnf")
        with open(conf, "w") as f:
            f.write("[req]\ndistinguished_name = dn\nprompt = no\n[dn]\nCN = localhost\n"
                    "[ext]\nbasicConstraints = CA:FALSE\n"
                    "subjectAltName = DNS:localhost,IP:%s\n" % address)
        cert, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                        "-days", "2", "-config", conf, "-extensions", "ext"],
                       check=True, capture_output=True, timeout=60)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        return context
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def announce(args, port):
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w") as f:
            f.write("%d\n" % port)
        os.rename(tmp, args.port_file)
    print(port, flush=True)


def main():
    parser = make_parser()
    args = parser.parse_args()
    if not args.address.startswith("127."):
        sys.exit("fake_cm: only loopback addresses are served")
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    limit = threading.Timer(args.max_seconds, lambda: os._exit(0))
    limit.daemon = True
    limit.start()

    if args.mode == "refuse":
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        sock.bind((args.address, args.port))
        announce(args, sock.getsockname()[1])
        time.sleep(args.max_seconds)
        return

    tls = None if args.plain else make_tls_context(args.address)
    server = Server((args.address, args.port), Config(parser, args), tls)
    announce(args, server.server_address[1])
    server.serve_forever(poll_interval=0.2)


if __name__ == "__main__":
    main()
