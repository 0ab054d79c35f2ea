"""A complete onboarding against the server simulator, shared by the fault
and load tests and by the benchmarks.

Onboarding(tmpdir) starts obsim (HTTPS on 127.0.0.1) with a reply that
carries a new management account, cloud endpoints, descriptions and a time
zone the device's mapping file knows, so a run goes through every write of a
real first boot.  device() makes a simulated device in its factory state
pointed at that server; run helpers wait for the account to reach the store
and send the bootstrap signal that makes the agent report and exit.
"""
import json
import os
import shutil
import subprocess
import tempfile
import sys
import time

import harness
from harness import TAVELCTL, Device, command

sys.path.insert(0, os.path.join(harness.SOURCE_DIR, "tools", "obsim"))
import obsim  # noqa: E402

# Deliberate waits (the 60 s time-zone pause, 5 s polls, back-off) shrink to
# well under a millisecond; retries in fault tests use their own scale.
FAST_SCALE = "100000"

ACS_URL = "https://acs.onboard.test:7547/cwmp"
ACS_USER = "cpe-0001"
ACS_PASSWORD = "s3cret-pw"
OPDESC = "Test operator"
SNETDESC = "Test subnet"
TZ_VALUE = "CET-1CEST"
TZ_NAME = "Europe/Berlin"

REPLY_HEADERS = [
    "url: %s\r\n" % ACS_URL,
    "name: %s\r\n" % ACS_USER,
    "pwd: %s\r\n" % ACS_PASSWORD,
    "opdesc: %s\r\n" % OPDESC,
    "snetdesc: %s\r\n" % SNETDESC,
    "tenantid: tenant-7\r\n",
    'timezone: {"code":"CET","name":"Central European Time","id":"Europe/Berlin"}\r\n',
    "countrycode: DE\r\n",
    "l1url: https://l1.cloud.test/a\r\n",
    "l2url: https://l2.cloud.test/b\r\n",
    "remotemappurl: https://app.cloud.test/c\r\n",
    "kprconfigurl: https://cfg.cloud.test/d\r\n",
    "kprconfigapikey: cfg-key-9\r\n",
]
GOOD_SCRIPT = {"get": {"status": 200, "headers": REPLY_HEADERS, "body": "{}"}, "put": {"status": 200}}

MAPPING = ('UTC,Etc,UTC,UTC0,"Etc/UTC"\n'
           'CET,Europe,Berlin,%s,"%s"\n'
           'CET,Europe,Paris,CET-1CEST,"Europe/Paris"\n' % (TZ_VALUE, TZ_NAME))

# Last log line of a successful fetch-and-apply step (the country step runs
# last and this device has no country-code capability).
APPLIED_LINE = "Capability: country code sync is not applicable"
GET_DONE = "httpGetUrlFromServer ret: "
EXIT_LINE = "exitTavel !!!!"


OBSIM = os.path.join(harness.SOURCE_DIR, "tools", "obsim", "obsim.py")


class Onboarding:
    """obsim in a process of its own: its timestamps are not delayed by the
    test's own threads, and it can be stopped and started again on the same
    port like a real server being restarted."""

    def __init__(self, workdir, script=None, port=0):
        self.dir = os.path.join(workdir, "obsim")
        obsim.ensure_certs(self.dir)
        self.script_path = os.path.join(self.dir, "script.json")
        self.record_path = os.path.join(self.dir, "requests.jsonl")
        open(self.record_path, "w").close()
        self.set_script(script or GOOD_SCRIPT)
        self.port = port
        self.proc = None
        # The agent keeps the CA path in a 28-byte field, so the file must
        # sit at a short path or the agent would see a cut name.
        self.ca_dir = tempfile.mkdtemp(prefix="tca", dir="/tmp")
        self.ca_path = os.path.join(self.ca_dir, "ca.pem")
        shutil.copyfile(os.path.join(self.dir, "ca.pem"), self.ca_path)
        assert len(self.ca_path) <= 27, self.ca_path
        self.start()

    def start(self):
        for attempt in range(50):
            self.proc = subprocess.Popen([sys.executable, OBSIM, "--dir", self.dir, "--script", self.script_path,
                                          "--record", self.record_path, "--port", str(self.port)],
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
            line = self.proc.stdout.readline().decode()
            if line.startswith("PORT "):
                self.port = int(line.split()[1])
                return
            self.proc.wait(timeout=10)
            time.sleep(0.1)  # a restart may race the old socket's release
        raise RuntimeError("obsim did not start on port %d" % self.port)

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(timeout=15)
        if self.proc is not None:
            self.proc.stdout.close()
        self.proc = None

    def close(self):
        self.stop()
        shutil.rmtree(self.ca_dir, ignore_errors=True)

    def url(self, path="/onboard"):
        return "https://127.0.0.1:%d%s" % (self.port, path)

    def set_script(self, script):
        tmp = self.script_path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(script, f)
        os.replace(tmp, self.script_path)

    def requests(self):
        with open(self.record_path) as f:
            return [json.loads(l) for l in f if l.strip()]

    def methods(self):
        return [r.get("method", r.get("event")) for r in self.requests()]

    def clear_requests(self):
        open(self.record_path, "w").close()

    def store_values(self):
        return {
            "Device.X_TAVEL_Agent.URL": self.url("/onboard"),
            "Device.DeviceInfo.X_TAVEL_CACertPath": self.ca_path,
        }

    def device(self, extra=None):
        values = self.store_values()
        values.update(extra or {})
        dev = Device(values)
        dev.touch(harness.MAPPING_FILE, MAPPING.encode())
        return dev


def applied(dev):
    """True once the fetch-and-apply step has written the account and ended."""
    return dev.store().get("Device.ManagementServer.Username") == ACS_USER and APPLIED_LINE in dev.log()


def wait_until(predicate, timeout, what, step=0.02):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return
        time.sleep(step)
    raise AssertionError("timed out after %.1f s waiting for %s" % (timeout, what))


def ctl(bus_env, *args, timeout=30):
    env = dict(os.environ)
    env.update(bus_env)
    return subprocess.run(command(TAVELCTL, *args), env=env, capture_output=True, text=True, timeout=timeout,
                          stdin=subprocess.DEVNULL)


def bootstrap(bus_env, status="1"):
    """Sends the configuration manager's bootstrap outcome; True when sent."""
    return ctl(bus_env, "bootstrap", status).returncode == 0


def port_trouble(dev):
    """True when a fetch failed at the transfer level, which is what a local
    port held by another test on this machine looks like."""
    return GET_DONE + "5000" in dev.log()
