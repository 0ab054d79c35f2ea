"""A complete onboarding with the agent's clock past 2038-01-19, where a
32-bit time_t can no longer hold the time: the agent would take the clock
for unset and wait for it for ever.  Only the agent's own code sees the moved
clock (harness.clock_env); OpenSSL checks the server's certificate against
the real one."""
import calendar
import unittest

from busfixture import PrivateBus
from harness import ACS_USER, FULL_SCRIPT, ServerCase, applied, bootstrap, clock_env, clock_reads, wait_until


class Year2038Test(ServerCase):
    def test_onboarding_completes_after_2038(self):
        for date in ((2038, 2, 1), (2040, 1, 1)):
            with self.subTest(date=date):
                self.script(FULL_SCRIPT)
                dev = self.device()
                bus = PrivateBus()
                self.addCleanup(bus.close)
                at = calendar.timegm(date + (0, 0, 0))
                dev.start(env=dict(clock_env(dev, at), TAVEL_TIME_SCALE="100", **bus.env()))
                dev.wait_log("TAVEL Got Valid Time", timeout=20)
                wait_until(lambda: applied(dev), 30, "the reply applied")
                self.assertTrue(bootstrap(bus.env()))
                self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])
                self.assertEqual([r["target"] for r in self.server.requests("PUT")], ["/onboard?status=SUCCESS"])
                self.assertEqual(dev.store()["Device.ManagementServer.Username"], ACS_USER)
                # The agent itself read the moved clock, not the real one.
                reads = clock_reads(dev)
                self.assertTrue(reads and all(at <= s < at + 600 for s in reads), dev.read("clock.trace"))


if __name__ == "__main__":
    unittest.main()
