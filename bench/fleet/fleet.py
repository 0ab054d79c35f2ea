#!/usr/bin/python3
"""fleet: N simulated gateways that boot in the same second against one
onboarding server that is down, to see how their retries spread.

Every agent has its own device root (tools/tavelsim.py, the integration
tests' factory device), its own private dbus-daemon and its own network
namespace: the agent binds the fixed local ports 47777-47779, so one agent per
namespace.  The namespaces hang on one bridge inside a network namespace of
the simulator's own, where tools/obsim answers on 10.77.0.1 with an outage
(503 for a while, then a complete reply); nothing reaches the host's network.
The simulator plays the configuration manager (the bootstrap signal once a
device applied its reply), so "onboarded" means the status PUT
"?status=SUCCESS" arrived.  Needs root (network namespaces).

    bench/fleet/fleet.py -n 20 [--down-attempts 4 | --outage S] [--burst FROM:AT]
                         [--time-scale 2] [--build build] [--out DIR] [--label after]

All times are nominal (device) seconds from the instant the agents were
released: real seconds times TAVEL_TIME_SCALE.  Attempt k is a device's k-th
retry, whose delay was drawn from the k-th back-off range.  Per attempt it
prints the distinct delays drawn (from the agents' logs), the distinct arrival
seconds and the peak requests in any one second (from the server's record),
and what N independent uniform draws would give: exact for the delays,
Monte Carlo (fixed seed) for the arrivals, started from each device's own
first arrival.  It writes arrivals.csv, arrivals.png and summary.json to
--out.  Exit status 0 when every device onboarded.
"""
import argparse
import csv
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(os.path.dirname(HERE))
BRIDGE = "fleet0"
SERVER_IP = "10.77.0.1"
MC_TRIALS = 1000
MC_SEED = 2026
POLL = 0.25
harness = obsim = tavelsim = None  # imported by main() once the build is known
# Before the release, agents wait in this reader of one byte each.
GATE = 'dd if="$0" of=/dev/null bs=1 count=1 status=none && exec "$@"'
# Whatever becomes of this process, its agents and namespace holders die with it: an agent left
# behind would retry for ever.
WITH_PARENT = ["setpriv", "--pdeathsig", "KILL"]


def backoff_range(k):
    """The documented delay range (inclusive) of the k-th retry after the same transient code."""
    base = 5 << (min(k, 8) - 1)
    return base, 2 * base - 1


def outage_for(attempts):
    """Nominal outage that answers 503 to each device's first `attempts` requests: midway between the
    latest possible arrival of request `attempts` and the earliest of the next one."""
    latest = sum(backoff_range(k)[1] for k in range(1, attempts))
    earliest = sum(backoff_range(k)[0] for k in range(1, attempts + 1))
    return (latest + earliest) / 2


def expected_distinct(values, n):
    """Expected number of distinct values among n independent uniform draws from `values` values."""
    return values * (1 - (1 - 1 / values) ** n)


def ip(*args, netns_pid=None, batch=None):
    cmd = (["nsenter", "-t", str(netns_pid), "-n", "--"] if netns_pid else []) + ["ip"] + list(args)
    subprocess.run(cmd, check=True, input=batch, text=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


class Member:
    """One gateway: a network namespace (held by a bounded `sleep`), a device root and a bus."""

    def __init__(self, index, url, ca_path, life):
        self.index = index
        self.serial = "FLEET%04d" % index
        self.address = "10.77.%d.%d" % (1 + index // 250, 1 + index % 250)
        self.bus = self.dev = None
        self.holder = subprocess.Popen(WITH_PARENT + ["unshare", "-n", "sleep", str(int(life))],
                                       stdin=subprocess.DEVNULL)
        try:
            self.bus = tavelsim.PrivateBus()
            self.dev = harness.Device({"Device.X_TAVEL_Agent.URL": url, "Device.DeviceInfo.X_TAVEL_CACertPath": ca_path,
                                       "Device.DeviceInfo.SerialNumber": self.serial})
            self.dev.touch(tavelsim.MAPPING_FILE, harness.MAPPING.encode())
        except BaseException:
            self.close()
            raise
        self.bootstrapped = False

    def wait_netns(self, own, limit=10.0):
        # unshare makes the namespace, then execs sleep: until then the pid is still in ours.
        deadline = time.monotonic() + limit
        while os.readlink("/proc/%d/ns/net" % self.holder.pid) == own:
            if time.monotonic() > deadline or self.holder.poll() is not None:
                raise RuntimeError("no network namespace for device %d" % self.index)
            time.sleep(0.01)

    def link(self):
        ip("-batch", "-", netns_pid=self.holder.pid,
           batch="link set lo up\naddr add %s/16 dev eth0\nlink set eth0 up\n" % self.address)

    def start(self, gate):
        self.dev.start(self.bus.env(), wrapper=WITH_PARENT + ["nsenter", "-t", str(self.holder.pid), "-n", "--",
                                                              "sh", "-c", GATE, gate])

    def close(self):
        try:
            if self.dev is not None:
                self.dev.close()
        finally:
            if self.bus is not None:
                self.bus.close()
            self.holder.kill()
            self.holder.wait()


def build_network(members):
    ip("link", "set", "lo", "up")
    ip("link", "add", BRIDGE, "type", "bridge")
    ip("addr", "add", SERVER_IP + "/16", "dev", BRIDGE)
    ip("link", "set", BRIDGE, "up")
    own = os.readlink("/proc/self/ns/net")
    for m in members:
        m.wait_netns(own)
    ip("-batch", "-", batch="".join("link add fv%d type veth peer name eth0 netns %d\nlink set fv%d master %s up\n"
                                    % (m.index, m.holder.pid, m.index, BRIDGE) for m in members))
    for m in members:
        m.link()


def run(args):
    scale = args.time_scale
    outage = args.outage if args.outage is not None else outage_for(args.down_attempts)
    # Bounded: the outage, then two of the longest delays that can follow it, and the apply step.
    reach = 1
    while sum(backoff_range(k)[0] for k in range(1, reach + 1)) <= outage:
        reach += 1
    limit = (outage + 2 * backoff_range(reach + 1)[1] + 90) / scale + 30
    certs = tempfile.mkdtemp(prefix="tv", dir="/tmp")
    script = {"get": harness.reply(200, harness.NEW_ACCOUNT + [harness.TZ_PARIS], body="{}"),
              "put": harness.reply(200), "outage": {"status": 503, "seconds": outage / scale}}
    if args.burst:
        start, at = (float(x) / scale for x in args.burst.split(":"))
        script["burst"] = {"status": 503, "from": start, "at": at}
    server = obsim.ObSim(certs, script=script, host=SERVER_IP).start()
    members = []
    gate = os.path.join(certs, "gate")
    gate_fd = None
    try:
        for i in range(args.n):
            members.append(Member(i, server.url(), server.ca_path, limit + 60))
        build_network(members)
        os.mkfifo(gate)
        gate_fd = os.open(gate, os.O_RDWR)
        for m in members:
            m.start(gate)
        time.sleep(0.5)
        released = time.time()
        os.write(gate_fd, b"x" * len(members))
        print("%d agents released at %.3f, outage %.1f s nominal, time scale %d" % (args.n, released, outage, scale),
              flush=True)
        deadline = time.monotonic() + limit
        while time.monotonic() < deadline and any(m.dev.proc.poll() is None for m in members):
            for m in members:
                if not m.bootstrapped and harness.applied(m.dev):
                    m.bootstrapped = harness.bootstrap(m.bus.env())
            time.sleep(POLL)
        logs = {m.serial: m.dev.log() for m in members}
        records = server.requests()
    finally:
        if gate_fd is not None:
            os.close(gate_fd)
        server.stop()
        failures = []
        for m in members:
            try:
                m.close()
            except AssertionError as e:  # a sanitizer report; every other member is still stopped
                failures.append(str(e))
        shutil.rmtree(certs, ignore_errors=True)
        if failures:
            raise AssertionError("\n".join(failures))
    return analyse(args, records, logs, released, outage)


def serial_of(record):
    for h in record.get("headers", []):
        name, _, value = h.partition(":")
        if name.strip().lower() == "sn":
            return value.strip()
    return ""


def per_second(times):
    counts = {}
    for t in times:
        counts[int(t // 1)] = counts.get(int(t // 1), 0) + 1
    return counts


def analyse(args, records, logs, released, outage):
    scale = args.time_scale
    arrivals = []
    for r in sorted((r for r in records if "method" in r), key=lambda r: r["received"]):
        arrivals.append({"serial": serial_of(r), "method": r["method"], "status": r.get("status"),
                         "received": r["received"], "t": (r["received"] - released) * scale,
                         "client": r.get("client", "")})
    gets = {}
    for a in arrivals:
        if a["method"] == "GET":
            a["attempt"] = len(gets.setdefault(a["serial"], []))
            gets[a["serial"]].append(a)
    delays = {s: [d for _, d in harness.retry_lines(log, 503)] for s, log in logs.items()}
    others = sorted({c for log in logs.values() for c in re.findall(r"\] ret (\d+) retryCount value", log)} - {"503"})
    first = min(a["received"] for a in arrivals) if arrivals else released
    back = (first - released) * scale + outage
    attempts = max((len(g) for g in gets.values()), default=1) - 1
    expected, last_expected = monte_carlo(gets, attempts, back)
    rows = []
    for k in range(0, attempts + 1):
        times = [g[k]["t"] for g in gets.values() if len(g) > k]
        drawn = [d[k - 1] for d in delays.values() if len(d) >= k] if k else []
        lo, hi = backoff_range(k) if k else (0, 0)
        lags = sorted(g[k]["t"] - g[k - 1]["t"] - delays[s][k - 1] for s, g in gets.items()
                      if k and len(g) > k and len(delays.get(s, [])) >= k)
        counts = per_second(times)
        rows.append({"attempt": k, "range": [lo, hi], "devices": len(times),
                     "delays_distinct": len(set(drawn)),
                     "delays_expected": expected_distinct(hi - lo + 1, len(drawn)) if drawn else 0,
                     "delays_p5_p95": expected[k]["delays"][1],
                     "seconds_distinct": len(counts), "seconds_expected": expected[k]["distinct"][0],
                     "seconds_p5_p95": expected[k]["distinct"][1],
                     "peak": max(counts.values(), default=0), "peak_expected": expected[k]["peak"][0],
                     "peak_p5_p95": expected[k]["peak"][1],
                     "answers": sorted({str(g[k]["status"]) for g in gets.values() if len(g) > k}),
                     "lag_median": lags[len(lags) // 2] if lags else None, "lag_max": lags[-1] if lags else None})
    success_get = [g[-1]["t"] for g in gets.values() if g and g[-1]["status"] == 200]
    success_put = {a["serial"]: a["t"] for a in arrivals if a["method"] == "PUT" and a["status"] == 200}
    summary = {"label": args.label, "n": args.n, "time_scale": scale, "outage": outage, "server_back": back,
               "rows": rows, "delays": delays, "other_codes": others,
               "onboarded": len(success_put),
               "all_got_200_after": max(success_get) - back if len(success_get) == args.n else None,
               "all_got_200_expected": last_expected,
               "all_onboarded_after": max(success_put.values()) - back if len(success_put) == args.n else None,
               "peak_all_gets": max(per_second([a["t"] for a in arrivals if a["method"] == "GET"]).values(),
                                    default=0)}
    report(summary)
    write_outputs(args.out, summary, arrivals)
    return summary


def spread(values):
    """Mean and 5-95 % range of a sample."""
    values = sorted(values)
    return sum(values) / len(values), [values[len(values) // 20], values[len(values) * 19 // 20]]


def monte_carlo(gets, attempts, back):
    """What independent draws would give, per attempt: distinct delays, distinct arrival seconds and
    the peak per second (mean and 5-95 % range each), for the devices that made the attempt, each
    starting from its own first arrival, delays uniform in the documented ranges; and the time from
    the server's return until the last device's first request after it."""
    rng = random.Random(MC_SEED)
    starts = [(g[0]["t"], len(g)) for g in gets.values()]
    samples = [{"delays": [], "distinct": [], "peak": []} for _ in range(attempts + 1)]
    last = []
    for _ in range(MC_TRIALS):
        times = [[] for _ in range(attempts + 1)]
        drawn = [set() for _ in range(attempts + 1)]
        after = []
        for start, made in starts:
            t = start
            for k in range(0, made):
                if k:
                    d = rng.randint(*backoff_range(k))
                    drawn[k].add(d)
                    t += d
                times[k].append(t)
                if t >= back:
                    after.append(t)
                    break
        for k, ts in enumerate(times):
            counts = per_second(ts)
            samples[k]["delays"].append(len(drawn[k]))
            samples[k]["distinct"].append(len(counts))
            samples[k]["peak"].append(max(counts.values(), default=0))
        last.append(max(after, default=back) - back)
    return [{name: spread(v) for name, v in s.items()} for s in samples], spread(last)


def within(value, expected, share=0.10):
    return abs(value - expected) <= share * expected


def report(s):
    print("\n%s: N = %d, time scale %d, server back at %.1f s" % (s["label"], s["n"], s["time_scale"],
                                                                  s["server_back"]))
    print("Measured, and (in brackets) independent draws: mean [5-95 %].  Lag: arrival gap less the drawn delay.")
    print("| attempt | range | answer | devices | distinct delays | distinct arrival seconds | peak per second "
          "| lag median/max | within 10 % |")
    print("|---|---|---|---|---|---|---|---|---|")
    cell = lambda v, mean, r: "%d (%.1f [%d-%d])" % (v, mean, r[0], r[1])  # noqa: E731
    for r in s["rows"]:
        k = r["attempt"]
        ok = within(r["delays_distinct"], r["delays_expected"]) and within(r["seconds_distinct"], r["seconds_expected"])
        print("| %s | %s | %s | %d | %s | %s | %s | %s | %s |" % (
            k or "first", "%d-%d" % tuple(r["range"]) if k else "-", "/".join(r["answers"]), r["devices"],
            cell(r["delays_distinct"], r["delays_expected"], r["delays_p5_p95"]) if k else "-",
            cell(r["seconds_distinct"], r["seconds_expected"], r["seconds_p5_p95"]),
            cell(r["peak"], r["peak_expected"], r["peak_p5_p95"]),
            "%.2f/%.2f" % (r["lag_median"], r["lag_max"]) if r["lag_median"] is not None else "-",
            ("yes" if ok else "NO") if k else "-"))
    print("peak GETs in any one second over the run: %d" % s["peak_all_gets"])
    if s["other_codes"]:
        print("retries for other codes than 503: %s" % ", ".join(s["other_codes"]))
    fmt = lambda v: "%.1f s" % v if v is not None else "not all"  # noqa: E731
    print("from the server's return: every device had its reply after %s (independent draws: %.1f s [%.0f-%.0f]), "
          "every device onboarded after %s (%d of %d onboarded)" % (
              fmt(s["all_got_200_after"]), s["all_got_200_expected"][0], s["all_got_200_expected"][1][0],
              s["all_got_200_expected"][1][1], fmt(s["all_onboarded_after"]), s["onboarded"], s["n"]))


def write_outputs(out, summary, arrivals):
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "summary.json"), "w") as f:
        json.dump(summary, f, indent=1)
    with open(os.path.join(out, "arrivals.csv"), "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(["serial", "method", "attempt", "received", "t_nominal", "second", "status", "client"])
        for a in arrivals:
            w.writerow([a["serial"], a["method"], a.get("attempt", ""), "%.6f" % a["received"], "%.3f" % a["t"],
                        int(a["t"] // 1), a["status"], a["client"]])
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("arrivals.png not written: python3-matplotlib is missing", file=sys.stderr)
        return
    fig, ax = plt.subplots(figsize=(11, 4))
    last = int(max((a["t"] for a in arrivals), default=0)) + 1
    seconds = range(0, last + 1)
    bottom = [0] * len(seconds)
    for label, colour, pick in (("GET answered 503", "tab:red", lambda a: a["method"] == "GET" and a["status"] != 200),
                                ("GET answered 200", "tab:green", lambda a: a["method"] == "GET" and a["status"] == 200),
                                ("status PUT", "tab:blue", lambda a: a["method"] == "PUT")):
        counts = per_second([a["t"] for a in arrivals if pick(a)])
        heights = [counts.get(s, 0) for s in seconds]
        ax.bar(seconds, heights, width=1.0, bottom=bottom, color=colour, label=label, align="edge")
        bottom = [b + h for b, h in zip(bottom, heights)]
    ax.axvline(summary["server_back"], color="black", linestyle="--", label="server back")
    ax.set_xlabel("seconds since the agents started (nominal)")
    ax.set_ylabel("requests per second")
    ax.set_title("%s: %d agents, time scale %d" % (summary["label"], summary["n"], summary["time_scale"]))
    ax.legend(loc="upper right")
    fig.tight_layout()
    fig.savefig(os.path.join(out, "arrivals.png"), dpi=100)
    plt.close(fig)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("-n", type=int, default=20, help="agents (default 20)")
    p.add_argument("--down-attempts", type=int, default=4,
                   help="the outage answers 503 to each device's first K requests (default 4)")
    p.add_argument("--outage", type=float, help="outage in nominal seconds from the first request instead")
    p.add_argument("--burst", help="FROM:AT, nominal seconds from the first request: requests arriving in between "
                                   "are held and all answered 503 at AT (keep AT-FROM below 25 s real)")
    p.add_argument("--time-scale", type=int, default=2, help="TAVEL_TIME_SCALE (default 2)")
    p.add_argument("--build", default=os.path.join(SOURCE_DIR, "build"), help="build directory of the agent")
    p.add_argument("--out", default="fleet-out", help="directory for arrivals.csv, arrivals.png, summary.json")
    p.add_argument("--label", default="fleet", help="name of the run in the table and the plot")
    args = p.parse_args(argv)
    if not 1 <= args.n <= 2000 or args.time_scale < 1 or args.down_attempts < 1:
        p.error("need 1 <= N <= 2000, a time scale >= 1 and at least one attempt down")
    if os.environ.get("TAVEL_FLEET_NETNS") != "1":
        # Everything, the bridge included, lives in a network namespace that ends with this process.
        os.environ["TAVEL_FLEET_NETNS"] = "1"
        os.execvp("unshare", ["unshare", "-n", sys.executable, os.path.abspath(__file__)]
                  + (sys.argv[1:] if argv is None else argv))
    # The integration tests' device and server, for the agent and tavelctl of --build.
    os.environ["TAVEL_BUILD_DIR"] = os.path.abspath(args.build)
    os.environ["TAVEL_TIME_SCALE"] = str(args.time_scale)
    sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "integration"))
    sys.path.insert(0, os.path.join(SOURCE_DIR, "tools", "obsim"))
    # A stop by signal cleans up like the end of the run.
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, lambda signo, _frame: sys.exit(128 + signo))
    global harness, obsim, tavelsim
    import harness
    import obsim
    import tavelsim
    summary = run(args)
    return 0 if summary["onboarded"] == args.n else 1


if __name__ == "__main__":
    sys.exit(main())
