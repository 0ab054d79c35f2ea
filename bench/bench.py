#!/usr/bin/env python3
"""Benchmarks of one complete onboarding by tavelAgent, side by side with two
references that make the same two requests (GET, then PUT) with the same
header lines and CA file against the same local server simulator:

  min   bench/ref_min.c: libcurl and the two transfers, nothing else
  curl  bench/ref_curl.sh: the curl command-line tool, once per request

Figures: peak RSS (ru_maxrss from wait4), instructions executed (callgrind's
total, children not followed), time from exec to the GET reaching the server
(median), CPU ticks while idling for the bootstrap signal, processes forked
during one onboarding (strace), stripped binary size.

Prints a table and writes bench/results.json (or --json PATH).
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

AGENT = os.path.abspath(harness.AGENT)
ARM_DIR = os.environ.get("TAVEL_ARM_BUILD_DIR", os.path.join(SOURCE, "build-arm"))

# Deliberate waits shrink below a millisecond: the 60 s time-zone pause takes
# 0.6 ms, a 5 s poll 0.05 ms.
FAST_SCALE = "100000"
GET_DONE = "httpGetUrlFromServer ret: "


def port_trouble(dev):
    """True when a fetch failed at the transfer level, which is what a local
    port held by another process on this machine looks like."""
    return GET_DONE + "5000" in dev.log()


TARGET_EXEC_TO_GET_MS = 20.0
TARGET_INSTR_RATIO = 1.10
TARGET_ARM_BYTES = 200 * 1024


def log(msg):
    print(msg, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, args):
        self.args = args
        self.work = tempfile.mkdtemp(prefix="tavel-bench-")
        self.onb = harness.Server(harness.FULL_SCRIPT)
        self.bus = harness.PrivateBus()
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

    def onboard_agent(self, prefix=(), idle=0.0, timeout=60, rss=False):
        """One complete onboarding; returns (rusage, idle ticks, device).  A
        fetch that failed at the transfer level (local port taken by a test
        running alongside) is retried after a pause."""
        for attempt in range(6):
            dev = self.onb.device()
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
            ticks = None
            if idle > 0:
                time.sleep(0.2)
                before = harness.cpu_ticks(apid)
                time.sleep(idle)
                ticks = harness.cpu_ticks(apid) - before
            hwm = vm_hwm(apid)
            if not harness.bootstrap(self.bus.env()):
                raise RuntimeError("bootstrap signal not sent")
            status, usage = self.reap(pid, timeout)
            if harness.EXIT_LINE not in dev.log():
                raise RuntimeError("agent did not finish the onboarding:\n" + dev.log()[-2000:])
            methods = [r.get("method") for r in self.onb.requests()]
            if methods != ["GET", "PUT"]:
                raise RuntimeError("unexpected requests %r" % methods)
            maxrss = self.report(report, "maxrss") if rss else None
            return maxrss, ticks, hwm, dev
        raise RuntimeError("local ports stayed busy")

    def run_ref(self, which, prefix=(), env=None, rss=False):
        argv = list(prefix) + ([self.ref_min] if which == "min" else ["sh", self.ref_curl]) + self.ref_args
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

    # ------------------------------------------------------------ figures
    def peak_rss(self):
        log("peak RSS ...")
        maxrss, ticks, hwm, dev = self.onboard_agent(idle=self.args.idle, rss=True)
        self.idle_ticks = ticks
        self.agent_hwm_before_put = hwm
        dev.close()
        res = {"agent": maxrss}
        for which in ("min", "curl"):
            res[which] = self.run_ref(which, rss=True)
        return res

    def instructions(self):
        log("instructions (callgrind) ...")
        cg = os.path.join(self.work, "cg")
        os.makedirs(cg, exist_ok=True)

        def vg(tag):
            return ["valgrind", "--tool=callgrind", "--trace-children=no",
                    "--log-file=%s/%s.%%p.log" % (cg, tag), "--callgrind-out-file=%s/%s.%%p.out" % (cg, tag)]

        res = {}
        _, _, _, dev = self.onboard_agent(prefix=vg("agent"), timeout=300)
        dev.close()
        res["agent"] = collected(cg, "agent")
        self.run_ref("min", prefix=vg("min"))
        res["min"] = collected(cg, "min")
        env = dict(os.environ, REF_WRAP=" ".join(vg("curl")))
        self.run_ref("curl", env=env)
        res["curl"] = collected(cg, "curl")
        self.callgrind_dir = cg
        return res

    def exec_to_get(self, runs):
        log("exec to GET (%d runs each) ..." % runs)
        samples = {"agent": [], "min": [], "curl": []}
        for i in range(runs):
            samples["agent"].append(self.agent_to_get())
            for which in ("min", "curl"):
                samples[which].append(self.ref_to_get(which))
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
        argv = ([self.ref_min] if which == "min" else ["sh", self.ref_curl]) + self.ref_args
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

    def forks(self):
        log("forks (strace) ...")
        st = os.path.join(self.work, "strace")
        os.makedirs(st, exist_ok=True)
        prefix = ["strace", "-f", "-ff", "-qq", "-s", "200", "-e", "trace=clone,clone3,fork,vfork,execve",
                  "-o", os.path.join(st, "t")]
        _, _, _, dev = self.onboard_agent(prefix=prefix, timeout=120)
        iptables_runs = len(dev.iptables())
        dev.close()
        return analyse_strace(st, AGENT, iptables_runs)

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


def vm_hwm(pid):
    for line in read("/proc/%d/status" % pid).splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1])
    return None


def collected(cg_dir, tag):
    """Sum of the "Collected" totals of every process profiled under tag."""
    total, found = 0, 0
    for path in glob.glob(os.path.join(cg_dir, tag + ".*.log")):
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


def analyse_strace(st_dir, agent_path, iptables_runs):
    """Splits what one onboarding created into the agent's threads and the
    processes it forked (directly, and their descendants), and lists the
    programs those processes ran."""
    per_pid = {}
    for path in glob.glob(os.path.join(st_dir, "t.*")):
        per_pid[int(path.rsplit(".", 1)[1])] = read(path).splitlines()
    agent_pid = None
    for pid, lines in per_pid.items():
        if any(l.startswith('execve("%s"' % agent_path) for l in lines):
            agent_pid = pid
    if agent_pid is None:
        raise RuntimeError("agent not found in the trace")
    children = {}  # pid -> [(child, is_thread)]
    for pid, lines in per_pid.items():
        for l in lines:
            m = CLONE_RE.match(l)
            if m:
                children.setdefault(pid, []).append((int(m.group(3)), "CLONE_THREAD" in m.group(2)))
    group = {agent_pid}
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
    return {"threads": len(group) - 1, "forked_by_agent": len(direct), "processes_in_tree": len(tree),
            "execs": execs, "iptables_runs_recorded": iptables_runs}


def ratio(a, b):
    return None if a is None or not b else a / b


def fmt_ratio(r):
    return "-" if r is None else "%.2f" % r


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--runs", type=int, default=10, help="exec-to-GET runs per subject (default 10)")
    p.add_argument("--idle", type=float, default=30.0, help="idle seconds measured (default 30)")
    p.add_argument("--json", default=os.path.join(HERE, "results.json"))
    p.add_argument("--skip-callgrind", action="store_true")
    p.add_argument("--keep", action="store_true", help="keep the work directory (profiles, traces)")
    args = p.parse_args()
    for tool in ("valgrind", "strace", "curl", "dbus-daemon", "cc"):
        if shutil.which(tool) is None and not (tool == "valgrind" and args.skip_callgrind):
            sys.exit("bench: %s not found" % tool)

    b = Bench(args)
    try:
        started = time.monotonic()
        rss = b.peak_rss()
        instr = None if args.skip_callgrind else b.instructions()
        exec_ms, samples = b.exec_to_get(args.runs)
        forks = b.forks()
        sizes = b.sizes()
        elapsed = time.monotonic() - started
    finally:
        b.close()

    rows = []

    def row(name, agent, mn, cu, unit, target, met, r_min=None, r_curl=None):
        r_min = ratio(agent, mn) if r_min is None else r_min
        r_curl = ratio(agent, cu) if r_curl is None else r_curl
        rows.append({"figure": name, "agent": agent, "min": mn, "curl": cu, "unit": unit,
                     "agent/min": r_min, "agent/curl": r_curl, "target": target, "met": met})

    row("peak RSS", rss["agent"], rss["min"], rss["curl"], "KiB", "<= curl tool", rss["agent"] <= rss["curl"])
    if instr:
        row("instructions", instr["agent"], instr["min"], instr["curl"], "instr",
            "<= %.2f x min" % TARGET_INSTR_RATIO, instr["agent"] <= TARGET_INSTR_RATIO * instr["min"])
    row("exec to GET (median)", exec_ms["agent"], exec_ms["min"], exec_ms["curl"], "ms",
        "< %.0f ms" % TARGET_EXEC_TO_GET_MS, exec_ms["agent"] < TARGET_EXEC_TO_GET_MS)
    row("idle CPU ticks / %.0f s" % args.idle, b.idle_ticks, None, None, "ticks", "0", b.idle_ticks == 0)
    row("processes forked", forks["processes_in_tree"], 0, 2, "procs", "inherent only",
        None, r_min=None, r_curl=None)
    row("stripped size x86-64", sizes["agent_x86"], sizes["min_x86"], sizes["curl_x86"], "bytes", "-", None)
    if sizes.get("agent_arm"):
        row("stripped size ARM", sizes["agent_arm"], None, None, "bytes", "< 200 KiB",
            sizes["agent_arm"] < TARGET_ARM_BYTES)

    def cell(v):
        if v is None:
            return "-"
        if isinstance(v, float):
            return "%.1f" % v
        return str(v)

    head = ["figure", "agent", "min", "curl", "unit", "agent/min", "agent/curl", "target", "met"]
    table = [head]
    for r in rows:
        met = "-" if r["met"] is None else ("yes" if r["met"] else "NO")
        table.append([r["figure"], cell(r["agent"]), cell(r["min"]), cell(r["curl"]), r["unit"],
                      fmt_ratio(r["agent/min"]), fmt_ratio(r["agent/curl"]), r["target"], met])
    widths = [max(len(t[i]) for t in table) for i in range(len(head))]
    print("| " + " | ".join(h.ljust(w) for h, w in zip(head, widths)) + " |")
    print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    for t in table[1:]:
        print("| " + " | ".join(c.ljust(w) for c, w in zip(t, widths)) + " |")
    print()
    print("forks: %d threads; %d processes forked by the agent, %d in its process tree; iptables runs "
          "recorded: %d" % (forks["threads"], forks["forked_by_agent"], forks["processes_in_tree"],
                            forks["iptables_runs_recorded"]))
    for e in forks["execs"]:
        print("  exec: " + re.sub(r"/tmp/tavel-it-[^/ ]*", "$TAVEL_ROOT", e))
    print("agent VmHWM before the PUT: %s KiB; benchmark took %.0f s" % (b.agent_hwm_before_put, elapsed))

    results = {"rows": rows, "exec_to_get_samples_s": samples, "forks": forks, "sizes": sizes,
               "agent_vmhwm_before_put_kib": b.agent_hwm_before_put, "idle_seconds": args.idle,
               "time_scale": FAST_SCALE, "runs": args.runs,
               "host": os.uname().machine, "elapsed_s": elapsed}
    with open(args.json, "w") as f:
        json.dump(results, f, indent=2)
    print("results written to " + os.path.relpath(args.json))


if __name__ == "__main__":
    main()
