#!/usr/bin/env python3
"""Watch one complete simulated onboarding of a gateway in its factory state.

The driver plays everything around the agent: it builds a device under a
temporary TAVEL_ROOT (data-model store, time-zone mapping file, a recording
`iptables`), starts a private message bus and the onboarding-server simulator
(tools/obsim) on 127.0.0.1, runs build/tavelAgent with a time scale, sends the
TR-069 bootstrap signal like the configuration manager once the management
account is in the store, and then tells what happened.  Python 3 standard
library only; the host's firewall and system bus are never touched.

Exit status 0 only when the onboarding really completed; otherwise 1 with a
one-line reason (2 for a usage error).
"""

import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
OBSIM = os.path.join(SOURCE_DIR, "tools", "obsim", "obsim.py")
sys.path.insert(0, os.path.join(SOURCE_DIR, "tools"))
from tavelsim import (AGENT_LOG, CA_PATH_MAX, CC_CONFIGURED_BY, CC_FILE, CLOUD_MARKER,  # noqa: E402
                      FACTORY_ACS_URL, HISTORY_LOG, IPTABLES_LOG, MAPPING_FILE, ONBOARDING_IN_PROGRESS, STORE_FILE,
                      TZ_MARKER, PrivateBus, Sandbox, run_binary)

DEFAULT_SCALE = 600  # the 1800-s country-code wait takes 3 s, the 60-s time-zone pause 0.1 s
DEFAULT_TIMEOUT = 25.0
FAILING_WATCH = 6.0  # how long a failing server is watched before the demo stops the agent
MAPP_GRACE = 0.5  # how long the agent is watched still refusing to exit after the parked code is applied

API_KEY = "obk-7f3a9c21d4e85b60"
SERIAL = "TVG4A2190013"
ACS_URL = "https://acs.operator.example:7547/cwmp"
ACS_USER = "cpe-" + SERIAL
ACS_PASSWORD = "Xk7pQ2v9LmWt"
OPDESC = "Nordlicht Fibre Home"
SNETDESC = "Residential Berlin North"
CONFIG_API_KEY = "cfk-5d1e9a0b7c2f41"
COUNTRY = "DE"
ZONE_VALUE = '"CET-1CEST,M3.5.0,M10.5.0/3"'
ZONE_NAME = "Europe/Berlin"

# Fields 1-3 are free text; the line holding the received code and city wins,
# field 4 is the device's zone value and field 5 its name.
MAPPING = ('1,GMT,London,"GMT0BST,M3.5.0/1,M10.5.0","Europe/London"\n'
           '2,CET,Berlin,"CET-1CEST,M3.5.0,M10.5.0/3","Europe/Berlin"\n'
           '3,CET,Paris,"CET-1CEST,M3.5.0,M10.5.0/3","Europe/Paris"\n'
           '4,EST,New_York,"EST5EDT,M3.2.0,M11.1.0","America/New_York"\n'
           '5,UTC,UTC,"UTC0","Etc/UTC"\n')

REPLY_HEADERS = [
    "Content-Type: application/json\r\n",
    "url: %s\r\n" % ACS_URL,
    "name: %s\r\n" % ACS_USER,
    "pwd: %s\r\n" % ACS_PASSWORD,
    "opdesc: %s\r\n" % OPDESC,
    "snetdesc: %s\r\n" % SNETDESC,
    "tenantid: tn-0042\r\n",
    'timezone: {"code":"CET","name":"Central European Time","id":"Europe\\/Berlin"}\r\n',
    "countrycode: %s\r\n" % COUNTRY,
    "l1url: https://l1.cloud.operator.example/v1\r\n",
    "l2url: https://l2.cloud.operator.example/v1\r\n",
    "remotemappurl: https://app.cloud.operator.example/remote\r\n",
    "kprconfigurl: https://cfg.cloud.operator.example/agent\r\n",
    "kprconfigapikey: %s\r\n" % CONFIG_API_KEY,
]

MARKERS = [TZ_MARKER, CLOUD_MARKER, CC_CONFIGURED_BY, CC_FILE, ONBOARDING_IN_PROGRESS]


class DemoError(Exception):
    """A failure that ends the demo with a one-line reason."""


# ---------------------------------------------------------------- output

class Style:
    CODES = {"bold": "1", "dim": "2", "red": "31", "green": "32", "yellow": "33", "blue": "34",
             "magenta": "35", "cyan": "36"}

    def __init__(self, stream):
        self.on = stream.isatty() and "NO_COLOR" not in os.environ

    def __call__(self, text, *names):
        if not self.on or not names:
            return text
        return "\x1b[%sm%s\x1b[0m" % (";".join(self.CODES[n] for n in names), text)


def show_value(value):
    """A store value as text a reader can see whole: control bytes escaped."""
    if value is None:
        return "(absent)"
    if value == "":
        return "(empty)"
    out = []
    for ch in value:
        if ch == "\\":
            out.append("\\\\")
        elif ch == "\r":
            out.append("\\r")
        elif ch == "\n":
            out.append("\\n")
        elif ch == "\t":
            out.append("\\t")
        elif ord(ch) < 0x20 or ord(ch) == 0x7f:
            out.append("\\x%02x" % ord(ch))
        else:
            out.append(ch)
    text = "".join(out)
    # Blanks at either end would be invisible.
    if text != text.strip(" "):
        text = "[%s]" % text
    return text


def show_bytes(data):
    """File content with its zero bytes (and other control bytes) visible."""
    out = []
    for b in data:
        if b == 0:
            out.append("\\0")
        elif b == 0x0a:
            out.append("\\n")
        elif b < 0x20 or b >= 0x7f:
            out.append("\\x%02x" % b)
        else:
            out.append(chr(b))
    return '"%s" (%d bytes)' % ("".join(out), len(data))


def mask_key(key):
    """Enough of a key to recognise it, not enough to use it."""
    if len(key) <= 8:
        return "*" * len(key)
    return key[:4] + "..." + key[-2:]


def mask_param(name, value):
    if value is None or value == "":
        return value
    if name.endswith("Password"):
        return "*" * 8
    if "APIKey" in name:
        return mask_key(value)
    return value


class Masker:
    """Replaces the secrets the demo hands out wherever they are printed."""

    def __init__(self, secrets):
        self.pairs = [(s, "*" * 8 if kind == "password" else mask_key(s)) for s, kind in secrets if s]

    def __call__(self, text):
        for secret, shown in self.pairs:
            text = text.replace(secret, shown)
        return text


# ---------------------------------------------------------------- watching

class Tail:
    """New complete lines of a file that another process appends to."""

    def __init__(self, path):
        self.path = path
        self.offset = 0
        self.partial = b""

    def poll(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                data = f.read()
        except FileNotFoundError:
            return []
        self.offset += len(data)
        data = self.partial + data
        *lines, self.partial = data.split(b"\n")
        return [l.decode("utf-8", "replace") for l in lines]

    def rest(self):
        lines = self.poll()
        if self.partial:
            lines.append(self.partial.decode("utf-8", "replace"))
            self.partial = b""
        return lines


class Watcher(threading.Thread):
    """Stamps every log line, history event, firewall command and marker-file
    change with its offset from the agent's start, as it appears: the agent's
    own lines carry no time."""

    INTERVAL = 0.002

    def __init__(self, root, t0, t0_wall):
        super().__init__(daemon=True)
        self.root = root
        self.t0 = t0
        self.t0_wall = t0_wall
        self.tails = [("log", Tail(os.path.join(root, AGENT_LOG))),
                      ("history", Tail(os.path.join(root, HISTORY_LOG))),
                      ("firewall", Tail(os.path.join(root, IPTABLES_LOG)))]
        self.files = {rel: self._file_state(rel) for rel in MARKERS}
        self.events = []
        self.lock = threading.Lock()
        self.stop_event = threading.Event()
        self.parked_seen = None

    def _file_state(self, rel):
        try:
            with open(os.path.join(self.root, rel), "rb") as f:
                return f.read()
        except (FileNotFoundError, IsADirectoryError):
            return None

    def add(self, source, text, t=None):
        with self.lock:
            self.events.append((time.monotonic() - self.t0 if t is None else t, len(self.events), source, text))

    def poll_once(self, final=False):
        now = time.monotonic() - self.t0
        for source, tail in self.tails:
            for line in (tail.rest() if final else tail.poll()):
                t = now
                if source == "firewall":
                    stamp, _, line = line.partition(" ")
                    try:
                        t = float(stamp) - self.t0_wall
                    except ValueError:
                        pass
                self.add(source, line, t)
        for rel, before in self.files.items():
            after = self._file_state(rel)
            if after != before:
                self.files[rel] = after
                self.add("file", (rel, before, after), now)
                if rel == CC_FILE and after is not None:
                    self.parked_seen = after

    def run(self):
        while not self.stop_event.wait(self.INTERVAL):
            self.poll_once()

    def finish(self):
        self.stop_event.set()
        self.join()
        self.poll_once(final=True)

    def log_lines(self):
        with self.lock:
            return [e[3] for e in self.events if e[2] == "log"]

    def log_has(self, text):
        return any(text in line for line in self.log_lines())


# ---------------------------------------------------------------- the world around the agent

class Server:
    """obsim in a process of its own, answering with a scripted reply."""

    def __init__(self, directory, script):
        self.dir = directory
        os.makedirs(directory, exist_ok=True)
        self.script_path = os.path.join(directory, "script.json")
        self.record_path = os.path.join(directory, "requests.jsonl")
        with open(self.script_path, "w") as f:
            json.dump(script, f, indent=1)
        open(self.record_path, "w").close()
        self.proc = subprocess.Popen([sys.executable, OBSIM, "--dir", directory, "--script", self.script_path,
                                      "--record", self.record_path],
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
        line = self.proc.stdout.readline().decode()
        if not line.startswith("PORT "):
            self.proc.wait(timeout=10)
            err = self.proc.stderr.read().decode().strip().splitlines()
            raise DemoError("the onboarding-server simulator did not start: " + (err[-1] if err else "no output"))
        self.port = int(line.split()[1])

    def url(self):
        return "https://127.0.0.1:%d/onboard" % self.port

    def requests(self):
        with open(self.record_path) as f:
            return [json.loads(l) for l in f if l.strip()]

    def close(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        self.proc.stderr.close()


# ---------------------------------------------------------------- the scenario

def factory_store(server_url, ca_path):
    return {
        "Device.X_TAVEL_Agent.Enable": "1",
        "Device.X_TAVEL_Agent.URL": server_url,
        "Device.X_TAVEL_Agent.APIKey": API_KEY,
        "Device.X_TAVEL_Agent.OnBoardStatus": "",
        "Device.X_TAVEL_Agent.OpDesc": "",
        "Device.X_TAVEL_Agent.SubnetDesc": "",
        "Device.ManagementServer.URL": FACTORY_ACS_URL,
        "Device.ManagementServer.Username": "",
        "Device.ManagementServer.Password": "",
        "Device.X_TAVEL_WiFiService.WorkMode": "RGW",
        "Device.X_TAVEL_WiFiService.WorkRole": "Controller",
        "Device.DeviceInfo.SerialNumber": SERIAL,
        "Device.DeviceInfo.X_TAVEL_OperatorID": "OP1042",
        "Device.DeviceInfo.X_TAVEL_Country": COUNTRY,
        "Device.DeviceInfo.X_TAVEL_CACertPath": ca_path,
        "Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
        "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,CA;GB,IE;DE,AT,CH,FR,NL",
        "Device.DeviceInfo.X_TAVEL_CountryCode": "",
        "Device.Time.LocalTimeZone": '"UTC0"',
        "Device.Time.X_TAVEL_LocalTimeZoneName": "Etc/UTC",
        "Device.X_TAVEL_Cloud.L1URL": "",
        "Device.X_TAVEL_Cloud.L2URL": "",
        "Device.X_TAVEL_Cloud.RemoteAccessURL": "",
        "Device.X_TAVEL_Cloud.ConfigURL": "",
        "Device.X_TAVEL_Cloud.ConfigAPIKey": "",
    }


def reply_script(status):
    if status == 200:
        get = {"status": 200, "headers": REPLY_HEADERS, "body": "{}"}
    else:
        get = {"status": status, "headers": ["Content-Type: application/json\r\n"], "body": "{}"}
    return {"get": get, "put": {"status": 200}}


class Demo:
    def __init__(self, args):
        self.args = args
        self.build_dir = os.path.abspath(args.build_dir)
        self.agent = os.path.join(self.build_dir, "tavelAgent")
        self.tavelctl = os.path.join(self.build_dir, "tavelctl")
        self.failing = args.server_status != 200
        self.bootstrap_status = 0 if args.bootstrap_fail else 1
        self.device = None
        self.root = None
        self.ca_dir = None
        self.server = None
        self.bus = None
        self.proc = None
        self.watcher = None
        self.bootstrap_at = None
        self.bootstrap_error = None
        self.stopped_by_demo = None
        self.timed_out = False
        self.rc = None
        self.duration = None

    # ---- set-up

    def path(self, rel):
        return os.path.join(self.root, rel)

    def prepare(self):
        for binary in (self.agent, self.tavelctl):
            if not os.access(binary, os.X_OK):
                raise DemoError("%s is missing: build first (scripts/demo.sh does)" % binary)
        try:
            self.device = Sandbox(prefix="tavel-demo-", stamped_iptables=True,
                                  comment="simulated gateway, factory state")
        except RuntimeError as err:
            raise DemoError(str(err))
        self.root = self.device.root
        # The CA path is cut at 27 characters by the agent, hence a short
        # directory of its own rather than one inside the device root.
        self.ca_dir = tempfile.mkdtemp(prefix="tvd", dir="/tmp")
        ca_path = os.path.join(self.ca_dir, "ca.pem")
        if len(ca_path) > CA_PATH_MAX:
            raise DemoError("CA path %s is longer than the %d characters the agent keeps" % (ca_path, CA_PATH_MAX))

        self.server = Server(self.path("obsim"), reply_script(self.args.server_status))
        shutil.copyfile(os.path.join(self.server.dir, "ca.pem"), ca_path)

        self.before = factory_store(self.server.url(), ca_path)
        self.device.write_store(self.before)
        self.device.touch(MAPPING_FILE, MAPPING.encode())
        if self.args.mapp:
            self.device.touch(ONBOARDING_IN_PROGRESS)
        try:
            self.bus = PrivateBus(directory=self.path("run/dbus"))
        except FileNotFoundError:
            raise DemoError("dbus-daemon is not installed (scripts/demo.sh installs it)")
        except RuntimeError as err:
            raise DemoError(str(err))

    def env(self):
        """The agent's and tavelctl's variables on top of the device's own."""
        return {"TAVEL_TIME_SCALE": str(self.args.time_scale), "DBUS_SYSTEM_BUS_ADDRESS": self.bus.address}

    # ---- the run

    def account_arrived(self):
        url = self.device.store().get("Device.ManagementServer.URL", "")
        return url not in ("", FACTORY_ACS_URL)

    def send_bootstrap(self):
        """What the configuration manager does once the TR-069 client has its account."""
        self.watcher.add("demo", ("cfgmgr", "ACS account seen in the store: bootstrap status %d sent on the bus"
                                 % self.bootstrap_status))
        result = run_binary(self.tavelctl, "bootstrap", str(self.bootstrap_status),
                            env=self.device.env(self.env()), timeout=10)
        self.bootstrap_at = time.monotonic() - self.t0
        if result.returncode != 0:
            self.bootstrap_error = result.stderr.strip() or "tavelctl exited %d" % result.returncode
            self.watcher.add("demo", ("cfgmgr", "tavelctl bootstrap failed: " + self.bootstrap_error))

    def mapp_settled(self):
        """The parked code was applied and the agent has refused its exit."""
        lines = self.watcher.log_lines()
        expiry = [i for i, l in enumerate(lines) if "timeout reached apply cc via tavel" in l]
        applied = [i for i, l in enumerate(lines) if "country code set successfully" in l]
        refused = any("Not exiting Tavle" in l for l in lines)
        return refused and expiry and applied and applied[-1] > expiry[0]

    def stop_agent(self, why):
        self.stopped_by_demo = why
        self.watcher.add("demo", ("demo", "agent stopped (SIGTERM): " + why))
        self.proc.send_signal(signal.SIGTERM)
        try:
            self.proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()

    def run(self):
        self.t0 = time.monotonic()
        self.t0_wall = time.time()
        self.watcher = Watcher(self.root, self.t0, self.t0_wall)
        self.watcher.add("demo", ("demo", "agent started (TAVEL_TIME_SCALE=%d)" % self.args.time_scale), 0.0)
        self.watcher.start()
        self.proc = self.device.spawn(self.agent, self.env())
        settled_at = None
        try:
            while True:
                elapsed = time.monotonic() - self.t0
                if self.proc.poll() is not None:
                    break
                if elapsed > self.args.timeout:
                    self.timed_out = True
                    self.watcher.add("demo", ("demo", "hard time limit of %.0f s reached: agent killed"
                                              % self.args.timeout))
                    self.proc.kill()
                    self.proc.wait()
                    break
                if self.bootstrap_at is None and not self.failing and self.account_arrived():
                    self.send_bootstrap()
                if self.failing and elapsed > FAILING_WATCH:
                    self.stop_agent("the server keeps failing; watched the retries for %.0f s" % FAILING_WATCH)
                    break
                if self.args.mapp and settled_at is None and self.mapp_settled():
                    settled_at = time.monotonic()
                if settled_at is not None and time.monotonic() - settled_at > MAPP_GRACE:
                    self.stop_agent("it still refuses to exit after applying the parked country code")
                    break
                time.sleep(0.02)
        finally:
            if self.proc.poll() is None:
                self.proc.kill()
                self.proc.wait()
            self.duration = time.monotonic() - self.t0
            self.rc = self.proc.returncode
            if self.stopped_by_demo is None and not self.timed_out:
                self.watcher.add("demo", ("demo", "agent exited with status %d" % self.rc))
            self.watcher.finish()

    def close(self):
        for part in (self.server, self.bus):
            if part is not None:
                part.close()
        if self.watcher is not None and self.watcher.is_alive():
            self.watcher.finish()
        if not self.args.keep:
            for d in (self.root, self.ca_dir):
                if d:
                    shutil.rmtree(d, ignore_errors=True)

    # ---- the verdict

    def verdict(self, requests):
        """None when the onboarding really completed, else the reason."""
        store = self.device.store()
        gets = [r for r in requests if r.get("method") == "GET"]
        puts = [r for r in requests if r.get("method") == "PUT"]
        tls_errors = [r for r in requests if r.get("event") == "tls_error"]
        if self.timed_out:
            return "the agent did not finish within the hard limit of %.0f s" % self.args.timeout
        if self.bootstrap_error:
            return "the bootstrap signal could not be sent: " + self.bootstrap_error
        if tls_errors and not gets:
            return "the agent's TLS handshake with the server failed: " + tls_errors[0].get("error", "")
        if not gets:
            return "the agent never sent its GET to the onboarding server"
        if self.failing:
            return ("not completed: the server answered %d to all %d GETs; the agent keeps retrying with "
                    "back-off (stopped after %.0f s)" % (self.args.server_status, len(gets), FAILING_WATCH))
        if not puts:
            return "the agent sent no status report (PUT)"
        targets = [p["target"] for p in puts]
        if not any(t.endswith("?status=SUCCESS") for t in targets):
            return ("not completed: the device reported ?%s (bootstrap status %d: the TR-069 client "
                    "did not reach its ACS)" % (targets[-1].split("?", 1)[-1], self.bootstrap_status))
        if store.get("Device.ManagementServer.URL") != ACS_URL or store.get(
                "Device.ManagementServer.Username") != ACS_USER:
            return "the management account is not in the store"
        if store.get("Device.Time.LocalTimeZone") != ZONE_VALUE:
            return "the time zone is not in the store"
        if not os.path.exists(self.path(TZ_MARKER)):
            return "the time-zone marker is missing"
        if self.args.mapp:
            if self.watcher.parked_seen is None:
                return "the country code was never parked"
            if store.get("Device.DeviceInfo.X_TAVEL_CountryCode") != COUNTRY:
                return "the parked country code was not applied"
            if self.stopped_by_demo is None:
                return "the agent exited although a country code had been parked"
        elif self.rc != 0 or self.stopped_by_demo is not None:
            return "the agent did not exit by itself with status 0 (status %s)" % self.rc
        return None


# ---------------------------------------------------------------- the report

LOG_LINE = re.compile(r"^(\w+) (?:tavel: \[[^\]]*\] )?(.*)$")


def log_message(line):
    m = LOG_LINE.match(line)
    return (m.group(1), m.group(2).strip()) if m else ("", line.strip())


# Log lines that stand for one timeline step each, whatever follows them.
PLAIN_STEPS = (
    ("TAVELAgent start",
     "start-up: data model opened"),
    ("Valid Management URL is present ... EXIT",
     "decision: device already configured, exit"),
    ("Country code file is present",
     "decision: a parked country code is applied"),
    ("TAVEL Got Valid Time",
     "clock is valid"),
    ("TAVEL work mode is ROOT",
     "work mode: the device is the network root, go on"),
    ("TAVEL work mode is CFG",
     "work mode: no role yet, polling every 10 s (nominal)"),
    ("COnnect to TAVEL Server",
     "fetch: HTTPS GET to the onboarding server"),
    ("l1ClouldUrl",
     "data model: cloud endpoints written (L1, L2, remote access, config URL and key)"),
    ("Valid Management URL is NOT presnt",
     "apply: the reply carries a new management account"),
    ("Received Same Managment Connection",
     "apply: same account as the backup, nothing to write"),
    ("Valid Management URL is present ... TavelServer Data not used",
     "apply: a valid account is present, reply not used"),
    ("TavelServer send NA/NULL",
     "apply: the reply carries no account"),
    ("Setting URL in MangamentServerObject to NULL",
     "data model: ACS account emptied, so the TR-069 client drops its old session"),
    ("update cc since MAPP didn't set",
     "country code: no mobile-app onboarding running, applied at once"),
    ("Outside update_country_code, country code set successfully",
     "data model: CountryCode written, cc_configured_by marked"),
    ("tavel_TR69BootStrapStatusSignal Entered",
     "bus: bootstrap signal received"),
    ("timeout reached apply cc via tavel",
     "ccApplyTimer expired: the parked code is applied now"),
    ("Tavel exiting with timer alive flag",
     "nothing new to report, exit"),
    ("exitTavel !!!!",
     "exit: firewall rules removed"),
)


class Timeline:
    """Turns the stamped events into the lines a reader follows."""

    def __init__(self, demo, style, mask):
        self.demo = demo
        self.s = style
        self.mask = mask
        self.scale = demo.args.time_scale
        self.last_acs_url = None
        self.decision_done = False
        self.username = None

    def nominal(self, seconds):
        return "%s s nominal, %.2f s here" % (seconds, float(seconds) / self.scale)

    def from_log(self, line):
        level, msg = log_message(line)
        m = re.match(r"Curent the acsCfg\.URL is \[(.*)\]", msg)
        if m:
            self.last_acs_url = m.group(1)
            return None
        for prefix, text in PLAIN_STEPS:
            if msg.startswith(prefix):
                return text
        if msg.startswith("Connect to onBoardServer") and not self.decision_done:
            self.decision_done = True
            why = "ACS URL %s is the factory default" % self.last_acs_url \
                if self.last_acs_url == FACTORY_ACS_URL else "ACS URL [%s]" % self.last_acs_url
            return "decision: onboarding needed (%s, no cloud settings)" % why
        m = re.match(r"httpGetUrlFromServer ret: (-?\d+)", msg)
        if m:
            return ("fetch result: HTTP %s" % m.group(1), "green" if m.group(1) == "200" else "red")
        m = re.match(r"Conn status string:(.*)", msg)
        if m:
            return "data model: OnBoardStatus = %s" % m.group(1)
        m = re.match(r"ret (-?\d+) retryCount value is (\d+) retryCount seconds is (\d+)", msg)
        if m:
            return ("retry %s scheduled in %s" % (m.group(2), self.nominal(m.group(3))), "yellow")
        if msg.startswith("Sleeping tavelAgent for 5 seconds"):
            return "pause for the TR-069 client, %s" % self.nominal(5)
        m = re.match(r"acsCfg\.Username :(.*)", msg)
        if m:
            self.username = m.group(1).strip()
            return None
        m = re.match(r"acsCfg\.URL :(.*)", msg)
        if m:
            return "data model: ACS account written: %s, user %s" % (m.group(1).strip(), self.username)
        # The zone name keeps the mapping line's line feed, which the log
        # shows as the two characters \n.
        m = re.match(r"final timezone = (.*), timezonename = (.*?)(?:\\n)? len \d+$", msg)
        if m:
            return "time zone: mapped to %s (%s) and written; pause, %s" % (
                m.group(1), m.group(2).strip(), self.nominal(60))
        if msg.startswith("gettimezonecmd failed"):
            return ("time zone: no usable line in timezonemapping.csv", "red")
        m = re.match(r"country code received from tavel server : (.*)", msg)
        if m:
            return "country code: %s received" % m.group(1)
        if msg.startswith("MAPP onboarding started wait for 30 min"):
            return ("country code: mobile-app onboarding running, code parked; ccApplyTimer armed for %s"
                    % self.nominal(1800), "yellow")
        m = re.match(r"country code from tavel (.*) is not valid", msg)
        if m:
            return ("country code: %s not applied (not supported, or set by the mobile app)" % m.group(1), "yellow")
        m = re.match(r"Send Status TO Server URL (.*)", msg)
        if m:
            return "status upload: HTTPS PUT %s" % m.group(1)
        m = re.match(r"Response code received from tavel server (-?\d+)", msg)
        if m:
            if m.group(1) == "200":
                return ("status upload result: HTTP 200; exit once the time-zone marker exists "
                        "(polled every 5 s nominal)", "green")
            return ("status upload result: HTTP %s; the upload is retried" % m.group(1), "red")
        if msg.startswith("Not exiting Tavle, as timer is running"):
            return ("exit refused: a country code was parked, the agent stays (its firewall rules are gone)",
                    "yellow")
        if msg.startswith("certificate not EXIST"):
            return ("CA certificate missing, exit", "red")
        if level in ("error", "fatal") and ("failed" in msg or "fatal" == level):
            return ("%s: %s" % (level, msg), "red")
        return None

    @staticmethod
    def firewall(cmd):
        m = re.match(r"-([DI]) (\S+) .*--dport (\S+)", cmd)
        if not m:
            return "iptables " + cmd
        return "%s rule in %s (accept tcp from port 443 to %s)" % (
            "delete" if m.group(1) == "D" else "insert", m.group(2), m.group(3))

    def lines(self, events, requests, answers):
        rows = []
        for t, seq, source, payload in events:
            colour = None
            if source == "log":
                text = self.from_log(payload)
                if isinstance(text, tuple):
                    text, colour = text
                if text is None:
                    continue
                label = "agent"
            elif source == "history":
                text, label, colour = payload, "history", "magenta"
            elif source == "firewall":
                text, label = self.firewall(payload), "firewall"
            elif source == "file":
                rel, before, after = payload
                if after is None:
                    text = "/%s removed" % rel
                elif before is None:
                    text = "/%s created" % rel + (": " + show_bytes(after) if after else "")
                else:
                    text = "/%s rewritten: %s" % (rel, show_bytes(after))
                label = "file"
            else:
                label, text = payload
                colour = "blue"
            rows.append((t, seq, label, text, colour))
        for i, r in enumerate(requests):
            if "method" not in r:
                text, colour = "TLS handshake failed: %s" % r.get("error", ""), "red"
            else:
                text = "received %s %s from port %s, answered %s" % (
                    r["method"], r["target"], r.get("client_port"), answers(r))
                colour = "cyan"
            t = r.get("received", self.demo.t0_wall) - self.demo.t0_wall
            rows.append((t, 10 ** 6 + i, "server", text, colour))
        rows.sort(key=lambda row: (row[0], row[1]))
        return [(t, label, self.mask(text), colour) for t, _, label, text, colour in rows]


def report(demo, out):
    s = Style(out)
    mask = Masker([(API_KEY, "key"), (CONFIG_API_KEY, "key"), (ACS_PASSWORD, "password")])
    w = lambda text="": out.write(text + "\n")  # noqa: E731
    requests = demo.server.requests()
    store = demo.device.store()
    args = demo.args

    def title(text):
        w()
        w(s(text, "bold"))

    def answers(r):
        if r["method"] == "PUT":
            return 200
        return args.server_status

    if demo.failing:
        scenario = "--server-status %d: the onboarding server answers every GET with %d" % (
            args.server_status, args.server_status)
    elif args.mapp:
        scenario = "--mapp: a mobile-app onboarding is in progress; bootstrap status 1"
    elif args.bootstrap_fail:
        scenario = "--bootstrap-fail: the TR-069 client cannot reach its new ACS; bootstrap status 0"
    else:
        scenario = "default: the server answers 200, bootstrap status 1"
    w(s("tavelAgent demo: first boot of a gateway in its factory state", "bold"))
    w("  scenario     " + scenario)
    w("  device root  %s%s" % (demo.root, "" if args.keep else " (removed at the end; --keep keeps it)"))
    w("  server       obsim at %s, CA %s" % (demo.server.url(), demo.before["Device.DeviceInfo.X_TAVEL_CACertPath"]))
    w("  time scale   %d: waits run %dx faster, logs keep the nominal seconds" % (args.time_scale, args.time_scale))

    title("Timeline (seconds since the agent started)")
    for t, label, text, colour in Timeline(demo, s, mask).lines(demo.watcher.events, requests, answers):
        w("  %s  %s %s" % (s("%7.3f" % t, "dim"), s("%-8s" % label, "cyan" if label == "server" else "dim"),
                            s(text, colour) if colour else text))

    title("Requests the onboarding server received")
    if not requests:
        w("  (none)")
    first_headers = {}
    for i, r in enumerate(requests, 1):
        if "method" not in r:
            w("  #%d  TLS handshake failed (port %s): %s" % (i, r.get("client_port"), r.get("error", "")))
            continue
        key = (r["method"], r["target"])
        headers = [mask(h) if not h.lower().startswith("x-api-key:") else
                   h.split(":", 1)[0] + ": " + mask_key(h.split(":", 1)[1].strip()) for h in r["headers"]]
        head = "  #%d  %s %s %s  (from port %s, answered %s)" % (
            i, s(r["method"], "bold"), r["target"], r.get("version", ""), r.get("client_port"), answers(r))
        w(head)
        if first_headers.get(key) == headers:
            continue
        first_headers.setdefault(key, headers)
        for h in headers:
            w("        " + h)
    if any("method" in r for r in requests) and len(requests) > len(first_headers):
        w("  (a request with the same headers as an earlier one of its kind is shown without them)")

    title("Data model: what changed (%s)" % STORE_FILE)
    names = list(demo.before) + [n for n in store if n not in demo.before]
    changed = 0
    for name in names:
        old, new = demo.before.get(name), store.get(name)
        if old == new:
            continue
        changed += 1
        w("  %s" % name)
        w("      %s %s" % (s("-", "red"), show_value(mask_param(name, old))))
        w("      %s %s" % (s("+", "green"), show_value(mask_param(name, new))))
    if not changed:
        w("  (nothing changed)")

    title("History events (var/log/history.log)")
    history = [p for _, _, src, p in demo.watcher.events if src == "history"]
    for line in history or ["(none)"]:
        w("  " + line)

    title("Marker files")
    for rel, what in ((TZ_MARKER, "time zone configured"), (CLOUD_MARKER, "cloud settings configured"),
                      (CC_CONFIGURED_BY, "who set the country code"),
                      (CC_FILE, "country code parked for later"),
                      (ONBOARDING_IN_PROGRESS, "mobile-app onboarding running; the demo sets it with --mapp")):
        p = demo.path(rel)
        if os.path.exists(p):
            with open(p, "rb") as f:
                data = f.read()
            state = s("present", "green") + (": " + show_bytes(data) if data else ", empty")
        else:
            state = s("absent", "dim")
        w("  /%-42s %s  (%s)" % (rel, state, what))
    if demo.watcher.parked_seen is not None:
        w("  the parked /%s held %s while the agent waited" % (CC_FILE, show_bytes(demo.watcher.parked_seen)))

    title("Firewall commands recorded (the host's firewall is never touched)")
    fw = [p for _, _, src, p in demo.watcher.events if src == "firewall"]
    for cmd in fw or ["(none)"]:
        w("  iptables " + cmd if fw else "  " + cmd)

    if args.verbose:
        title("The agent's full log (var/log/tavel.log), stamped as it appeared")
        for t, _, src, p in demo.watcher.events:
            if src == "log":
                w("  %s  %s" % (s("%7.3f" % t, "dim"), mask(p)))
        for name in ("agent.stdout", "agent.stderr"):
            with open(demo.path(name), "rb") as f:
                text = f.read().decode("utf-8", "replace")
            title("The agent's %s" % ("standard output" if name.endswith("stdout") else "standard error"))
            for line in text.splitlines() or ["(empty)"]:
                w("  " + mask(line))

    reason = demo.verdict(requests)
    w()
    if args.keep:
        w("Kept: TAVEL_ROOT=%s  (CA in %s)" % (demo.root, demo.ca_dir))
    if reason is None:
        how = "the agent exited with status 0"
        if demo.stopped_by_demo:
            how = "the agent stays alive after a parked code by design, so the demo stopped it"
        w(s("RESULT: onboarding completed in %.2f s (PUT ?status=SUCCESS answered 200; %s)"
            % (demo.duration, how), "bold", "green"))
        return 0
    w(s("RESULT: FAILED: " + reason, "bold", "red"))
    return 1


# ---------------------------------------------------------------- entry

def parse_args(argv):
    p = argparse.ArgumentParser(
        prog="demo.py",
        description="Run one simulated onboarding of a gateway in its factory state and show what happened: "
                    "a timeline, the requests the onboarding server received, the data-model changes, the "
                    "history events, the marker files and the firewall commands.",
        epilog="Exit status 0 only when the onboarding really completed (PUT ?status=SUCCESS received, "
               "management account and time zone in the store, time-zone marker present, the agent exited "
               "0 by itself - except with --mapp, where it stays alive by design); otherwise 1 with a "
               "one-line reason. Colour only on a terminal and without NO_COLOR.")
    p.add_argument("--build-dir", default=os.path.join(SOURCE_DIR, "build"),
                   help="where tavelAgent and tavelctl are (default: build/ of the source tree)")
    p.add_argument("--server-status", type=int, default=200, metavar="CODE",
                   help="HTTP status the onboarding server answers the GET with, e.g. 503: watch the "
                        "retries with back-off for %.0f s, then the demo stops the agent and reports "
                        "(exit status 1, as the onboarding does not complete)" % FAILING_WATCH)
    p.add_argument("--mapp", action="store_true",
                   help="a mobile-app onboarding is in progress: the country code is parked in "
                        "/flash/cc_from_tavel and applied when ccApplyTimer expires (1800 s nominal); "
                        "the agent refuses every exit once a code was parked, so the demo stops it")
    p.add_argument("--bootstrap-fail", action="store_true",
                   help="the configuration manager reports bootstrap status 0: the PUT carries "
                        "?status=ERROR:CONN_FAILED (exit status 1, as the onboarding does not complete)")
    p.add_argument("--keep", action="store_true", help="keep the device root (TAVEL_ROOT) and print its path")
    p.add_argument("--time-scale", type=int, default=DEFAULT_SCALE, metavar="N",
                   help="TAVEL_TIME_SCALE: every wait of the agent runs N times faster (default %d)" % DEFAULT_SCALE)
    p.add_argument("--timeout", type=float, default=DEFAULT_TIMEOUT, metavar="S",
                   help="hard limit on the agent's run in seconds; beyond it the agent is killed "
                        "(default %.0f)" % DEFAULT_TIMEOUT)
    p.add_argument("--verbose", action="store_true", help="also show the agent's full log and its output")
    args = p.parse_args(argv)
    if not 100 <= args.server_status <= 599:
        p.error("--server-status must be an HTTP status from 100 to 599")
    if args.time_scale < 1:
        p.error("--time-scale must be a positive integer")
    if args.timeout <= 0:
        p.error("--timeout must be positive")
    if args.server_status != 200 and (args.mapp or args.bootstrap_fail):
        p.error("--server-status other than 200 never reaches the country code or the bootstrap step")
    return args


def main(argv=None):
    args = parse_args(argv)
    demo = Demo(args)
    interrupted = False
    try:
        demo.prepare()
        demo.run()
        return report(demo, sys.stdout)
    except DemoError as err:
        print("RESULT: FAILED: %s" % err)
        return 1
    except KeyboardInterrupt:
        interrupted = True
        print("RESULT: FAILED: interrupted")
        return 1
    except BrokenPipeError:
        # A reader such as head(1) stopped early: nothing left to tell it.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    finally:
        if demo.proc is not None and demo.proc.poll() is None:
            demo.proc.kill()
            demo.proc.wait()
        demo.close()
        if interrupted and args.keep and demo.root:
            print("Kept: TAVEL_ROOT=%s" % demo.root)


if __name__ == "__main__":
    sys.exit(main())
