#!/usr/bin/env python3
"""Memory of the armhf agent under user-mode qemu, beside the armhf floor.

User-mode qemu runs the guest inside its own process, so the host sees one
process holding the guest's pages and qemu's own (its code, heap and the
cache of translated code).  Each subject runs with the guest placed at a
fixed host address (qemu-arm -B): the mappings inside the guest's 4 GiB
there are the guest's memory, everything else is qemu.  Figures are sums of
/proc/PID/smaps over those mappings (after sync), in KiB:

  agent  build-arm/tavelAgent waiting for the bootstrap signal after its GET
         (bench.py's onboarding: a private bus, the server simulator)
  floor  bench/ref_min.c built for armhf, after its PUT (REF_HOLD)
  pause  an armhf program that only calls pause(): the loader and C library

What the guest sees of itself on a device can differ a little: qemu maps
the guest's stacks and heap itself, and the kernel's own accounting of the
guest (page tables, the thread stacks' guard pages) is not in the figures.

  unshare -n sh -c 'ip link set lo up && python3 bench/arm_memory.py'
Environment: TAVEL_ARM_BUILD_DIR (default build-arm/), TAVEL_ARM_SYSROOT
(default build-arm-sysroot/ when it exists, else /).
"""
import os
import re
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
ARM_DIR = os.path.abspath(os.environ.get("TAVEL_ARM_BUILD_DIR", os.path.join(SOURCE, "build-arm")))
_sysroot = os.path.join(SOURCE, "build-arm-sysroot")
SYSROOT = os.environ.get("TAVEL_ARM_SYSROOT", _sysroot if os.path.isdir(_sysroot) else "/")
GUEST_BASE = 0x100000000000
# The harness reads both at import: the armhf binaries, run through qemu.
os.environ["TAVEL_BUILD_DIR"] = ARM_DIR
os.environ["TAVEL_EMULATOR"] = "qemu-arm -B 0x%x -L %s" % (GUEST_BASE, SYSROOT)

from bench import Bench, log  # noqa: E402
from tavelsim import EMULATOR  # noqa: E402

IDLE_SECONDS = 3.0
KEYS = ("Rss", "Private_Dirty")


def cross(out, source, *libs):
    argv = ["arm-linux-gnueabihf-gcc", "-O2", "-o", out, source] + list(libs)
    if SYSROOT != "/":
        argv.insert(1, "--sysroot=" + SYSROOT)
    subprocess.run(argv, check=True)


def memory(pid):
    """{"guest": {Rss, Private_Dirty}, "qemu": {...}} of the process."""
    os.sync()
    sums = {"guest": dict.fromkeys(KEYS, 0), "qemu": dict.fromkeys(KEYS, 0)}
    part = "qemu"
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            m = re.match(r"([0-9a-f]+)-[0-9a-f]+ ", line)
            if m:
                start = int(m.group(1), 16)
                part = "guest" if GUEST_BASE <= start < GUEST_BASE + (1 << 32) else "qemu"
                continue
            key, _, value = line.partition(":")
            if key in KEYS:
                sums[part][key] += int(value.split()[0])
    return sums


def main():
    if not os.path.exists(os.path.join(ARM_DIR, "tavelAgent")):
        sys.exit("no armhf agent in %s (scripts/build-arm.sh)" % ARM_DIR)
    work = tempfile.mkdtemp(prefix="tavel-armmem-")
    waiter = os.path.join(work, "pause.c")
    with open(waiter, "w") as f:
        f.write("#include <unistd.h>\nint main(void) { pause(); return 0; }\n")
    cross(os.path.join(work, "pause"), waiter)
    ref_min = os.path.join(work, "ref_min")
    cross(ref_min, os.path.join(HERE, "ref_min.c"), "-lcurl")

    b = Bench(type("Args", (), {"keep": False})())
    res = {}
    try:
        log("armhf agent under qemu (%.0f s idle) ..." % IDLE_SECONDS)
        got = b.onboard_agent(prefix=EMULATOR, idle=IDLE_SECONDS, probe=memory)
        got["dev"].close()
        res["agent"] = got["probe"]

        log("armhf floor under qemu ...")
        b.ref_min = ref_min  # ref_argv() names it; the emulator goes in front
        b.onb.sim.clear_requests()
        proc = subprocess.Popen(EMULATOR + b.ref_argv("min"), env=dict(os.environ, REF_HOLD="1"),
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        line = proc.stdout.readline().decode().strip()
        res["floor"] = memory(proc.pid)
        proc.stdin.close()
        proc.wait(timeout=60)
        if line != "GET 200 PUT 200":
            sys.exit("armhf floor failed: %r" % line)

        log("armhf pause() under qemu ...")
        proc = subprocess.Popen(EMULATOR + [os.path.join(work, "pause")])
        time.sleep(IDLE_SECONDS)
        res["pause"] = memory(proc.pid)
        proc.kill()
        proc.wait()
    finally:
        b.close()
        subprocess.run(["rm", "-rf", work], check=False)

    print("| KiB | agent, idle wait | floor, after its PUT | agent / floor | pause() |")
    print("|---|---|---|---|---|")
    for part, what in (("guest", "guest's own"), ("qemu", "qemu's")):
        for key in KEYS:
            a, m, p = res["agent"][part][key], res["floor"][part][key], res["pause"][part][key]
            print("| %s %s | %d | %d | %.2f | %d |" % (what, key, a, m, a / m if m else 0.0, p))


if __name__ == "__main__":
    main()
