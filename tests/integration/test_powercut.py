"""Power cuts (kill -9) all over a re-onboarding, each followed by a restart: the account is never lost."""
import fcntl
import glob
import os
import re
import signal
import sys
import time

from harness import CONFIGURED_STORE, FULL_SCRIPT, LAST_STEP, NEW_ACCOUNT, TAVELCTL, bootstrap, reply, run_binary
from tavelsim import AGENT_LOG, CLOUD_MARKER, STORE_FILE, TZ_MARKER, store_problems
from test_flow import FlowCase

JOURNAL = "flash/mcq/tavel/mgmt_account.journal"
ACCOUNT = ("Device.ManagementServer.URL", "Device.ManagementServer.Username", "Device.ManagementServer.Password")
ACS_STATUS = "Device.X_TAVEL_Agent.ACSConnStatus"
OLD = tuple(CONFIGURED_STORE[k] for k in ACCOUNT)
NEW = tuple(dict(NEW_ACCOUNT)[k] for k in ("url", "name", "pwd"))
NAMES = {OLD: "old", NEW: "new", ("", "", ""): "empty"}
# The ACS connection failed: the agent waits 300 s (0.3 s here), then onboards again.
FAILED_DEVICE = dict(CONFIGURED_STORE, **{ACS_STATUS: "ACSConnFailed"})
SCALE = 1000
# The 5-s pause lasts 10 ms at this scale, room to stop the agent at several points inside it.
PAUSE_SCALE = 500
SLEEPING = "Sleeping tavelAgent for 5 seconds"
GRACE = " sleep for 5 mins to give time"
EMPTYING = "Setting URL in MangamentServerObject to NULL"
UPLOAD = "Send Status TO Server URL"
# (log line to wait for, its occurrence, then seconds, time scale); None: right after exec.
POINTS = [(None, 1, 0, SCALE), ("TAVELAgent start...", 1, 0, SCALE), ("tavelInit End", 1, 0, SCALE),
          ("tavel_isMgmtServerUrlEmpty ", 1, 0, SCALE), (GRACE, 1, 0.15, SCALE),
          ("COnnect to TAVEL Server", 1, 0, SCALE), ("httpGetUrlFromServer ret: 200", 1, 0, SCALE),
          (GRACE, 2, 0.15, SCALE), ("Valid Management URL is NOT presnt", 1, 0, SCALE),
          (EMPTYING, 1, 0, SCALE)] + [(SLEEPING, 1, ms / 1000, PAUSE_SCALE) for ms in (0, 2.5, 5, 7.5, 9.5)] + [
          ("End of tavelAgent sleep", 1, 0, SCALE), ("acsCfg.URL :", 1, 0, SCALE), (LAST_STEP, 1, 0, SCALE),
          (LAST_STEP, 1, 0.2, SCALE), (UPLOAD, 1, 0.05, SCALE)]


def account(store):
    return NAMES.get(tuple(store.get(k, "") for k in ACCOUNT), "mixed")


class PowerCutTest(FlowCase):
    maxDiff = None

    def start(self, dev, scale):
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE=str(scale)))
        return time.monotonic()

    def wait_line(self, dev, text, count):
        """Polls the log's size tightly: the pause is only milliseconds long."""
        deadline, size = time.monotonic() + 20, -1
        while True:
            now = os.stat(dev.path(AGENT_LOG)).st_size if dev.exists(AGENT_LOG) else 0
            if now != size:
                size = now
                if dev.log().count(text) >= count:
                    return
            if dev.proc.poll() is not None or time.monotonic() > deadline:
                self.fail("no %r before the kill; log tail:\n%s" % (text, dev.log()[-3000:]))
            time.sleep(0.0002)

    def cut(self, dev, point):
        """Runs the agent to the point and kills it there; what the device holds at that instant."""
        text, count, delay, scale = point
        self.server.reset(dict(FULL_SCRIPT, put=reply(200, delay=2.0)) if text == UPLOAD else FULL_SCRIPT)
        started = self.start(dev, scale)
        with open(dev.path(STORE_FILE + ".lock"), "a") as lock:
            if text == EMPTYING:
                # The store's writers' lock, taken in the grace before it, stops the agent with the journal
                # written and the account not yet emptied.
                self.wait_line(dev, GRACE, 2)
                fcntl.flock(lock, fcntl.LOCK_EX)
            if text == UPLOAD:
                self.wait_line(dev, LAST_STEP, 1)
                self.assertTrue(bootstrap(self.bus.env()))
            if text is not None:
                self.wait_line(dev, text, count)
            time.sleep(delay)
            dev.proc.send_signal(signal.SIGSTOP)  # the state, frozen, is what a power cut leaves
            at = time.monotonic() - started
            store, journal, last = dev.store(), dev.exists(JOURNAL), dev.log().rstrip("\n").rsplit("] ", 1)[-1]
            dev.proc.send_signal(signal.SIGKILL)
            dev.proc.wait(timeout=10)
        return at, account(store), journal, last[:48], store_problems(dev.path(STORE_FILE))

    def restart(self, dev):
        """Restarts and plays the rest of the device: the TR-069 client that gets through to the new ACS
        only, and the configuration manager's bootstrap signal once the agent applied an account."""
        self.server.reset(FULL_SCRIPT)
        offset = len(dev.log())
        self.start(dev, SCALE)
        deadline, sent = time.monotonic() + 30, 0
        while dev.proc.poll() is None:
            self.assertLess(time.monotonic(), deadline, dev.log()[offset:][-3000:])
            store, log = dev.store(), dev.log()[offset:]
            if account(store) == "new" and store.get(ACS_STATUS):
                run_binary(TAVELCTL, "dml", "set", ACS_STATUS, "", env=dev.env())
            if LAST_STEP in log and "apply TavelServer Data" in log and sent < 20:
                sent += bootstrap(self.bus.env())
                time.sleep(0.1)
            time.sleep(0.01)
        return dev.proc.returncode, dev.log()[offset:]

    def test_kill9_over_a_whole_reonboarding_then_restart(self):
        rows, landed = [], []
        for n, point in enumerate(POINTS, 1):
            with self.subTest(point=n):
                dev = self.device(FAILED_DEVICE, markers=(TZ_MARKER, CLOUD_MARKER))
                at, held, journal, last, problems = self.cut(dev, point)
                landed.append((held, journal))
                # A sound store, and never an empty or half account without the journal that completes it.
                self.assertIn((problems, held, journal), [([], "old", False), ([], "old", True), ([], "empty", True),
                                                          ([], "new", True), ([], "new", False)])
                status, log = self.restart(dev)
                first = re.search(r"tavel_isMgmtServerUrlEmpty (\d) \n", log)
                recovery = re.findall(r"management account (?:journal|write interrupted by a restart)[^\n]*?"
                                      r"(completed from|not whole|kept|already in place)", log)
                self.assertEqual(
                    (status, first and first.group(1), account(dev.store()), dev.exists(JOURNAL),
                     glob.glob(dev.path(JOURNAL) + ".*") + glob.glob(dev.path(STORE_FILE) + ".tmp.*"), recovery),
                    (0, "0", "new", False, [],
                     [] if not journal else ["completed from"] if held != "new" else ["already in place"]),
                    log[-3000:])
                rows.append("%2d  %-36s %5.3f s  %-5s %-7s %-48s %s" % (
                    n, "%s #%d +%g ms" % ((point[0] or "exec")[:24], point[1], point[2] * 1000), at, held,
                    "journal" if journal else "-", last, (recovery or ["-"])[0]))
        sys.stderr.write("\n kill point                              at       acct  journal last log line before the kill"
                         "                 restart\n" + "\n".join(rows) + "\n")
        # The empty account of the pause was met, and covered by the journal, several times.
        self.assertGreaterEqual(landed.count(("empty", True)), 3, rows)

    def test_stop_in_the_pause_restores_the_old_account_and_drops_the_journal(self):
        dev = self.device(FAILED_DEVICE, markers=(TZ_MARKER, CLOUD_MARKER))
        self.server.reset(FULL_SCRIPT)
        self.start(dev, PAUSE_SCALE)
        self.wait_line(dev, SLEEPING, 1)
        dev.proc.send_signal(signal.SIGTERM)
        self.assertEqual(dev.wait_exit(20), 0)
        log = dev.log()
        # Normally caught in the pause; a stop that comes after it finds the new account written.
        rolled_back = "End of tavelAgent sleep" not in log
        self.assertEqual((account(dev.store()), dev.exists(JOURNAL), "restoring the previous account" in log),
                         ("old" if rolled_back else "new", False, rolled_back), log[-3000:])
        status, log = self.restart(dev)
        self.assertEqual((status, account(dev.store()), dev.exists(JOURNAL), "management account journal" in log),
                         (0, "new", False, False))
