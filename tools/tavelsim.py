"""The simulated gateway that the demo, the integration tests and the
benchmarks drive the real binaries on: the data-model store file, a device
root for TAVEL_ROOT with a recording `iptables` first in PATH, the command
lines of tavelAgent and tavelctl, and a private dbus-daemon.  Python standard
library only.

The store rules are those of the dml stand-in (platform/dml/store.h); a
change to one is a change to both.  Nothing here touches the host's firewall,
system bus or device paths.
"""
import ctypes
import fcntl
import os
import re
import shlex
import shutil
import subprocess
import tempfile

# Words put in front of every tavelAgent and tavelctl command line, so the
# same tests and demo drive binaries built for another architecture through a
# user-mode emulator, e.g. TAVEL_EMULATOR="qemu-arm -L /".  The emulator runs
# the target in its own process, so pids and signals still reach the agent.
EMULATOR = shlex.split(os.environ.get("TAVEL_EMULATOR", ""))

_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)


def die_with_parent():
    """In a child about to exec: SIGKILL when the process that started it
    ends, so a test or demo killed half-way (a ctest time-out, ^C) leaves no
    agent or bus daemon behind looping on a root that is gone.  The thread
    that starts the child must live as long as the child should."""
    _libc.prctl(_PR_SET_PDEATHSIG, 9, 0, 0, 0)


def command(binary, *args):
    """The command line that runs one of the project's binaries on this host."""
    return EMULATOR + [binary] + list(args)


def run_binary(binary, *args, env=None, timeout=30, text=True):
    """Runs a project binary to its end, output captured, no standard input."""
    return subprocess.run(command(binary, *args), env=env, capture_output=True, text=text, timeout=timeout,
                          stdin=subprocess.DEVNULL)


# The build's default TAVEL_FACTORY_ACS_URL: the management URL of a device
# in its factory state.
FACTORY_ACS_URL = "https://acs.tavel.invalid:7754"

# Device paths, relative to TAVEL_ROOT.
STORE_FILE = "flash/dml/datamodel.conf"
TZ_MARKER = "flash/mcq/tavel/timezoneconfigdone.txt"
CLOUD_MARKER = "flash/mcq/tavel/KPRCConfigdone.txt"
CC_CONFIGURED_BY = "configs/cc_configured_by"
CC_FILE = "flash/cc_from_tavel"
ONBOARDING_IN_PROGRESS = "tmp/onboarding_in_progress"
MAPPING_FILE = "usr/configs/timezonemapping.csv"
AGENT_LOG = "var/log/tavel.log"
HISTORY_LOG = "var/log/history.log"
IPTABLES_LOG = "iptables.log"
# What a device has from its image; the agent creates only its own marker
# directory.
IMAGE_DIRS = ("configs", "tmp", "usr/configs", "var/log")

# The agent refuses any other TAVEL_ROOT: the root is part of shell commands.
ROOT_CHARS = re.compile(r"^[A-Za-z0-9/._-]{1,256}$")
# The agent keeps the CA certificate path in a 28-byte field.
CA_PATH_MAX = 27


# ---------------------------------------------------------------- the store

_ESCAPE = {"\\": "\\\\", "\n": "\\n", "\r": "\\r", "\t": "\\t"}
_UNESCAPE = {v[1]: k for k, v in _ESCAPE.items()}


def escape(value):
    return re.sub(r"[\\\n\r\t]", lambda m: _ESCAPE[m.group(0)], value)


def unescape(raw):
    # A backslash before any other character, or ending the value, stays.
    return re.sub(r"\\([\\nrt])", lambda m: _UNESCAPE[m.group(1)], raw)


def valid_name(name):
    """Readers skip a line whose name (all before the first "=") is empty, a
    comment, or holds anything but printable ASCII without blanks."""
    return bool(name) and name[0] != "#" and all("!" <= c <= "~" for c in name)


def read_store(path):
    """The parameters in file order, decoded; the first line of a name wins.
    A missing store holds none."""
    try:
        with open(path, "rb") as f:
            text = f.read().decode("utf-8", "replace")
    except FileNotFoundError:
        return {}
    values = {}
    for line in text.split("\n"):
        name, eq, raw = line.partition("=")
        if eq and valid_name(name):
            values.setdefault(name, unescape(raw))
    return values


def store_problems(path):
    """Every way the store file could be corrupt (cut short, not UTF-8, a line
    that does not parse); empty when it is sound.  Names are held to what the
    agent writes, letters, digits, "_" and ".", stricter than readers are."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except FileNotFoundError:
        data = b""
    if not data:
        return ["store is empty or missing"]
    try:
        lines = data.decode("utf-8").split("\n")
    except UnicodeDecodeError as e:
        return ["store is not UTF-8: %s" % e]
    problems = [] if lines[-1] == "" else ["store does not end with a line feed (truncated?)"]
    return problems + ["line %d does not parse: %r" % (n, line[:80]) for n, line in enumerate(lines[:-1], 1)
                       if line and not line.startswith("#") and not re.match(r"[A-Za-z0-9_.]+=", line)]


def write_store(path, values, comment="simulated device"):
    """Replaces the whole store with values (a new device image), the way the
    stand-in writes: under the lock beside it, through a renamed copy, mode
    0600 (it holds the ACS password)."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    text = "# %s\n" % comment + "".join("%s=%s\n" % (n, escape(v)) for n, v in values.items())
    with open(path + ".lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        fd = os.open(path + ".new", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        with os.fdopen(fd, "w") as f:
            f.write(text)
            f.flush()
            os.fsync(f.fileno())
        os.replace(path + ".new", path)


# ---------------------------------------------------------------- the device

def recording_iptables(stamped):
    # With stamped, each command carries the wall clock of its run (one fork
    # of `date` more per run), so a timeline can place it among the log lines.
    line = '"$(date +%s.%N) $*"' if stamped else '"$*"'
    return ("#!/bin/sh\n# Records what the agent asks of the firewall; the host's is never touched.\n"
            "printf '%%s\\n' %s >> \"$TAVEL_ROOT/%s\"\nexit 0\n" % (line, IPTABLES_LOG))


class Sandbox:
    """A device root for TAVEL_ROOT in a new temporary directory: the image's
    directories, the store (when given), and a recording `iptables` in bin/,
    which env() puts first in PATH."""

    def __init__(self, store=None, prefix="tavel-", stamped_iptables=False, comment="simulated device"):
        self.root = tempfile.mkdtemp(prefix=prefix)
        if not ROOT_CHARS.match(self.root):
            shutil.rmtree(self.root, ignore_errors=True)
            raise RuntimeError("temporary directory %s is not a valid TAVEL_ROOT (A-Za-z0-9/._- only); "
                               "set TMPDIR to a plain path" % self.root)
        self.stamped_iptables = stamped_iptables
        self.comment = comment
        self.proc = None
        self.bin = self.path("bin")
        for d in IMAGE_DIRS + ("bin",):
            os.makedirs(self.path(d), exist_ok=True)
        self.touch("bin/iptables", recording_iptables(stamped_iptables).encode())
        os.chmod(self.path("bin/iptables"), 0o755)
        if store is not None:
            self.write_store(store)

    def path(self, rel):
        return os.path.join(self.root, rel)

    def write_store(self, values):
        write_store(self.path(STORE_FILE), values, self.comment)

    def store(self):
        return read_store(self.path(STORE_FILE))

    def touch(self, rel, content=b""):
        p = self.path(rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "wb") as f:
            f.write(content)

    def exists(self, rel):
        return os.path.exists(self.path(rel))

    def read(self, rel, mode="r"):
        """The file's content; empty when it does not exist."""
        try:
            with open(self.path(rel), mode) as f:
                return f.read()
        except FileNotFoundError:
            return b"" if "b" in mode else ""

    def log(self):
        return self.read(AGENT_LOG)

    def history(self):
        return self.read(HISTORY_LOG)

    def stdout(self):
        return self.read("agent.stdout")

    def iptables(self):
        """The firewall commands run so far, without their stamps."""
        lines = [l for l in self.read(IPTABLES_LOG).split("\n") if l]
        return [l.split(" ", 1)[1] for l in lines] if self.stamped_iptables else lines

    def env(self, extra=None):
        """The environment of a program on this device; it never reaches the
        host's system bus unless extra names one."""
        env = dict(os.environ)
        env["TAVEL_ROOT"] = self.root
        env["PATH"] = self.bin + os.pathsep + env.get("PATH", "")
        env["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + self.path("no-bus")
        env.update(extra or {})
        return env

    def spawn(self, binary, env=None, wrapper=(), cwd=None):
        """Starts the agent, behind the words of wrapper (e.g. a tracer) when
        given; its standard output and error go to agent.stdout and
        agent.stderr in the root."""
        with open(self.path("agent.stdout"), "wb") as out, open(self.path("agent.stderr"), "wb") as err:
            self.proc = subprocess.Popen(list(wrapper) + command(binary), env=self.env(env), stdout=out,
                                         stderr=err, stdin=subprocess.DEVNULL, cwd=cwd,
                                         preexec_fn=die_with_parent)
        return self.proc

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)


def cpu_ticks(pid):
    """User plus system CPU time of a process, in clock ticks."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


# ---------------------------------------------------------------- the bus

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  {policy}
  {include}
</busconfig>
"""

# Like a session bus: anyone may send to, receive from and own anything.
OPEN_POLICY = """<policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>"""

# Like a system bus: nothing may be owned and no method called unless another
# rule allows it.
CLOSED_POLICY = """<policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>"""


class PrivateBus:
    """A dbus-daemon of its own on a unix socket in directory (a new temporary
    one, removed on close, when none is given); env() points the agent and
    tavelctl at it as their system bus.  include names a policy file read
    after policy, e.g. the project's own.  FileNotFoundError when there is no
    dbus-daemon, RuntimeError when it does not start."""

    def __init__(self, policy=OPEN_POLICY, include=None, directory=None):
        self._own_dir = directory is None
        self.dir = tempfile.mkdtemp(prefix="tavel-bus-") if directory is None else directory
        os.makedirs(self.dir, exist_ok=True)
        self.config = os.path.join(self.dir, "bus.conf")
        with open(self.config, "w") as f:
            f.write(BUS_CONFIG.format(socket=os.path.join(self.dir, "bus"), policy=policy,
                                      include="<include>%s</include>" % include if include else ""))
        self.proc = None
        self.address = None
        self._launch()

    def _launch(self):
        try:
            self.proc = subprocess.Popen(["dbus-daemon", "--config-file=" + self.config, "--nofork",
                                          "--print-address"],
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL,
                                         preexec_fn=die_with_parent)
        except FileNotFoundError:
            self.close()
            raise
        self.address = self.proc.stdout.readline().decode().strip()
        if not self.address:
            err = self.proc.stderr.read().decode().strip()
            self.close()
            raise RuntimeError("dbus-daemon did not start: " + err)

    def kill(self):
        """The daemon dies (SIGKILL), as a crashed system bus would; its clients lose their connections."""
        self.proc.kill()
        self.proc.wait(timeout=10)
        self.proc.stdout.close()
        self.proc.stderr.close()

    def restart(self):
        """A new daemon on the same socket path, so env() reaches it unchanged."""
        if self.proc.poll() is None:
            self.kill()
        self._launch()

    def env(self):
        # The socket path alone, as a device's system-bus address is: the
        # daemon's guid would tie a client to this one daemon, not to a
        # restarted one.
        return {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=" + os.path.join(self.dir, "bus")}

    def close(self):
        if self.proc is not None:
            if self.proc.poll() is None:
                self.proc.terminate()
                self.proc.wait(timeout=10)
            self.proc.stdout.close()
            self.proc.stderr.close()
        if self._own_dir:
            shutil.rmtree(self.dir, ignore_errors=True)
