// The management-account journal: what start-up does with a whole, a stale
// and a damaged journal, and the account write that keeps it.
#include "account_journal.h"
#include "test_env.h"

namespace
{

const std::string kJournal = TAVEL_ACCOUNT_JOURNAL_FILE;

ManagementServerInfo account(const char *url, const char *user, const char *pass)
{
    ManagementServerInfo a;
    memset(&a, 0, sizeof(a));
    tavel_copyText(a.URL, sizeof(a.URL), url, 1024);
    tavel_copyText(a.Username, sizeof(a.Username), user, 255);
    tavel_copyText(a.Password, sizeof(a.Password), pass, 255);
    return a;
}

const ManagementServerInfo kNew = account("https://acs.new.test/cwmp", "cpe-new", "new-secret");
const ManagementServerInfo kOld = account("https://acs.old.test/cwmp", "cpe-old", "old-secret");

std::string record(const ManagementServerInfo &next, const ManagementServerInfo &before)
{
    std::string bytes(kAccountJournalSize, '\0');
    tavel_journalEncode({next, before}, reinterpret_cast<uint8_t *>(&bytes[0]));
    return bytes;
}

void storeAccount(const ManagementServerInfo &a)
{
    tavelTestWriteFile(kTavelTestStore, "Device.ManagementServer.URL="s + a.URL +
                                            "\nDevice.ManagementServer.Username=" + a.Username +
                                            "\nDevice.ManagementServer.Password=" + a.Password + "\n");
}

std::string storedAccount()
{
    ManagementServerInfo a;
    memset(&a, 0, sizeof(a));
    EXPECT_EQ(dml_getManagementServerInfo(&a), 0);
    return std::string(a.URL) + "|" + a.Username + "|" + a.Password;
}

class Journal : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tavelTestCleanRoot();
        initAgentState();
    }
};

TEST_F(Journal, DamagedJournalIsDroppedWithoutTouchingTheDataModel)
{
    const std::string whole = record(kNew, kOld);
    auto flipped = [&](size_t at) {
        std::string b = whole;
        b[at] = static_cast<char>(b[at] ^ 0x01);
        return b;
    };
    // A record whose checksum is right but whose content the agent never writes.
    auto resealed = [](ManagementServerInfo next) {
        memset(next.Password, 'p', sizeof(next.Password)); // no terminating NUL
        return record(next, kOld);
    };
    const struct {
        const char *what, *reason;
        std::string bytes;
    } cases[] = {
        {"empty", "wrong size", ""},
        {"torn in the new account", "wrong size", whole.substr(0, 900)},
        {"torn before the checksum", "wrong size", whole.substr(0, kAccountJournalSize - 1)},
        {"a byte more", "wrong size", whole + "x"},
        {"other magic", "not a journal", flipped(0)},
        {"other version", "unknown version", flipped(8)},
        {"a bit flipped in the password", "checksum mismatch", flipped(16 + 1281 + 3)},
        {"a bit flipped in the checksum", "checksum mismatch", flipped(kAccountJournalSize - 1)},
        {"unterminated field", "unterminated field", resealed(kNew)},
        {"no new account", "incomplete new account", record(account("", "", ""), kOld)},
        {"garbage", "wrong size", std::string(5000, '\xff')},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        storeAccount(account("", "", ""));
        const std::string before = tavelTestReadFile(kTavelTestStore);
        tavelTestWriteFile(kJournal, c.bytes);
        tavel_journalRecover();
        EXPECT_EQ(tavelTestReadFile(kTavelTestStore), before);
        EXPECT_FALSE(tavelTestExists(kJournal));
        EXPECT_TRUE(tavelTestLogHas("error", "management account journal " + kJournal + " is not whole (" +
                                                 c.reason + "): removed, data model left as it is"));
    }
    // Not a regular file: never read (a FIFO would block the start).
    ASSERT_EQ(mkfifo(tavelTestPath(kJournal).c_str(), 0600), 0);
    tavel_journalRecover();
    EXPECT_TRUE(tavelTestLogHas("error",
                                "management account journal " + kJournal +
                                    " is not whole (not a regular file): removed, data model left as it is"));
}

TEST_F(Journal, WholeJournalCompletesTheAccountOnceAndNeverLogsThePassword)
{
    // Cut off in the pause: the account is empty.
    storeAccount(account("", "", ""));
    tavelTestWriteFile(kJournal, record(kNew, kOld));
    tavelTestWriteFile(kJournal + ".tmp", "left by a write cut off before its rename");
    tavel_journalRecover();
    EXPECT_EQ(storedAccount(), "https://acs.new.test/cwmp|cpe-new|new-secret");
    EXPECT_FALSE(tavelTestExists(kJournal) || tavelTestExists(kJournal + ".tmp"));
    EXPECT_TRUE(tavelTestLogHas(
        "notice", "management account write interrupted by a restart: completed from " + kJournal +
                      " with the new account (URL https://acs.new.test/cwmp, "
                      "user cpe-new), journal removed"));

    // Cut off after the new account was written: nothing to write again.
    const std::string written = tavelTestReadFile(kTavelTestStore);
    tavelTestWriteFile(kJournal, record(kNew, kOld));
    tavel_journalRecover();
    EXPECT_EQ(tavelTestReadFile(kTavelTestStore), written);
    EXPECT_TRUE(tavelTestLogHas("notice", "management account journal " + kJournal +
                                              ": new account already in place, journal removed"));

    // A data model that cannot take the account keeps the journal for the next start.
    storeAccount(kOld);
    tavelTestWriteFile(kTavelTestStore,
                       tavelTestReadFile(kTavelTestStore) + "Fault.dml_setManagementServerInfo=1\n");
    tavelTestWriteFile(kJournal, record(kNew, kOld));
    tavel_journalRecover();
    EXPECT_TRUE(tavelTestExists(kJournal));
    EXPECT_EQ(storedAccount(), "https://acs.old.test/cwmp|cpe-old|old-secret");
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "secret"), 0);
}

TEST_F(Journal, AccountWriteLeavesNoJournalAndIsNotStartedWithoutOne)
{
    storeAccount(kOld);
    std::string url = kNew.URL, user = kNew.Username, pass = kNew.Password;
    ServerData data = g_serverData;
    data.mgmtUrl = &url[0];
    data.cdpusername = &user[0];
    data.cdppassword = &pass[0];
    ASSERT_EQ(tavel_setMgmtServerObj(&data), 0);
    EXPECT_EQ(storedAccount(), "https://acs.new.test/cwmp|cpe-new|new-secret");
    EXPECT_FALSE(tavelTestExists(kJournal) || tavelTestExists(kJournal + ".tmp"));

    // The journal cannot be written (its temporary path is taken by a
    // directory): the account is left whole and as it was.
    storeAccount(kOld);
    std::filesystem::create_directories(tavelTestPath(kJournal + ".tmp"));
    EXPECT_EQ(tavel_setMgmtServerObj(&data), -1);
    EXPECT_EQ(storedAccount(), "https://acs.old.test/cwmp|cpe-old|old-secret");
    EXPECT_FALSE(tavelTestExists(kJournal));
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "Setting URL in MangamentServerObject"), 1);
    std::filesystem::remove_all(tavelTestPath(kJournal + ".tmp"));

    // The emptying write fails: no pause, and the journal goes with the attempt.
    tavelTestWriteFile(kTavelTestStore,
                       tavelTestReadFile(kTavelTestStore) + "Fault.dml_setManagementServerInfo=1\n");
    EXPECT_EQ(tavel_setMgmtServerObj(&data), -1);
    EXPECT_FALSE(tavelTestExists(kJournal));
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "Sleeping tavelAgent"), 1);
}

} // namespace
