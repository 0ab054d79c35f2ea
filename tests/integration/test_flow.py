"""The whole onboarding of the real agent through a private message bus: fetch,
bootstrap signal, status report, exit; report retries, the operator's retry
delay, the wait for the time-zone marker, and a waiting agent's CPU use."""
import time
import unittest

from busfixture import PrivateBus
from harness import (FIREWALL_INSERT, FIREWALL_REMOVE, LAST_STEP, LOCAL_PORTS, NEW_ACCOUNT, TZ_MARKER, TZ_PARIS,
                     ServerCase, cpu_ticks, ctl, gaps, reply, retry_lines, wait_owner)

APPLIED = reply(200, NEW_ACCOUNT + [TZ_PARIS])
NO_ROLE = {"Device.X_TAVEL_WiFiService.WorkMode": "CFG"}
# The report's own headers: a blank after every colon, and the descriptions
# as stored from the reply (CR LF line ends leave their CR).
REPORT_HEADERS = ["Content-Type: Application/json", "Content-Length: 0", "x-api-key: test-api-key",
                  "operatorid: OP42", "sn: SN0001", "country: DE", "snetdesc: Subnet A\r", "opdesc: Operator One\r"]


class FlowCase(ServerCase):
    def setUp(self):
        super().setUp()
        self.bus = PrivateBus()
        self.addCleanup(self.bus.close)

    def start(self, dev, scale):
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE=str(scale)))
        wait_owner(dev, self.bus.env(), 15)

    def ctl(self, *args, env=None):
        return ctl(dict(self.bus.env(), **(env or {})), *args)

    def send(self, *args):
        result = self.ctl(*args)
        self.assertEqual(result.returncode, 0, result.stderr)

    def applied_and_waiting(self, dev, scale=100):
        self.start(dev, scale)
        dev.wait_log(LAST_STEP)
        self.assertEqual(dev.store()["Device.ManagementServer.Username"], "cpe-new")

    def own_headers(self, request):
        return [h for h in request["headers"] if not h.startswith(("Host:", "Accept:"))]


class ReportTest(FlowCase):
    def test_bootstrap_outcome_is_reported_and_ends_the_agent(self):
        for status, value, suffix in (("1", 3, "?status=SUCCESS"), ("0", 2, "?status=ERROR:CONN_FAILED"),
                                      ("-7", 2, "?status=ERROR:CONN_FAILED")):
            with self.subTest(status=status):
                self.script({"get": APPLIED, "put": reply(200, body="accepted\n")})
                dev = self.device()
                self.applied_and_waiting(dev)
                self.assertEqual(self.server.requests("PUT"), [])
                self.send("bootstrap", status)
                self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])

                self.assertEqual([r.get("method") for r in self.server.requests()], ["GET", "PUT"])
                put = self.server.requests("PUT")[0]
                self.assertEqual((put["method"], put["target"], put["version"], put["tls"]),
                                 ("PUT", "/onboard" + suffix, "HTTP/1.1", True))
                self.assertIn(put["client_port"], LOCAL_PORTS)
                self.assertEqual(self.own_headers(put), REPORT_HEADERS)
                log = dev.log()
                self.assertIn("Send Status TO Server Status %d\n" % value, log)
                self.assertIn("Send Status TO Server URL %s%s\n" % (self.server.url(), suffix), log)
                self.assertIn("Response code received from tavel server 200\n", log)
                self.assertLess(log.index("]  exitTavel "), log.index("exitTavel !!!!"))
                # The firewall rules go last, just before the exit.
                self.assertEqual(dev.iptables(), FIREWALL_INSERT + FIREWALL_REMOVE)
                # The reply body of the report goes to standard output.
                self.assertIn("accepted\n", dev.stdout())
                dev.close()

    def test_bootstrap_before_any_applied_data_reports_nothing(self):
        dev = self.device(NO_ROLE)
        self.start(dev, 100)
        self.send("bootstrap", "1")
        dev.wait_log("tavel_TR69BootStrapStatusSignal Entered ... \n")
        self.send("call", "dummyFunction", "0")
        self.assertNotIn("Send Status TO Server", dev.log())
        self.assertEqual(self.server.requests(), [])
        self.assertIsNone(dev.proc.poll())

    def test_rejected_report_is_resent_by_the_status_timer(self):
        scale = 100
        self.script({"get": APPLIED, "put": [reply(503), reply(200)]})
        dev = self.device()
        self.applied_and_waiting(dev, scale)
        self.send("bootstrap", "1")
        self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])
        puts = self.server.requests("PUT")
        self.assertEqual([p["target"] for p in puts], ["/onboard?status=SUCCESS"] * 2)
        log = dev.log()
        self.assertIn("Response code received from tavel server 503\n", log)
        self.assertIn("Error code [0] for timerId\n", log)
        [(count, delay)] = retry_lines(log, 503)
        self.assertEqual(count, 1)
        self.assertTrue(5 <= delay <= 9, delay)
        self.assertGreaterEqual(puts[1]["received"] - puts[0]["received"], delay / scale - 0.002)
        self.assertEqual(dev.iptables()[-2:], FIREWALL_REMOVE)

    def test_report_waits_for_the_time_zone_marker(self):
        scale = 20
        # The time-zone service is down, so no marker; the retry it arms
        # meets a reply that is not retried, leaving the agent quiet.
        self.script({"get": [reply(200, NEW_ACCOUNT + [("timezone", "100")]), reply(504)]})
        dev = self.device()
        self.start(dev, scale)
        dev.wait_log("getTimerIdForErrorCode: 504\n", timeout=15)
        self.send("bootstrap", "1")
        dev.wait_log("Response code received from tavel server 200\n")
        # Polls every 5 s nominal, 0.25 s here: several go by.
        time.sleep(1.5)
        self.assertIsNone(dev.proc.poll())
        self.assertFalse(dev.exists(TZ_MARKER))
        self.assertNotIn("exitTavel", dev.log())
        self.assertEqual(dev.iptables(), FIREWALL_INSERT)

        dev.touch(TZ_MARKER)
        marked = time.monotonic()
        self.assertEqual(dev.wait_exit(10), 0)
        self.assertLess(time.monotonic() - marked, 5 / scale + 2)
        self.assertIn("]  exitTavel ", dev.log())
        self.assertEqual(dev.iptables()[-2:], FIREWALL_REMOVE)
        self.assertEqual(len(self.server.requests("PUT")), 1)


class RetryDelayTest(FlowCase):
    def test_set_timeout_sets_the_non_transient_retry_delay(self):
        scale = 1000
        self.script({"get": reply(401)})
        # No role yet: the first fetch waits until the test has set the delay.
        dev = self.device(NO_ROLE)
        self.start(dev, scale)
        self.send("dbg", "setTimeout 600")
        dev.wait_stdout("cmdLine+11 = 600.\n")
        set_mode = self.ctl("dml", "set", "Device.X_TAVEL_WiFiService.WorkMode", "RGW", env={"TAVEL_ROOT": dev.root})
        self.assertEqual(set_mode.returncode, 0, set_mode.stderr)

        gets = self.server.wait_requests("GET", 3, dev=dev)
        log = dev.log()
        self.assertGreaterEqual(log.count("getTimerIdForErrorCode: 401\n"), 2)
        self.assertNotIn("retryCount value is", log)
        # 600 s plus a jitter of 0 to 254 s; the default would be a day (86 s here).
        for gap in gaps(gets):
            self.assertGreaterEqual(gap, 600 / scale - 0.002)
            self.assertLess(gap, 854 / scale + 1.5)


class IdleTest(FlowCase):
    def test_waiting_agent_uses_no_cpu(self):
        # A loop that polls the bus, a timer or the store would burn ticks in
        # either wait.
        self.script({"get": APPLIED})
        for name, store in (("for a role", NO_ROLE), ("for the bootstrap signal", None)):
            with self.subTest(name):
                dev = self.device(store)
                if store:
                    # One poll for the role every 10 s.
                    self.start(dev, 1)
                    dev.wait_log("TAVEL work mode is CFG... Waiting to take Role !!")
                else:
                    self.applied_and_waiting(dev)
                time.sleep(0.5)
                before = cpu_ticks(dev.proc.pid)
                time.sleep(3)
                used = cpu_ticks(dev.proc.pid) - before
                self.assertLessEqual(used, 1, "%d ticks in 3 s while idle" % used)
                self.assertIsNone(dev.proc.poll())


if __name__ == "__main__":
    unittest.main()
