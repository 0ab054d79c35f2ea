#!/usr/bin/env python3
"""Benchmarks of one complete onboarding by tavelAgent, side by side with two
references that make the same two requests (GET, then PUT) with the same
header lines and CA file against the same local server simulator:

  min   bench/ref_min.c: libcurl and the two transfers, nothing else
  curl  bench/ref_curl.sh: the curl command-line tool, once per request

One table sets every figure beside its floor, the minimal program measured
in the same run.  Headline figures (instruction counts and memory: stable on
a shared host): instructions per onboarding of the agent's own process and
with the processes it starts (callgrind, --trace-children=yes), processes
started (strace), private dirty memory and virtual size while the agent
waits for the bootstrap signal (the minimal program's after its PUT; the
page cache is written back first), instructions per store line added.
Also: exec to GET (as a ratio of medians from the same run), peak RSS,
store bytes written, idle CPU ticks, stripped sizes.  Then a scale table:
the onboarding with a store of 100 to 100,000 lines, and the time-zone
lookup with a mapping file of 100 to 100,000 lines.  --quick keeps the
table's figures but measures fewer and smaller runs (about a minute).

Prints markdown tables and writes bench/results.json (or --json PATH).
Environment: TAVEL_BUILD_DIR (default build/), TAVEL_ARM_BUILD_DIR (default
build-arm/, used for the ARM size when it holds a tavelAgent).
"""
import argparse
import glob
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, "tests", "integration"))
os.environ.setdefault("TAVEL_BUILD_DIR", os.path.join(SOURCE, "build"))

import harness  # noqa: E402
from tavelsim import PrivateBus  # noqa: E402

AGENT = os.path.abspath(harness.AGENT)
ARM_DIR = os.environ.get("TAVEL_ARM_BUILD_DIR", os.path.join(SOURCE, "build-arm"))

# Deliberate waits (the 60 s time-zone pause, 5 s polls, back-off) shrink to
# well under a millisecond.
FAST_SCALE = "100000"
GET_DONE = "httpGetUrlFromServer ret: "


def port_trouble(dev):
    """True when a fetch failed at the transfer level, which is what a local
    port held by another process on this machine looks like."""
    return GET_DONE + "5000" in dev.log()


TARGET_OWN_INSTR_RATIO = 1.12      # instructions of the agent's own process, x min
TARGET_INSTR_RATIO = 1.15          # instructions with children, x min
TARGET_DIRTY_RATIO = 1.05          # idle private dirty, x min after its PUT
TARGET_VMSIZE_KIB = 32 * 1024      # virtual size during the idle wait
TARGET_EXEC_TO_GET_RATIO = 1.6     # x min
TARGET_PROCESSES = 6               # the iptables runs
TARGET_ARM_BYTES = 100 * 1024      # stripped armhf agent: 100 KiB, read as the 32 MB above is
TARGET_STORE_PER_LINE = 3000       # instructions per store line per onboarding
TARGET_STORE_100K = 400_000_000    # instructions per onboarding, 100,000-line store
TARGET_MAPPING_100K = 150_000_000  # instructions of the lookup, 100,000 lines

STORE_SIZES = (100, 1000, 10000, 100000)
MAPPING_SIZES = (100, 10000, 100000)
QUICK = {"runs": 7, "idle": 3.0, "store_sizes": "100,3000", "mapping_sizes": ""}
# The time-zone lookup, profiled on its own (callgrind --toggle-collect).
LOOKUP_FUNCTION = "gettimezonecmd*"


def log(msg):
    print(msg, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, args):
        self.args = args
        self.work = tempfile.mkdtemp(prefix="tavel-bench-")
        self.onb = harness.Server(harness.FULL_SCRIPT)
        self.bus = PrivateBus()
        self.ref_min = os.path.join(self.work, "ref_min")
        subprocess.run(["cc", "-O2", "-o", self.ref_min, os.path.join(HERE, "ref_min.c"), "-lcurl"], check=True)
        self.ref_curl = os.path.join(HERE, "ref_curl.sh")
        self.wrap = os.path.join(self.work, "rusage_wrap")
        subprocess.run(["cc", "-O2", "-o", self.wrap, os.path.join(HERE, "rusage_wrap.c")], check=True)
        store = harness.FACTORY_STORE
        # The agent sends the descriptions with the CR that ended them in the
        # reply; the references send the very same bytes.
        self.ref_args = [self.onb.url("/onboard"), self.onb.ca_path, store["Device.X_TAVEL_Agent.APIKey"],
                         store["Device.DeviceInfo.X_TAVEL_OperatorID"], store["Device.DeviceInfo.SerialNumber"],
                         store["Device.DeviceInfo.X_TAVEL_Country"], "Subnet A\r", "Operator One\r"]

    def close(self):
        self.bus.close()
        self.onb.close()
        if self.args.keep:
            log("work directory kept: " + self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    # ------------------------------------------------------------ processes
    def spawn(self, argv, env=None, out=None, err=None):
        out = out or os.path.join(self.work, "out.txt")
        err = err or os.path.join(self.work, "err.txt")
        actions = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                   (os.POSIX_SPAWN_OPEN, 1, out, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644),
                   (os.POSIX_SPAWN_OPEN, 2, err, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)]
        path = shutil.which(argv[0]) or argv[0]
        return os.posix_spawn(path, argv, env or os.environ, file_actions=actions)

    @staticmethod
    def reap(pid, timeout):
        """wait4 with a deadline; returns (status, rusage) or kills the child."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            got, status, usage = os.wait4(pid, os.WNOHANG)
            if got == pid:
                return status, usage
            time.sleep(0.005)
        os.kill(pid, signal.SIGKILL)
        os.wait4(pid, 0)
        raise RuntimeError("pid %d did not finish within %.0f s" % (pid, timeout))

    def agent_env(self, dev):
        return dev.env(dict(self.bus.env(), TAVEL_TIME_SCALE=FAST_SCALE))

    def wrapped(self, argv):
        """argv run under rusage_wrap; returns (argv, report path)."""
        report = os.path.join(self.work, "rusage.%d" % time.monotonic_ns())
        return [self.wrap, report] + list(argv), report

    @staticmethod
    def report(path, key, timeout=10):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for line in read(path).splitlines():
                words = line.split()
                if words and words[0] == key:
                    return int(words[1])
            time.sleep(0.002)
        raise RuntimeError("no %s in %s" % (key, path))

    def onboard_agent(self, prefix=(), idle=0.0, timeout=60, rss=False, prepare=None, probe=None):
        """One complete onboarding; returns a dict (maxrss, idle ticks,
        VmHWM, private dirty, VmSize and VmRSS after the idle wait, the
        device).  prepare(dev) may change the device before the agent starts;
        probe(pid), when given, is called after the idle wait (its result
        under "probe").  A fetch that failed at the transfer level (local
        port taken by a test running alongside) is retried after a pause."""
        for attempt in range(6):
            dev = self.onb.device()
            if prepare is not None:
                prepare(dev)
            self.onb.sim.clear_requests()
            argv = list(prefix) + [AGENT]
            if rss:
                argv, report = self.wrapped(argv)
            pid = self.spawn(argv, env=self.agent_env(dev), out=dev.path("agent.stdout"),
                             err=dev.path("agent.stderr"))
            apid = self.report(report, "pid") if rss else pid
            try:
                harness.wait_until(lambda: harness.applied(dev) or port_trouble(dev) or os.waitpid(pid, os.WNOHANG)[0],
                                   timeout, "the account in the store")
            except BaseException:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
                raise
            if port_trouble(dev):
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
                dev.close()
                log("  local ports busy (another test?); waiting 5 s")
                time.sleep(5)
                continue
            res = {"dev": dev, "pid": pid, "ticks": None, "private_dirty": None, "vmsize": None, "vmrss": None,
                   "probe": None}
            if idle > 0:
                time.sleep(0.2)
                before = cpu_ticks(apid)
                time.sleep(idle)
                res["ticks"] = cpu_ticks(apid) - before
                # Well into the wait for the bootstrap signal.
                res["private_dirty"] = private_dirty(apid)
                res["vmsize"] = status_kib(apid, "VmSize")
                res["vmrss"] = status_kib(apid, "VmRSS")
                res["probe"] = probe(apid) if probe is not None else None
            res["hwm"] = status_kib(apid, "VmHWM")
            if not harness.bootstrap(self.bus.env()):
                raise RuntimeError("bootstrap signal not sent")
            status, usage = self.reap(pid, timeout)
            if harness.EXIT_LINE not in dev.log():
                raise RuntimeError("agent did not finish the onboarding:\n" + dev.log()[-2000:])
            methods = [r.get("method") for r in self.onb.requests()]
            if methods != ["GET", "PUT"]:
                raise RuntimeError("unexpected requests %r" % methods)
            res["maxrss"] = self.report(report, "maxrss") if rss else None
            return res
        raise RuntimeError("local ports stayed busy")

    def ref_argv(self, which):
        return ([self.ref_min] if which == "min" else ["sh", self.ref_curl]) + self.ref_args

    def run_ref(self, which, prefix=(), env=None, rss=False):
        argv = list(prefix) + self.ref_argv(which)
        if rss:
            argv, report = self.wrapped(argv)
        for attempt in range(6):
            self.onb.sim.clear_requests()
            pid = self.spawn(argv, env=env)
            status, usage = self.reap(pid, 120)
            if os.waitstatus_to_exitcode(status) == 0:
                methods = [r.get("method") for r in self.onb.requests()]
                if methods != ["GET", "PUT"]:
                    raise RuntimeError("%s: unexpected requests %r" % (which, methods))
                return self.report(report, "maxrss") if rss else usage
            log("  %s failed (ports busy?): %s; waiting 5 s" % (which, read(os.path.join(self.work, "err.txt"))[-300:]))
            time.sleep(5)
        raise RuntimeError(which + " kept failing")

    def min_at_exit(self):
        """Private dirty and VmSize of the minimal program once its two
        transfers are done, just before it would exit."""
        for attempt in range(6):
            self.onb.sim.clear_requests()
            proc = subprocess.Popen(self.ref_argv("min"), env=dict(os.environ, REF_HOLD="1"), stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            line = proc.stdout.readline().decode()
            dirty, vmsize = private_dirty(proc.pid), status_kib(proc.pid, "VmSize")
            proc.stdin.close()
            proc.wait(timeout=30)
            if line.strip() == "GET 200 PUT 200":
                return dirty, vmsize
            log("  min failed (ports busy?): %r; waiting 5 s" % line)
            time.sleep(5)
        raise RuntimeError("min kept failing")

    # ------------------------------------------------------------ figures
    def memory(self):
        log("memory and idle (%.0f s idle) ..." % self.args.idle)
        got = self.onboard_agent(idle=self.args.idle, rss=True)
        got["dev"].close()
        self.idle_ticks = got["ticks"]
        self.agent_hwm_before_put = got["hwm"]
        res = {"maxrss": {"agent": got["maxrss"]},
               "private_dirty": {"agent": got["private_dirty"]}, "vmsize": {"agent": got["vmsize"]}}
        for which in ("min", "curl"):
            res["maxrss"][which] = self.run_ref(which, rss=True)
        res["private_dirty"]["min"], res["vmsize"]["min"] = self.min_at_exit()
        return res

    def callgrind(self, tag, children=True, toggle=None):
        """The valgrind prefix for one profiled run under tag."""
        cg = os.path.join(self.work, "cg")
        os.makedirs(cg, exist_ok=True)
        argv = ["valgrind", "--tool=callgrind", "--trace-children=%s" % ("yes" if children else "no"),
                "--log-file=%s/%s.%%p.log" % (cg, tag), "--callgrind-out-file=%s/%s.%%p.out" % (cg, tag)]
        if toggle:
            argv.append("--toggle-collect=" + toggle)
        return argv, lambda pid=None: collected(cg, tag, pid)

    def agent_instructions(self, tag, prepare=None, toggle=None, own=False):
        """Instructions with children; with own, also the agent's own process's
        (valgrind runs in the process it was started as)."""
        prefix, total = self.callgrind(tag, toggle=toggle)
        got = self.onboard_agent(prefix=prefix, timeout=900, prepare=prepare)
        got["dev"].close()
        return (total(), total(got["pid"])) if own else total()

    def instructions(self):
        log("instructions (callgrind, children followed) ...")
        res = {}
        res["agent"], res["agent_own"] = self.agent_instructions("agent", own=True)
        prefix, total = self.callgrind("min")
        self.run_ref("min", prefix=prefix)
        res["min"] = total()
        # Each curl process on its own: the shell that runs them is not curl.
        prefix, total = self.callgrind("curl")
        self.run_ref("curl", env=dict(os.environ, REF_WRAP=" ".join(prefix)))
        res["curl"] = total()
        return res

    def exec_to_get(self, runs):
        log("exec to GET (%d runs each) ..." % runs)
        samples = {"agent": [], "min": [], "curl": []}
        # Interleaved, and the agent and the floor take turns at going first:
        # a load that comes and goes on a shared host, or whatever the run
        # just before leaves behind, falls on both alike.
        for i in range(runs):
            for which in (("agent", "min", "curl") if i % 2 == 0 else ("min", "agent", "curl")):
                samples[which].append(self.agent_to_get() if which == "agent" else self.ref_to_get(which))
            time.sleep(0.1)  # leave the shared local ports alone for a moment
        return {k: statistics.median(v) * 1000.0 for k, v in samples.items()}, samples

    def agent_to_get(self):
        for attempt in range(6):
            dev = self.onb.device()
            self.onb.sim.clear_requests()
            env = self.agent_env(dev)
            start = time.time()
            pid = self.spawn([AGENT], env=env, out=dev.path("agent.stdout"), err=dev.path("agent.stderr"))
            try:
                harness.wait_until(lambda: GET_DONE in dev.log(), 30, "the fetch")
            finally:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            busy = port_trouble(dev)
            gets = [r for r in self.onb.requests() if r.get("method") == "GET"]
            dev.close()
            if busy or not gets:
                log("  local ports busy; waiting 5 s")
                time.sleep(5)
                continue
            return gets[0]["received"] - start
        raise RuntimeError("agent never reached the server")

    def ref_to_get(self, which):
        argv = self.ref_argv(which)
        for attempt in range(6):
            self.onb.sim.clear_requests()
            start = time.time()
            pid = self.spawn(argv)
            status, _ = self.reap(pid, 60)
            gets = [r for r in self.onb.requests() if r.get("method") == "GET"]
            if os.waitstatus_to_exitcode(status) == 0 and gets:
                return gets[0]["received"] - start
            time.sleep(5)
        raise RuntimeError(which + " never reached the server")

    def strace(self, tag):
        st = os.path.join(self.work, "strace-" + tag)
        os.makedirs(st, exist_ok=True)
        return st, ["strace", "-f", "-ff", "-qq", "-y", "-s", "200", "-e",
                    "trace=clone,clone3,fork,vfork,execve,write,rename,renameat,renameat2", "-o", os.path.join(st, "t")]

    def processes(self):
        """Processes each subject starts (strace), and what the agent writes
        to its store in the same run."""
        log("processes and store writes (strace) ...")
        st, prefix = self.strace("agent")
        dev = self.onboard_agent(prefix=prefix, timeout=120)["dev"]
        iptables_runs = len(dev.iptables())
        dev.close()
        res = {"agent": analyse_strace(st), "iptables_runs_recorded": iptables_runs}
        for which in ("min", "curl"):
            st, prefix = self.strace(which)
            self.run_ref(which, prefix=prefix)
            res[which] = analyse_strace(st)
        return res

    def store_scale(self, sizes):
        res = []
        for n in sizes:
            log("store of %d lines: callgrind, then strace ..." % n)
            prepare = lambda dev, n=n: fill_store(dev, n)  # noqa: E731
            instr = self.agent_instructions("store%d" % n, prepare=prepare)
            st, prefix = self.strace("store%d" % n)
            self.onboard_agent(prefix=prefix, timeout=300, prepare=prepare)["dev"].close()
            writes = analyse_strace(st)
            res.append({"lines": n, "instructions": instr, "store_bytes": writes["store_bytes"],
                        "store_rewrites": writes["store_rewrites"]})
        base = res[0]
        for r in res:
            r["per_line"] = (r["instructions"] - base["instructions"]) / (r["lines"] - base["lines"]) \
                if r["lines"] > base["lines"] else None
        return res

    def mapping_scale(self, sizes):
        res = []
        for n in sizes:
            log("mapping file of %d lines: callgrind of the lookup ..." % n)
            short = []
            prepare = lambda dev, n=n: short.append(fill_mapping(dev, n))  # noqa: E731
            res.append({"lines": n, "instructions": self.agent_instructions("map%d" % n, prepare=prepare,
                                                                            toggle=LOOKUP_FUNCTION),
                        "short_lines": any(short)})
        return res

    def sizes(self):
        res = {}
        res["agent_x86"] = stripped_size(AGENT, "strip")
        res["min_x86"] = stripped_size(self.ref_min, "strip")
        res["curl_x86"] = stripped_size(shutil.which("curl"), "strip")
        arm = os.path.join(ARM_DIR, "tavelAgent")
        if os.path.exists(arm):
            strip = shutil.which("arm-linux-gnueabihf-strip") or shutil.which("llvm-strip")
            res["agent_arm"] = stripped_size(arm, strip) if strip else None
            res["agent_arm_build"] = os.path.relpath(arm, SOURCE)
        return res


# ---------------------------------------------------------------- helpers

def read(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def cpu_ticks(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def status_kib(pid, key):
    for line in read("/proc/%d/status" % pid).splitlines():
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return None


def private_dirty(pid):
    # Written back first, so no figure depends on what the page cache held.
    os.sync()
    for line in read("/proc/%d/smaps_rollup" % pid).splitlines():
        if line.startswith("Private_Dirty:"):
            return int(line.split()[1])
    return None


def fill_store(dev, lines):
    """Makes the device's store `lines` lines long: its own lines in the
    middle of filler parameters of a realistic length."""
    path = dev.path("flash/dml/datamodel.conf")
    own = read(path)
    n = max(0, lines - own.count("\n"))
    filler = ["Device.X_FILL.Object.%d.Parameter=value-%06d-abcdefgh\n" % (i, i) for i in range(n)]
    with open(path, "w") as f:
        f.write("".join(filler[:n // 2]) + own + "".join(filler[n // 2:]))


# The agent refuses a mapping file over 1 MiB; a file of 100,000 lines fits
# only with short lines, so those rows use the shortest line of five fields.
MAPPING_FILE_MAX = 1024 * 1024


def fill_mapping(dev, lines):
    """A mapping file of `lines` lines whose matching line comes last; True
    when its filler lines had to be short to stay under the agent's cap."""
    path = dev.path(harness.MAPPING_FILE)
    own = read(path)
    n = max(0, lines - own.count("\n"))
    filler = ['XYZ,Region%d,City%d,"XYZ0","Region%d/City%d"\n' % (i, i, i, i) for i in range(n)]
    short = sum(map(len, filler)) + len(own) > MAPPING_FILE_MAX
    if short:
        filler = ["x,x,x,x,x\n"] * n
    with open(path, "w") as f:
        f.write("".join(filler))
        f.write(own)
    return short


def collected(cg_dir, tag, pid=None):
    """Sum of the "Collected" totals of every process profiled under tag, or
    of the process pid alone."""
    total, found = 0, 0
    for path in glob.glob(os.path.join(cg_dir, "%s.%s.log" % (tag, "*" if pid is None else pid))):
        m = re.search(r"Collected : (\d+)", read(path))
        if m:
            total += int(m.group(1))
            found += 1
    if found == 0:
        raise RuntimeError("no callgrind total for " + tag)
    return total


def stripped_size(path, strip):
    out = tempfile.mktemp(prefix="tavel-strip-")
    try:
        subprocess.run([strip, "-o", out, path], check=True, capture_output=True)
        return os.path.getsize(out)
    finally:
        if os.path.exists(out):
            os.unlink(out)


CLONE_RE = re.compile(r"^(clone3?|fork|vfork)\((.*)\)\s+=\s+(\d+)")
EXEC_RE = re.compile(r'^execve\("([^"]*)", \[(.*?)\]')
STORE_WRITE_RE = re.compile(r"^write\(\d+<[^>]*/datamodel\.conf\.tmp\.[^>]*>,.*\)\s+=\s+(\d+)")
STORE_RENAME_RE = re.compile(r'^rename(?:at2?)?\(.*"[^"]*/datamodel\.conf\.tmp\.[^"]*",.*"[^"]*/datamodel\.conf"'
                             r'.*\)\s+=\s+0')


def analyse_strace(st_dir):
    """Splits what the traced command created into its threads and the
    processes it started (directly, and their descendants), lists the
    programs those processes ran, and sums its writes to the store."""
    per_pid = {}
    for path in glob.glob(os.path.join(st_dir, "t.*")):
        per_pid[int(path.rsplit(".", 1)[1])] = read(path).splitlines()
    children = {}  # pid -> [(child, is_thread)]
    for pid, lines in per_pid.items():
        for l in lines:
            m = CLONE_RE.match(l)
            if m:
                children.setdefault(pid, []).append((int(m.group(3)), "CLONE_THREAD" in m.group(2)))
    born = {c for cs in children.values() for c, _ in cs}
    roots = [p for p in per_pid if p not in born]
    if len(roots) != 1:
        raise RuntimeError("cannot tell the traced command in %s: %r" % (st_dir, roots))
    group = {roots[0]}
    changed = True
    while changed:
        changed = False
        for pid in list(group):
            for child, thread in children.get(pid, []):
                if thread and child not in group:
                    group.add(child)
                    changed = True
    direct = [c for p in group for c, t in children.get(p, []) if not t]
    tree, todo = [], list(direct)
    while todo:
        p = todo.pop()
        tree.append(p)
        todo.extend(c for c, _ in children.get(p, []))
    execs = []
    for p in sorted(tree):
        for l in per_pid.get(p, []):
            m = EXEC_RE.match(l)
            if m and l.rstrip().endswith("= 0"):
                args = re.findall(r'"((?:[^"\\]|\\.)*)"', m.group(2))
                execs.append(" ".join(args))
    store_bytes = sum(int(m.group(1)) for p in group for l in per_pid.get(p, [])
                      for m in [STORE_WRITE_RE.match(l)] if m)
    rewrites = sum(1 for p in group for l in per_pid.get(p, []) if STORE_RENAME_RE.match(l))
    return {"threads": len(group) - 1, "forked": len(direct), "processes": len(tree), "execs": execs,
            "store_bytes": store_bytes, "store_rewrites": rewrites}


def ratio(a, b):
    return None if a is None or not b else a / b


def fmt_ratio(r):
    return "-" if r is None else "%.2f" % r


def cell(v):
    if v is None:
        return "-"
    if isinstance(v, float):
        return "%.2f" % v
    return "{:,}".format(v) if isinstance(v, int) else str(v)


def markdown(head, table):
    table = [head] + table
    widths = [max(len(t[i]) for t in table) for i in range(len(head))]
    out = ["| " + " | ".join(h.ljust(w) for h, w in zip(head, widths)) + " |",
           "|" + "|".join("-" * (w + 2) for w in widths) + "|"]
    out += ["| " + " | ".join(c.ljust(w) for c, w in zip(t, widths)) + " |" for t in table[1:]]
    return "\n".join(out)


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--runs", type=int, default=20, help="exec-to-GET runs per subject (default 20)")
    p.add_argument("--idle", type=float, default=10.0, help="idle seconds before the idle figures (default 10)")
    p.add_argument("--json", default=os.path.join(HERE, "results.json"))
    p.add_argument("--store-sizes", default=",".join(map(str, STORE_SIZES)),
                   help="store lines of the scale table (the first is the base of the per-line figure)")
    p.add_argument("--mapping-sizes", default=",".join(map(str, MAPPING_SIZES)))
    p.add_argument("--no-scale", action="store_true", help="leave out the scale table")
    p.add_argument("--keep", action="store_true", help="keep the work directory (profiles, traces)")
    p.add_argument("--quick", action="store_true",
                   help="fewer and smaller runs: %s" % ", ".join("%s %s" % kv for kv in QUICK.items()))
    args = p.parse_args()
    if args.quick:
        for key, value in QUICK.items():
            setattr(args, key, value)
    for tool in ("valgrind", "strace", "curl", "dbus-daemon", "cc"):
        if shutil.which(tool) is None:
            sys.exit("bench: %s not found" % tool)
    store_sizes = [int(x) for x in args.store_sizes.split(",") if x]
    mapping_sizes = [int(x) for x in args.mapping_sizes.split(",") if x]

    b = Bench(args)
    try:
        started = time.monotonic()
        mem = b.memory()
        instr = b.instructions()
        exec_ms, samples = b.exec_to_get(args.runs)
        procs = b.processes()
        sizes = b.sizes()
        stores = [] if args.no_scale else b.store_scale(store_sizes)
        mappings = [] if args.no_scale else b.mapping_scale(mapping_sizes)
        elapsed = time.monotonic() - started
    finally:
        b.close()

    rows = []

    def row(name, agent, mn, cu, unit, target, met, r_min=None, r_curl=None):
        rows.append({"figure": name, "agent": agent, "min": mn, "curl": cu, "unit": unit,
                     "agent/min": ratio(agent, mn) if r_min is None else r_min,
                     "agent/curl": ratio(agent, cu) if r_curl is None else r_curl, "target": target, "met": met})

    row("instructions per onboarding, own process", instr["agent_own"], instr["min"], None, "instr",
        "<= %.2f x min" % TARGET_OWN_INSTR_RATIO, instr["agent_own"] <= TARGET_OWN_INSTR_RATIO * instr["min"])
    row("instructions per onboarding, children included", instr["agent"], instr["min"], instr["curl"], "instr",
        "<= %.2f x min" % TARGET_INSTR_RATIO, instr["agent"] <= TARGET_INSTR_RATIO * instr["min"])
    pa = procs["agent"]
    row("processes started", pa["processes"], procs["min"]["processes"], procs["curl"]["processes"], "procs",
        "%d (iptables)" % TARGET_PROCESSES, pa["processes"] <= TARGET_PROCESSES)
    dirty = mem["private_dirty"]
    row("private dirty, idle wait (min: after its PUT)", dirty["agent"], dirty["min"], None, "KiB",
        "<= %.2f x min" % TARGET_DIRTY_RATIO, dirty["agent"] <= TARGET_DIRTY_RATIO * dirty["min"])
    vm = mem["vmsize"]
    row("virtual size, idle wait (min: after its PUT)", vm["agent"], vm["min"], None, "KiB",
        "<= %d MiB" % (TARGET_VMSIZE_KIB // 1024), vm["agent"] <= TARGET_VMSIZE_KIB)
    # Times only as ratios of medians taken in the same run.
    row("exec to GET, relative to min (median of %d)" % args.runs, ratio(exec_ms["agent"], exec_ms["min"]), 1.0,
        ratio(exec_ms["curl"], exec_ms["min"]), "x", "<= %.1f x min" % TARGET_EXEC_TO_GET_RATIO,
        exec_ms["agent"] <= TARGET_EXEC_TO_GET_RATIO * exec_ms["min"])
    row("store bytes written per onboarding (%d rewrites)" % pa["store_rewrites"], pa["store_bytes"], None, None,
        "bytes", "-", None)
    per_line = max((r["per_line"] for r in stores if r["per_line"] is not None), default=None)
    if per_line is not None:
        row("instructions per store line added (worst of %s lines)" % ", ".join(cell(r["lines"]) for r in stores[1:]),
            round(per_line), None, None, "instr", "<= %s" % cell(TARGET_STORE_PER_LINE),
            per_line <= TARGET_STORE_PER_LINE)
    rss = mem["maxrss"]
    row("peak RSS", rss["agent"], rss["min"], rss["curl"], "KiB", "-", None)
    row("idle CPU ticks / %.0f s" % args.idle, b.idle_ticks, None, None, "ticks", "0", b.idle_ticks == 0)
    row("stripped size x86-64", sizes["agent_x86"], sizes["min_x86"], sizes["curl_x86"], "bytes", "-", None)
    if sizes.get("agent_arm"):
        row("stripped size ARM (%s)" % sizes["agent_arm_build"], sizes["agent_arm"], None, None, "bytes",
            "<= %d KiB" % (TARGET_ARM_BYTES // 1024), sizes["agent_arm"] <= TARGET_ARM_BYTES)

    head = ["figure", "agent", "floor (min)", "curl", "unit", "agent/min", "agent/curl", "target", "met"]
    table = []
    for r in rows:
        met = "-" if r["met"] is None else ("yes" if r["met"] else "NO")
        table.append([r["figure"], cell(r["agent"]), cell(r["min"]), cell(r["curl"]), r["unit"],
                      fmt_ratio(r["agent/min"]), fmt_ratio(r["agent/curl"]), r["target"], met])
    print(markdown(head, table))
    print()

    if stores or mappings:
        scale = []
        for r in stores:
            target = "< %d M, < %s / line" % (TARGET_STORE_100K // 10**6, cell(TARGET_STORE_PER_LINE)) \
                if r["lines"] == 100000 else "< %s / line" % cell(TARGET_STORE_PER_LINE)
            met = None if r["per_line"] is None else r["per_line"] < TARGET_STORE_PER_LINE and \
                (r["lines"] != 100000 or r["instructions"] < TARGET_STORE_100K)
            scale.append(["store, %s lines: onboarding" % cell(r["lines"]), cell(r["instructions"]),
                          "-" if r["per_line"] is None else "{:,.0f}".format(r["per_line"]),
                          "%s (%d rewrites)" % (cell(r["store_bytes"]), r["store_rewrites"]),
                          target if r["per_line"] is not None else "-",
                          "-" if met is None else ("yes" if met else "NO")])
        for r in mappings:
            met = r["instructions"] < TARGET_MAPPING_100K if r["lines"] == 100000 else None
            scale.append(["mapping file, %s lines%s: lookup" % (cell(r["lines"]),
                                                                 " (10-byte lines, under the 1 MiB cap)"
                                                                 if r.get("short_lines") else ""),
                          cell(r["instructions"]),
                          "{:,.0f}".format(r["instructions"] / r["lines"]), "-",
                          "< %d M" % (TARGET_MAPPING_100K // 10**6) if r["lines"] == 100000 else "-",
                          "-" if met is None else ("yes" if met else "NO")])
        print(markdown(["scale", "instructions", "per line", "store bytes written", "target", "met"], scale))
        print()

    print("processes: agent %d threads, %d processes started (%d directly); iptables runs recorded: %d" %
          (pa["threads"], pa["processes"], pa["forked"], procs["iptables_runs_recorded"]))
    for e in pa["execs"]:
        print("  exec: " + re.sub(r"/tmp/tavel-it-[^/ ]*", "$TAVEL_ROOT", e))
    print("exec to GET medians (ms, this host, this run): agent %.1f, min %.1f, curl %.1f" %
          (exec_ms["agent"], exec_ms["min"], exec_ms["curl"]))
    print("agent VmHWM before the PUT: %s KiB; benchmark took %.0f s" % (b.agent_hwm_before_put, elapsed))

    results = {"rows": rows, "store_scale": stores, "mapping_scale": mappings, "exec_to_get_ms": exec_ms,
               "exec_to_get_samples_s": samples, "processes": procs, "memory": mem, "sizes": sizes,
               "agent_vmhwm_before_put_kib": b.agent_hwm_before_put, "idle_seconds": args.idle,
               "time_scale": FAST_SCALE, "runs": args.runs, "host": os.uname().machine, "elapsed_s": elapsed}
    with open(args.json, "w") as f:
        json.dump(results, f, indent=2)
    print("results written to " + args.json)


if __name__ == "__main__":
    main()
