"""Integration tests of the real tavelAgent: Device() is a factory-state tavelsim Sandbox, Server() obsim."""
import atexit
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
from tavelsim import CA_PATH_MAX, EMULATOR, FACTORY_ACS_URL, MAPPING_FILE, Sandbox, run_binary  # noqa: E402

BUILD_DIR = os.environ.get("TAVEL_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
SOURCE_DIR = os.environ.get("TAVEL_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
AGENT = os.path.join(BUILD_DIR, "tavelAgent")
TAVELCTL = os.path.join(BUILD_DIR, "tavelctl")
LOCAL_PORTS = (47777, 47778, 47779)

# Factory state: enabled agent, no management account or cloud settings, root role.
FACTORY_STORE = {
    "Device.X_TAVEL_Agent.Enable": "1", "Device.X_TAVEL_Agent.URL": "https://127.0.0.1:1/onboard",
    "Device.X_TAVEL_Agent.APIKey": "test-api-key", "Device.ManagementServer.URL": FACTORY_ACS_URL,
    "Device.ManagementServer.Username": "", "Device.ManagementServer.Password": "",
    "Device.X_TAVEL_WiFiService.WorkMode": "RGW", "Device.X_TAVEL_WiFiService.WorkRole": "Controller",
    "Device.DeviceInfo.SerialNumber": "SN0001", "Device.DeviceInfo.X_TAVEL_OperatorID": "OP42",
    "Device.DeviceInfo.X_TAVEL_Country": "DE"}


def wait_until(predicate, timeout, what, proc=None, tail=None):
    """The predicate's first true value; fails after timeout or once proc exited, with tail() shown."""
    deadline = time.monotonic() + timeout
    while True:
        exited = proc is not None and proc.poll() is not None
        value = predicate()
        if value:
            return value
        if exited or time.monotonic() > deadline:
            raise AssertionError("%s waiting for %s:\n%s" % (
                "agent exited (%s)" % proc.returncode if exited else "timed out after %.1f s" % timeout, what,
                tail()[-4000:] if tail else ""))
        time.sleep(0.02)


class Device(Sandbox):
    def __init__(self, store=None):
        super().__init__(dict(FACTORY_STORE, **(store or {})), prefix="tavel-it-")
        self._sanitizer_reports = []

    def env(self, extra=None):
        return super().env(dict({"TAVEL_TIME_SCALE": os.environ.get("TAVEL_TIME_SCALE", "1")}, **(extra or {})))

    def start(self, env=None, **kw):
        # A second start rewrites the output files: keep the previous run's sanitizer reports.
        self._collect_sanitizer_reports()
        return self.spawn(AGENT, env, **kw)

    def wait_exit(self, timeout=30):
        return self.proc.wait(timeout=timeout)

    def wait_log(self, text, timeout=20, count=1, read=None):
        """The log (or what read returns) once it holds text count times."""
        read = read or self.log
        return wait_until(lambda: (lambda out: out.count(text) >= count and out)(read()), timeout, repr(text),
                          self.proc, read)

    def wait_stdout(self, text, timeout=10, count=1):
        return self.wait_log(text, timeout, count, read=self.stdout)

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait(timeout=10)

    def _collect_sanitizer_reports(self):
        # The agent exits 0 by design and is often killed: its status would hide the findings.
        err = self.read("agent.stderr", "rb").decode("utf-8", "replace")
        if any(marker in err for marker in SANITIZER_MARKERS):
            self._sanitizer_reports.append(err)

    def close(self):
        self.stop()
        self._collect_sanitizer_reports()
        # With a finding the root is kept: the log around it explains it.
        if self._sanitizer_reports:
            raise AssertionError("sanitizer report from the agent (root kept at %s):\n%s" % (
                self.root, "\n----\n".join(r[-12000:] for r in self._sanitizer_reports)))
        self.remove()


# What the sanitizer runtimes write first in a report on standard error.
SANITIZER_MARKERS = ("WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:")

# Stale rules go first, so a restart never doubles them; the exit removes them.
FIREWALL_INSERT = ["%s INPUT_%s -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT" % r for r in (
    ("-D", "FW_LEVEL"), ("-D", "WAN_REMOTE_ACCESS"), ("-I", "WAN_REMOTE_ACCESS"), ("-I", "FW_LEVEL"))]
FIREWALL_REMOVE = FIREWALL_INSERT[:2]

# Needs onboarding but has no role yet: the run polls for one, idle otherwise.
NO_ROLE = {"Device.X_TAVEL_WiFiService.WorkMode": "CFG"}

# Onboarded already: with both markers the agent exits at start-up, without them it onboards again.
CONFIGURED_STORE = {
    "Device.ManagementServer.URL": "https://acs.configured.test:7547/cwmp",
    "Device.ManagementServer.Username": "cpe-old", "Device.ManagementServer.Password": "old-secret",
    "Device.X_TAVEL_Cloud.L1URL": "https://l1.configured.test", "Device.X_TAVEL_Cloud.L1Flags": "1"}


# ---- the onboarding server ----

_cert_dir = None


def cert_dir():
    """obsim certificates for the whole process (slow to make), at a path short enough for CA_PATH_MAX."""
    global _cert_dir
    if _cert_dir is None:
        sys.path.insert(0, os.path.join(SOURCE_DIR, "tools", "obsim"))
        import obsim
        _cert_dir = tempfile.mkdtemp(prefix="tv", dir="/tmp")
        atexit.register(shutil.rmtree, _cert_dir, True)
        obsim.ensure_certs(_cert_dir)
        # The unrelated CA under a name short enough for the agent's field.
        shutil.copyfile(os.path.join(_cert_dir, "other-ca.pem"), os.path.join(_cert_dir, "oca.pem"))
    return _cert_dir


def reply(status=200, headers=(), **kw):
    """One obsim reply; headers are raw lines or (name, value) pairs sent as "name: value" CR LF."""
    return dict(status=status, headers=[h if isinstance(h, str) else "%s: %s\r\n" % h for h in headers], **kw)


# A reply handing out a new management account, descriptions and cloud settings.
NEW_ACCOUNT = [
    ("url", "https://acs.new.test:7547/cwmp"), ("name", "cpe-new"), ("pwd", "new-secret"), ("opdesc", "Operator One"),
    ("snetdesc", "Subnet A"), ("tenantid", "tenant-7"), ("l1url", "https://l1.new.test"), ("l2url", "NA"),
    ("remotemappurl", "https://mapp.new.test"), ("kprconfigurl", "https://cfg.new.test"),
    ("kprconfigapikey", "cfg-key-9")]
TZ_PARIS = ("timezone", '{"code":"CET","x":"y","id":"Europe\\/Paris"}')
# Fields 4 and 5 of the mapping line TZ_PARIS selects, as the data model gets them.
PARIS_ZONE = '"CET-1CEST,M3.5.0,M10.5.0/3"'
PARIS_NAME = "Europe/Paris\n"
MAPPING = ('UTC,Etc,UTC,"UTC0","Etc/UTC"\n'
           'CET,Europe,Berlin,"CET-1CEST,M3.5.0,M10.5.0/3","Europe/Berlin"\n'
           'CET,Europe,Paris,%s,"Europe/Paris"\n'
           'CET,Europe,Paris,"CET-1","Europe/Paris-second"\n' % PARIS_ZONE)


class Server:
    """obsim (HTTPS on 127.0.0.1) in this process, with the shared certificates."""

    def __init__(self, script=None):
        certs = cert_dir()
        import obsim
        self.sim = obsim.ObSim(certs, script=script if script is not None else {"get": reply()})
        self.sim.start()

    @property
    def ca_path(self):
        assert len(self.sim.ca_path) <= CA_PATH_MAX, "CA path %r is longer than the agent keeps" % self.sim.ca_path
        return self.sim.ca_path

    def url(self, path="/onboard"):
        return self.sim.url(path)

    def device_store(self, extra=None, ca_path=None):
        """Store values pointing a device at this server, plus extra."""
        return dict({"Device.X_TAVEL_Agent.URL": self.url(),
                     "Device.DeviceInfo.X_TAVEL_CACertPath": ca_path or self.ca_path}, **(extra or {}))

    def device(self, extra=None):
        """A factory device pointed at this server, with the mapping file."""
        dev = Device(self.device_store(extra))
        dev.touch(MAPPING_FILE, MAPPING.encode())
        return dev

    def methods(self):
        return [r.get("method", r.get("event")) for r in self.requests()]

    def reset(self, script):
        """A new script, its queues from the first entry even when unchanged, and an empty record."""
        self._generation = getattr(self, "_generation", 0) + 1
        self.sim.set_script(dict(script, generation=self._generation))
        self.sim.clear_requests()

    def requests(self, method=None):
        """Recorded requests (and TLS failures, which carry "event")."""
        return [r for r in self.sim.requests() if method is None or r.get("method") == method]

    def wait_requests(self, method, count=1, timeout=20, dev=None):
        return wait_until(lambda: (lambda got: len(got) >= count and got)(self.requests(method)), timeout,
                          "%d %s request(s)" % (count, method), dev and dev.proc,
                          lambda: json.dumps(self.requests()) + "\n" + (dev.log() if dev else ""))

    def close(self):
        self.sim.stop()
        for path in (self.sim.script_path, self.sim.record_path, self.sim.script_path + ".tmp"):
            if os.path.exists(path):
                os.unlink(path)


class ServerCase(unittest.TestCase):
    """A server per test and one agent at a time (they share the local ports), even after a failed subtest."""

    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.close)
        self._devices = []

    def script(self, script):
        """The next agent's replies; earlier agents stop first, or a retry would take one of them."""
        for earlier in self._devices:
            earlier.stop()
        self.server.reset(script)

    def device(self, extra=None, ca_path=None, mapping=MAPPING, markers=()):
        for earlier in self._devices:
            earlier.stop()
        dev = Device(self.server.device_store(extra, ca_path=ca_path))
        self.addCleanup(dev.close)
        self._devices.append(dev)
        if mapping is not None:
            dev.touch(MAPPING_FILE, mapping.encode())
        for m in markers:
            dev.touch(m)
        return dev


# A complete first boot; LAST_STEP ends the apply step without the country-code capability.
FULL_SCRIPT = {"get": reply(200, NEW_ACCOUNT + [TZ_PARIS], body="{}"), "put": reply(200)}
ACS_USER = "cpe-new"
LAST_STEP = "Capability: country code sync is not applicable"
EXIT_LINE = "exitTavel !!!!"


def applied(dev):
    """True once the fetch-and-apply step has written the account and ended."""
    return dev.store().get("Device.ManagementServer.Username") == ACS_USER and LAST_STEP in dev.log()


def ctl(bus_env, *args, timeout=30):
    return run_binary(TAVELCTL, *args, env=dict(os.environ, **bus_env), timeout=timeout)


def wait_owner(dev, bus_env, timeout=10):
    wait_until(lambda: ctl(bus_env, "call", "dummyFunction", "0").returncode == 0, timeout,
               "the agent to answer on the bus", dev.proc, dev.log)


def bootstrap(bus_env, status="1"):
    """Sends the configuration manager's bootstrap outcome; True when sent."""
    return ctl(bus_env, "bootstrap", status).returncode == 0


def retry_lines(log, code):
    """(retryCount, nominal seconds) of every back-off line for code."""
    return [(int(c), int(s)) for c, s in
            re.findall(r"\] ret %d retryCount value is (-?\d+) retryCount seconds is (-?\d+)\n" % code, log)]


def gaps(requests):
    """Seconds between successive recorded requests."""
    return [b["received"] - a["received"] for a, b in zip(requests, requests[1:])]


# tests/tools/clockshift.c moves the agent's own wall clock (not OpenSSL's) by the seconds in a file.
CLOCK_SHIFT_LIB = os.path.join(BUILD_DIR, "tests", "clockshift.so")


def set_clock(dev, when):
    """Sets the agent's clock to `when` (None: the real time) from now on, as NTP would."""
    dev.touch("clock.shift.tmp", b"0\n" if when is None else b"%d\n" % (when - int(time.time())))
    os.replace(dev.path("clock.shift.tmp"), dev.path("clock.shift"))


def clock_env(dev, when):
    """The environment that starts the agent with its clock at `when`."""
    set_clock(dev, when)
    env = {"TZ": "UTC", "TAVEL_CLOCK_SHIFT_FILE": dev.path("clock.shift"),
           "TAVEL_CLOCK_TRACE": dev.path("clock.trace"),
           # The shim comes ahead of an ASan runtime in the preload order.
           "ASAN_OPTIONS": (os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0").lstrip(":")}
    # Under a user-mode emulator the shim must reach the target process, not the emulator.
    if EMULATOR and os.path.basename(EMULATOR[0]).startswith("qemu-"):
        return dict(env, QEMU_SET_ENV="LD_PRELOAD=" + CLOCK_SHIFT_LIB)
    return dict(env, LD_PRELOAD=CLOCK_SHIFT_LIB)



def build_sigstorm(directory):
    """tests/tools/sigstorm.c built into directory; its path."""
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "dbus-1"], capture_output=True, text=True,
                           check=True).stdout.split()
    binary = os.path.join(directory, "sigstorm")
    subprocess.run(["cc", "-O2", "-o", binary, os.path.join(SOURCE_DIR, "tests", "tools", "sigstorm.c")] + flags,
                   check=True)
    return binary
