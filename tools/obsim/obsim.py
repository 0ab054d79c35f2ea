#!/usr/bin/env python3
"""obsim: a scriptable onboarding-server simulator for tests, benchmarks and the demo.

Standard library only, plus the `openssl` command line for the certificates.

Certificates
    Generated at start into the directory given with --dir (kept there and
    reused while all files are present; nothing is ever committed):
        ca.pem / ca.key          the test CA the client should trust
        server.pem / server.key  server certificate signed by it, for
                                 127.0.0.1 and localhost
        other-ca.pem             an unrelated CA, for "wrong CA" tests

Reply script (JSON, --script FILE; re-read before every request)
    {
      "get": [REPLY, REPLY, ...],   successive GETs take the next entry; the
                                    last one repeats.  A single REPLY is fine.
      "put": [REPLY, ...]           same for PUT (default: a bare 200)
      "outage": {"status": 503, "seconds": 600}
                                    every request (GET and PUT) that arrives
                                    within "seconds" of the first request under
                                    this script is answered with "status" and
                                    takes no entry of the queues: a server
                                    that is down, then back
      "burst": {"status": 503, "from": 5.0, "at": 9.0}
                                    requests arriving "from" to "at" seconds
                                    after the first one are held unanswered
                                    and all answered with "status" at "at":
                                    a backlog refused in one instant (keep the
                                    hold below the client's transfer time-out)
    }
    REPLY fields (all optional):
      "status": 200                 status code of a generated status line
      "status_line": "..."          raw status line instead (include CR LF)
      "headers": [ITEM, ...]        written byte for byte, in order, no CR LF
                                    added; a string is one raw line, or
                                    {"line": "x: y\\r\\n", "repeat": 10000}, or
                                    {"name": "x-big", "fill": 1048576}
                                    (= "x-big: " + fill bytes + CR LF)
      "end_headers": true           write the empty line ending the headers
      "body": "text"                body text (latin-1 bytes)
      "body_fill": 52428800         that many filler bytes after "body"
      "cut_after": 1234             send only the first N bytes of the reply
      "hang": true                  read the request and never answer
      "delay": 0.5                  seconds to wait before answering
    Strings are written as latin-1, so any byte value can be scripted.
    Nothing is added to the reply: no Content-Length, so the client reads to
    the close.  When the script file's content changes the GET and PUT queues
    start again from their first entry.

Connection handling
    One request per connection.  After the reply the server sends its FIN
    first and then waits for the client's close; a client that closes first
    (TLS rejected, time-out, error) is answered with a reset.  Either way the
    client's end of the connection never lingers in TIME_WAIT, which matters
    because the agent binds the fixed local ports 47777-47779.

Request record (--record FILE, JSON lines, appended and flushed at once)
    {"method": "GET", "target": "/path?query", "version": "HTTP/1.1",
     "headers": ["Host: 127.0.0.1:4711", ...], "client_port": 47777,
     "client": "127.0.0.1", "tls": true, "received": 1700000000.123456,
     "status": 200}
    Raw header lines in order, line ending removed, latin-1 decoded.
    "received" is the wall-clock time (time.time()) at which the request head
    was complete, so a benchmark can time a client from its start to its GET.
    "status" is the code the reply script chose for it (absent for a raw
    "status_line").  A TLS
    handshake the client aborted is recorded as {"event": "tls_error", ...}.

Usage
    CLI:    obsim.py --dir D --script reply.json --record req.jsonl \\
                     [--host A] [--port N] [--port-file F] [--plain]
            prints "PORT <n>" on standard output (and writes F) when ready;
            stops on SIGTERM or SIGINT.
    Python: with ObSim("/tmp/certs", script={"get": {"status": 200}}) as sim:
                sim.url("/onboard"); sim.set_script({...}); sim.requests()
"""

import argparse
import json
import os
import select
import signal
import socket
import socketserver
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
from http import HTTPStatus

REQUEST_HEAD_MAX = 64 * 1024
IO_TIMEOUT = 10.0
HANG_MAX = 600.0
CLOSE_WAIT_MAX = 5.0
CHUNK = 64 * 1024


# ---------------------------------------------------------------- certificates

def _openssl(*args, cwd):
    subprocess.run(["openssl", *args], cwd=cwd, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def _self_signed_ca(cwd, stem, cn, days):
    _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-nodes", "-keyout", stem + ".key", "-out", stem + ".pem", "-days", str(days),
             "-subj", "/CN=" + cn,
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign", cwd=cwd)


def _read(path):
    try:
        with open(path) as f:
            return f.read()
    except FileNotFoundError:
        return None


def ensure_certs(cert_dir, host="127.0.0.1", days=30, cert_ips=()):
    """Create the CA, the server certificate (for 127.0.0.1, localhost, host
    and cert_ips), both valid for days from now, and the other CA in
    cert_dir."""
    os.makedirs(cert_dir, exist_ok=True)
    names = ["ca.pem", "ca.key", "server.pem", "server.key", "other-ca.pem"]
    san = ",".join(dict.fromkeys(["IP:127.0.0.1", "DNS:localhost"] + ["IP:" + a for a in (host, *cert_ips)]))
    made = san if days == 30 else "%s days=%d" % (san, days)
    san_path = os.path.join(cert_dir, "server.san")
    if all(os.path.exists(os.path.join(cert_dir, n)) for n in names) and (made == "IP:127.0.0.1,DNS:localhost" or
                                                                          _read(san_path) == made):
        return
    _self_signed_ca(cert_dir, "ca", "obsim test CA", days)
    _self_signed_ca(cert_dir, "other-ca", "obsim other CA", days)
    with open(os.path.join(cert_dir, "server.ext"), "w") as f:
        f.write("subjectAltName=%s\n" % san +
                "basicConstraints=CA:FALSE\n"
                "keyUsage=critical,digitalSignature,keyEncipherment\n"
                "extendedKeyUsage=serverAuth\n")
    _openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
             "-keyout", "server.key", "-out", "server.csr", "-subj", "/CN=127.0.0.1", cwd=cert_dir)
    _openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
             "-set_serial", str(int.from_bytes(os.urandom(8), "big")), "-days", str(days),
             "-extfile", "server.ext", "-out", "server.pem", cwd=cert_dir)
    for leftover in ("server.csr", "server.ext"):
        os.unlink(os.path.join(cert_dir, leftover))
    with open(san_path, "w") as f:
        f.write(made)


# ---------------------------------------------------------------- replies

def _b(text):
    return text.encode("latin-1")


def _reply_chunks(reply):
    """Yield the reply's bytes in chunks, never building a big body at once."""
    if "status_line" in reply:
        yield _b(reply["status_line"])
    else:
        code = int(reply.get("status", 200))
        try:
            reason = HTTPStatus(code).phrase
        except ValueError:
            reason = "Status"
        yield _b("HTTP/1.1 %d %s\r\n" % (code, reason))
    for item in reply.get("headers", []):
        if isinstance(item, str):
            yield _b(item)
        elif "fill" in item:
            head = _b(item["name"] + ": ")
            left = int(item["fill"])
            yield head
            while left > 0:
                n = min(left, CHUNK)
                yield b"a" * n
                left -= n
            yield b"\r\n"
        else:
            line = _b(item["line"])
            for _ in range(int(item.get("repeat", 1))):
                yield line
    if reply.get("end_headers", True):
        yield b"\r\n"
    if reply.get("body"):
        yield _b(reply["body"])
    left = int(reply.get("body_fill", 0))
    filler = b"b" * CHUNK
    while left > 0:
        n = min(left, CHUNK)
        yield filler[:n]
        left -= n


class _Script:
    """The reply script, re-read before every request."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.text = None
        self.counts = {"get": 0, "put": 0}
        self.first = None

    def next_reply(self, method, received):
        kind = "put" if method == "PUT" else "get"
        with self.lock:
            text = ""
            if self.path and os.path.exists(self.path):
                with open(self.path, "r", encoding="utf-8") as f:
                    text = f.read()
            if text != self.text:
                self.text = text
                self.counts = {"get": 0, "put": 0}
                self.first = None
            script = json.loads(text) if text.strip() else {}
            self.first = received if self.first is None else self.first
            since = received - self.first
            burst = script.get("burst")
            if burst and float(burst.get("from", 0)) <= since < float(burst["at"]):
                return {"status": burst.get("status", 503), "hold_until": self.first + float(burst["at"])}
            outage = script.get("outage")
            if outage and since < float(outage["seconds"]):
                return {"status": outage.get("status", 503)}
            entries = script.get(kind, {"status": 200})
            if isinstance(entries, dict):
                entries = [entries]
            if not entries:
                entries = [{"status": 200}]
            index = min(self.counts[kind], len(entries) - 1)
            self.counts[kind] += 1
            return entries[index]


# ---------------------------------------------------------------- server

class _Server(socketserver.ThreadingMixIn, socketserver.TCPServer):
    daemon_threads = True
    allow_reuse_address = True
    # A fleet's requests can all arrive in one instant.
    request_queue_size = 256

    def __init__(self, addr, sim):
        self.sim = sim
        super().__init__(addr, _Handler)


def _reset_close(sock):
    """Close with a reset, so the peer's end does not sit in TIME_WAIT."""
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    except OSError:
        pass
    try:
        sock.close()
    except OSError:
        pass


def _send_close_notify(sock):
    """Send TLS's close_notify without waiting for the peer's."""
    if not isinstance(sock, ssl.SSLSocket):
        return
    timeout = sock.gettimeout()
    sock.setblocking(False)
    try:
        sock.unwrap()
    except (ssl.SSLError, OSError):
        pass  # the peer's close_notify is not awaited
    sock.settimeout(timeout)


def _wait_peer_close(sock, stop, limit):
    """Discard input until the peer closes, the limit passes or stop is set."""
    end = time.monotonic() + limit
    while not stop.is_set():
        left = end - time.monotonic()
        if left <= 0:
            return
        try:
            ready, _, _ = select.select([sock], [], [], min(left, 0.2))
            if ready and not sock.recv(CHUNK):
                return
        except (OSError, ValueError):
            return


class _Handler(socketserver.BaseRequestHandler):
    def handle(self):
        sim = self.server.sim
        raw = self.request
        client_port = self.client_address[1]
        raw.settimeout(IO_TIMEOUT)
        sock = raw
        if sim.tls_context is not None:
            # Handshake by hand: a failed implicit one would close with a FIN
            # and leave the client's port in TIME_WAIT.
            sock = sim.tls_context.wrap_socket(raw, server_side=True, do_handshake_on_connect=False)
            try:
                sock.do_handshake()
            except (ssl.SSLError, OSError) as err:
                sim.record({"event": "tls_error", "error": str(err), "client_port": client_port})
                _reset_close(sock)
                return
        try:
            head = self._read_head(sock)
        except (OSError, ValueError):
            head = None
        if head is None:
            _reset_close(sock)
            return
        received = time.time()
        reply = sim.script.next_reply(head.split(b" ", 1)[0].decode("latin-1"), received)
        lines = head.decode("latin-1").split("\r\n")
        parts = lines[0].split(" ")
        method = parts[0]
        entry = {
            "method": method,
            "target": parts[1] if len(parts) > 1 else "",
            "version": parts[2] if len(parts) > 2 else "",
            "headers": [l for l in lines[1:] if l != ""],
            "client_port": client_port,
            "client": self.client_address[0],
            "tls": sim.tls_context is not None,
            "received": received,
        }
        if "status_line" not in reply:
            entry["status"] = int(reply.get("status", 200))
        sim.record(entry)
        try:
            self._answer(sock, reply, sim.stop_event)
        except OSError:
            _reset_close(sock)
            return
        # TLS's close_notify (a client may take a close without it for a
        # cut reply), then the FIN at once, before the client closes its side.
        _send_close_notify(sock)
        try:
            sock.shutdown(socket.SHUT_WR)
        except OSError:
            pass
        _wait_peer_close(sock, sim.stop_event, CLOSE_WAIT_MAX)
        _reset_close(sock)

    @staticmethod
    def _read_head(sock):
        data = b""
        while b"\r\n\r\n" not in data:
            if len(data) > REQUEST_HEAD_MAX:
                return None
            chunk = sock.recv(4096)
            if not chunk:
                return None
            data += chunk
        return data.split(b"\r\n\r\n", 1)[0]

    @staticmethod
    def _answer(sock, reply, stop):
        if reply.get("hang"):
            # Keep the connection open, unanswered, until the client gives up.
            _wait_peer_close(sock, stop, HANG_MAX)
            raise OSError("client gave up")
        delay = max(float(reply.get("delay", 0)), reply.get("hold_until", 0) - time.time())
        if delay > 0:
            stop.wait(delay)
        budget = reply.get("cut_after")
        budget = None if budget is None else int(budget)
        for chunk in _reply_chunks(reply):
            if budget is not None:
                if budget <= 0:
                    break
                chunk = chunk[:budget]
                budget -= len(chunk)
            sock.sendall(chunk)


class ObSim:
    """An onboarding-server simulator running in a background thread."""

    def __init__(self, cert_dir, script=None, tls=True, port=0, record_path=None, script_path=None,
                 host="127.0.0.1"):
        self.cert_dir = os.path.abspath(cert_dir)
        ensure_certs(self.cert_dir, host)
        self._own_files = []
        if script_path is None:
            fd, script_path = tempfile.mkstemp(prefix="obsim-script-", suffix=".json", dir=self.cert_dir)
            os.close(fd)
        if record_path is None:
            fd, record_path = tempfile.mkstemp(prefix="obsim-req-", suffix=".jsonl", dir=self.cert_dir)
            os.close(fd)
        self.script_path = script_path
        self.record_path = record_path
        if script is not None:
            self.set_script(script)
        self.script = _Script(script_path)
        self.stop_event = threading.Event()
        self._record_lock = threading.Lock()
        self.tls_context = None
        if tls:
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(os.path.join(self.cert_dir, "server.pem"),
                                os.path.join(self.cert_dir, "server.key"))
            self.tls_context = ctx
        self.host = host
        self._server = _Server((host, port), self)
        self.port = self._server.server_address[1]
        self._thread = None

    @property
    def ca_path(self):
        return os.path.join(self.cert_dir, "ca.pem")

    @property
    def other_ca_path(self):
        return os.path.join(self.cert_dir, "other-ca.pem")

    def url(self, path="/onboard"):
        scheme = "https" if self.tls_context is not None else "http"
        return "%s://%s:%d%s" % (scheme, self.host, self.port, path)

    def set_script(self, script):
        tmp = self.script_path + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            json.dump(script, f)
        os.replace(tmp, self.script_path)

    def record(self, entry):
        line = json.dumps(entry) + "\n"
        with self._record_lock:
            with open(self.record_path, "a", encoding="utf-8") as f:
                f.write(line)
                f.flush()

    def requests(self):
        with open(self.record_path, "r", encoding="utf-8") as f:
            return [json.loads(l) for l in f if l.strip()]

    def clear_requests(self):
        with self._record_lock:
            open(self.record_path, "w").close()

    def start(self):
        self._thread = threading.Thread(target=self._server.serve_forever,
                                        kwargs={"poll_interval": 0.1}, daemon=True)
        self._thread.start()
        return self

    def stop(self):
        self.stop_event.set()
        self._server.shutdown()
        self._server.server_close()
        if self._thread is not None:
            self._thread.join()

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


def main(argv=None):
    p = argparse.ArgumentParser(description="Scriptable onboarding-server simulator.")
    p.add_argument("--dir", required=True, help="directory for the generated certificates")
    p.add_argument("--script", help="reply script (JSON), re-read before every request")
    p.add_argument("--record", help="append every request as a JSON line to this file")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (also in the certificate)")
    p.add_argument("--port", type=int, default=0, help="port (default: ephemeral)")
    p.add_argument("--port-file", help="write the port number here once listening")
    p.add_argument("--plain", action="store_true", help="plain HTTP instead of HTTPS")
    p.add_argument("--certs-only", action="store_true", help="generate the certificates and exit")
    p.add_argument("--days", type=int, default=30, help="validity of new certificates from now (default 30)")
    p.add_argument("--cert-ip", action="append", default=[],
                   help="another address the server certificate names (e.g. the host as a VM reaches it)")
    args = p.parse_args(argv)

    ensure_certs(args.dir, args.host, args.days, args.cert_ip)
    if args.certs_only:
        return 0
    script_path = args.script
    if script_path is None:
        script_path = os.path.join(os.path.abspath(args.dir), "script.json")
    record_path = args.record or os.path.join(os.path.abspath(args.dir), "requests.jsonl")
    open(record_path, "a").close()
    sim = ObSim(args.dir, tls=not args.plain, port=args.port,
                record_path=record_path, script_path=script_path, host=args.host)
    done = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: done.set())
    signal.signal(signal.SIGINT, lambda *_: done.set())
    sim.start()
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w") as f:
            f.write("%d\n" % sim.port)
        os.replace(tmp, args.port_file)
    print("PORT %d" % sim.port, flush=True)
    while not done.wait(0.5):
        pass
    sim.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
