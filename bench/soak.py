#!/usr/bin/env python3
"""Soak runs, too long for the default suite:

  faults  tests/integration/test_faults.py with 20 kill-and-restart rounds
          (--rounds) at a new seed each run, and the bus daemon killed and
          restarted 10 times (--bus-restarts) during the wait for the
          bootstrap signal
  load    bench/load.py: 10,000 bus signals (--signals) during an
          onboarding, the agent's memory watched

--repeat N runs them N times.  A failed run prints its seed;
TAVEL_FAULT_SEED=S repeats that one."""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
IT = os.path.join(SOURCE, "tests", "integration")


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("part", nargs="*", help="faults or load (default: both)")
    p.add_argument("--rounds", type=int, default=20)
    p.add_argument("--signals", type=int, default=10000)
    p.add_argument("--bus-restarts", type=int, default=10)
    p.add_argument("--repeat", type=int, default=1)
    args = p.parse_args()
    parts = args.part or ["faults", "load"]
    if not set(parts) <= {"faults", "load"}:
        p.error("unknown part: " + " ".join(sorted(set(parts) - {"faults", "load"})))
    env = dict(os.environ, TAVEL_FAULT_ROUNDS=str(args.rounds), TAVEL_LOAD_SIGNALS=str(args.signals),
               TAVEL_BUS_RESTARTS=str(args.bus_restarts),
               PYTHONDONTWRITEBYTECODE="1")
    env.setdefault("TAVEL_BUILD_DIR", os.path.join(SOURCE, "build"))
    failed = 0
    for i in range(args.repeat):
        seed = os.environ.get("TAVEL_FAULT_SEED") or str(int(time.time()) + i)
        env["TAVEL_FAULT_SEED"] = seed
        for part, cwd, module in (("faults", IT, "test_faults"), ("load", HERE, "load")):
            if part not in parts:
                continue
            started = time.monotonic()
            rc = subprocess.run([sys.executable, "-m", "unittest", "-v", module], cwd=cwd, env=env).returncode
            print("run %d %s (seed %s): %s in %.0f s" % (i + 1, part, seed, "ok" if rc == 0 else "FAILED",
                                                         time.monotonic() - started), flush=True)
            failed += rc != 0
            time.sleep(2)  # let other engineers' tests have the local ports
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
