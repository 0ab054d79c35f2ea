"""An onboarding with the agent's clock past 2038-01-19: with a 32-bit time_t it would wait for ever."""
import calendar

from harness import ACS_USER, FULL_SCRIPT, applied, clock_env, wait_until
from test_flow import FlowCase


class Year2038Test(FlowCase):
    def test_onboarding_completes_after_2038(self):
        # A failed bootstrap is reported as an error, a good one as a success.
        for date, status, suffix in (((2038, 2, 1), "1", "?status=SUCCESS"),
                                     ((2040, 1, 1), "0", "?status=ERROR:CONN_FAILED")):
            with self.subTest(date=date):
                self.script(FULL_SCRIPT)
                dev = self.device()
                at = calendar.timegm(date + (0, 0, 0))
                self.start(dev, 100, env=clock_env(dev, at))
                dev.wait_log("TAVEL Got Valid Time", timeout=20)
                wait_until(lambda: applied(dev), 30, "the reply applied")
                self.assert_reported(dev, status, suffix)
                self.assertEqual(dev.store()["Device.ManagementServer.Username"], ACS_USER)
                # The agent itself read the moved clock (each entry point's first read is traced).
                reads = [int(line.split()[1]) for line in dev.read("clock.trace").splitlines()]
                self.assertTrue(reads and all(at <= s < at + 600 for s in reads), dev.read("clock.trace"))
