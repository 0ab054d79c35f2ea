#include <dbus/dbus.h>

#include "tavel_service.h"
#include "test_env.h"

namespace
{

// A dbus-daemon of the test's own on a socket under the test root, killed
// and started again at the same path as a crashed system bus would be.
class PrivateDaemon
{
public:
    PrivateDaemon()
        : socket_(tavelTestPath("/bus.sock")), config_(tavelTestPath("/bus.conf")),
          configArg_("--config-file=" + config_)
    {
        std::ofstream(config_)
            << "<busconfig><type>session</type><listen>unix:path=" << socket_
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
               "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/></policy>"
               "</busconfig>\n";
    }
    ~PrivateDaemon() { kill(); }
    PrivateDaemon(const PrivateDaemon &) = delete;
    PrivateDaemon &operator=(const PrivateDaemon &) = delete;

    // Other threads run meanwhile: the child only redirects and execs.
    bool start()
    {
        pid_ = fork();
        if (pid_ == 0) {
            int quiet = open("/dev/null", O_WRONLY); // its complaint about the fd limit is noise here
            if (quiet >= 0) {
                dup2(quiet, STDERR_FILENO);
            }
            execlp("dbus-daemon", "dbus-daemon", configArg_.c_str(), "--nofork",
                   static_cast<char *>(nullptr));
            _exit(127);
        }
        return pid_ > 0;
    }
    void kill()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    std::string address() const { return "unix:path=" + socket_; }

private:
    std::string socket_;
    std::string config_;
    std::string configArg_;
    pid_t pid_ = -1;
};

// Waits until the bus answers (and, with agent, until the agent's service
// answers a call, its last step in joining), asking over a connection of the
// test's own.
bool waitForBus(bool agent)
{
    for (int i = 0; i < 1000; ++i) {
        DBusConnection *probe = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        if (probe != nullptr) {
            bool ready = !agent;
            DBusMessage *call = agent ? dbus_message_new_method_call(TAVEL_BUS_NAME, TAVEL_BUS_PATH,
                                                                     TAVEL_BUS_INTERFACE, TAVEL_BUS_METHOD)
                                      : nullptr;
            dbus_int32_t arg = 0;
            if (call != nullptr && dbus_message_append_args(call, DBUS_TYPE_INT32, &arg, DBUS_TYPE_INVALID)) {
                DBusMessage *reply = dbus_connection_send_with_reply_and_block(probe, call, 1000, nullptr);
                ready = reply != nullptr;
                if (reply != nullptr) {
                    dbus_message_unref(reply);
                }
            }
            if (call != nullptr) {
                dbus_message_unref(call);
            }
            dbus_connection_close(probe);
            dbus_connection_unref(probe);
            if (ready) {
                return true;
            }
        }
        usleep(10 * 1000);
    }
    return false;
}

} // namespace

// The bus thread gets back onto a restarted bus while another thread keeps
// sending through the same layer (the TSan build checks the hand-over).
TEST(BusRejoin, TheServiceReturnsToARestartedBusWhileAnotherThreadSends)
{
    if (system("command -v dbus-daemon >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "no dbus-daemon";
    }
    PrivateDaemon bus;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    ASSERT_TRUE(bus.start() && waitForBus(false));
    std::thread([] { start_tavel_service(); }).detach(); // lives as long as the process, as in the agent
    ASSERT_TRUE(waitForBus(true));

    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::thread sender([&] {
        const char data[4] = {'p', 'i', 'n', 'g'};
        while (!stop.load()) {
            sent += tavel_sendMsg(TAVEL_SIG_SYNC, data, sizeof(data)) == 0 ? 1 : 0;
            usleep(1000);
        }
    });
    for (int round = 0; round < 3; ++round) {
        bus.kill();
        ASSERT_TRUE(bus.start());
        ASSERT_TRUE(waitForBus(true)) << "round " << round << "\n" << tavelTestLog();
    }
    int before = sent.load();
    for (int i = 0; i < 500 && sent.load() == before; ++i) {
        usleep(10 * 1000);
    }
    stop = true;
    sender.join();
    EXPECT_GT(sent.load(), before) << "sending works again on the last bus";
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "] bus connection back after "), 3) << tavelTestLog();
}
