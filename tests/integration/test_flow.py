"""Onboarding on a private bus: report retries, the retry delay, the wait for the time-zone marker."""
import time

from harness import (FIREWALL_INSERT, FIREWALL_REMOVE, NEW_ACCOUNT, NO_ROLE, ServerCase, ctl, gaps, reply, retry_lines,
                     wait_owner)
from tavelsim import TZ_MARKER, PrivateBus

# A blank after every colon, unlike the GET's; the descriptions keep the CR of their CR LF.
REPORT_HEADERS = ["Content-Type: Application/json", "Content-Length: 0", "x-api-key: test-api-key",
                  "operatorid: OP42", "sn: SN0001", "country: DE", "snetdesc: Subnet A\r", "opdesc: Operator One\r"]


class FlowCase(ServerCase):
    def setUp(self):
        super().setUp()
        self.bus = PrivateBus()
        self.addCleanup(self.bus.close)

    def start(self, dev, scale, env=None, **kw):
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE=str(scale), **(env or {})), **kw)
        wait_owner(dev, self.bus.env(), 15)

    def send(self, *args, env=None):
        result = ctl(dict(self.bus.env(), **(env or {})), *args)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result

    def own_headers(self, request):
        return [h for h in request["headers"] if not h.startswith(("Host:", "Accept:"))]

    def assert_reported(self, dev, status, suffix):
        """The bootstrap outcome status went out as suffix and ended the agent."""
        self.send("bootstrap", status)
        self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])
        self.assertEqual([r.get("method") for r in self.server.requests()], ["GET", "PUT"])
        put = self.server.requests("PUT")[0]
        self.assertEqual((put["method"], put["target"], put["version"], put["tls"]),
                         ("PUT", "/onboard" + suffix, "HTTP/1.1", True))
        log = dev.log()
        self.assertIn("Send Status TO Server Status %d\n" % (3 if status == "1" else 2), log)
        self.assertIn("Send Status TO Server URL %s%s\n" % (self.server.url(), suffix), log)
        self.assertIn("Response code received from tavel server 200\n", log)
        self.assertLess(log.index("]  exitTavel "), log.index("exitTavel !!!!"))
        # The firewall rules go last, just before the exit.
        self.assertEqual(dev.iptables(), FIREWALL_INSERT + FIREWALL_REMOVE)
        return put, log


class ReportTest(FlowCase):
    def test_rejected_report_is_resent_and_the_exit_waits_for_the_time_zone_marker(self):
        scale = 20
        # The time-zone service is down (no marker); its retry meets a reply that is not retried.
        self.script({"get": [reply(200, NEW_ACCOUNT + [("timezone", "100")]), reply(504)],
                     "put": [reply(503), reply(200)]})
        dev = self.device()
        self.start(dev, scale)
        dev.wait_log("getTimerIdForErrorCode: 504\n", timeout=15)
        # Any status but 1 is a failed bootstrap; the status timer resends the rejected report.
        self.send("bootstrap", "-7")
        log = dev.wait_log("Response code received from tavel server 200\n")
        puts = self.server.requests("PUT")
        self.assertEqual([p["target"] for p in puts], ["/onboard?status=ERROR:CONN_FAILED"] * 2)
        self.assertEqual(log.count("Send Status TO Server Status 2\n"), 2)
        self.assertIn("Response code received from tavel server 503\n", log)
        self.assertIn("Error code [0] for timerId\n", log)
        [(count, delay)] = retry_lines(log, 503)
        self.assertEqual(count, 1)
        self.assertTrue(5 <= delay <= 9, delay)
        self.assertGreaterEqual(puts[1]["received"] - puts[0]["received"], delay / scale - 0.002)
        # Polls for the marker every 5 s nominal, 0.25 s here: several go by.
        time.sleep(1.5)
        self.assertEqual((dev.proc.poll(), dev.exists(TZ_MARKER), "exitTavel" in dev.log(), dev.iptables()),
                         (None, False, False, FIREWALL_INSERT))

        dev.touch(TZ_MARKER)
        marked = time.monotonic()
        self.assertEqual(dev.wait_exit(10), 0)
        self.assertLess(time.monotonic() - marked, 5 / scale + 2)
        self.assertIn("]  exitTavel ", dev.log())
        self.assertEqual((dev.iptables()[-2:], len(self.server.requests("PUT"))), (FIREWALL_REMOVE, 2))


class RetryDelayTest(FlowCase):
    def test_early_bootstrap_reports_nothing_and_set_timeout_sets_the_retry_delay(self):
        scale = 1000
        self.script({"get": reply(401)})
        # No role yet: the first fetch waits until the test has set the delay.
        dev = self.device(NO_ROLE)
        self.start(dev, scale)
        # Nothing applied yet, so there is nothing to report.
        self.send("bootstrap", "1")
        dev.wait_log("tavel_TR69BootStrapStatusSignal Entered ... \n")
        self.send("call", "dummyFunction", "0")
        self.assertEqual(("Send Status TO Server" in dev.log(), self.server.requests(), dev.proc.poll()),
                         (False, [], None))

        self.send("dbg", "setTimeout 600")
        dev.wait_stdout("cmdLine+11 = 600.\n")
        self.send("dml", "set", "Device.X_TAVEL_WiFiService.WorkMode", "RGW", env={"TAVEL_ROOT": dev.root})
        gets = self.server.wait_requests("GET", 3, dev=dev)
        log = dev.log()
        self.assertGreaterEqual(log.count("getTimerIdForErrorCode: 401\n"), 2)
        self.assertNotIn("retryCount value is", log)
        self.assertNotIn("Send Status TO Server", log)
        # 600 s plus a jitter of 0 to 254 s; the default would be a day (86 s here).
        self.assertTrue(all(600 / scale - 0.002 <= g < 854 / scale + 1.5 for g in gaps(gets)), gaps(gets))
