// The management-account journal: what start-up does with a whole and a
// damaged journal, and the account write that keeps it.
#include "account_journal.h"
#include "test_env.h"

namespace
{

const std::string kJournal = TAVEL_ACCOUNT_JOURNAL_FILE;
const std::string kOld = "https://acs.old.test/cwmp|cpe-old|old-secret";
const std::string kNew = "https://acs.new.test/cwmp|cpe-new|new-secret";

// "URL|user|password" as the platform record, and back from the data model.
ManagementServerInfo account(const std::string &text)
{
    ManagementServerInfo a;
    memset(&a, 0, sizeof(a));
    std::istringstream in(text);
    for (char *field : {a.URL, a.Username, a.Password}) {
        std::string part;
        std::getline(in, part, '|');
        tavel_copyText(field, 256, part.c_str(), 255);
    }
    return a;
}

void storeAccount(const std::string &text, const std::string &more = "")
{
    ManagementServerInfo a = account(text);
    tavelTestWriteFile(kTavelTestStore, "Device.ManagementServer.URL="s + a.URL +
                                            "\nDevice.ManagementServer.Username=" + a.Username +
                                            "\nDevice.ManagementServer.Password=" + a.Password + "\n" + more);
}

std::string storedAccount()
{
    ManagementServerInfo a;
    memset(&a, 0, sizeof(a));
    EXPECT_EQ(dml_getManagementServerInfo(&a), 0);
    return std::string(a.URL) + "|" + a.Username + "|" + a.Password;
}

std::string record(const ManagementServerInfo &next)
{
    std::string bytes(kAccountJournalSize, '\0');
    tavel_journalEncode({next, account(kOld)}, reinterpret_cast<uint8_t *>(&bytes[0]));
    return bytes;
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

TEST_F(Journal, StartUpCompletesAWholeJournalAndDropsADamagedOne)
{
    const std::string whole = record(account(kNew));
    // The checksum is plain CRC-32 (zlib's crc32 of the bytes before it): a
    // journal left by an earlier build must still be read.
    EXPECT_EQ(whole.substr(kAccountJournalSize - 4), "\xE8\x77\xA4\xA8"s);
    auto flipped = [&](size_t at) {
        return whole.substr(0, at) + char(whole[at] ^ 1) + whole.substr(at + 1);
    };
    ManagementServerInfo unterminated = account(kNew); // the checksum is right, the content never written
    memset(unterminated.Password, 'p', sizeof(unterminated.Password));
    const struct {
        const char *reason;
        std::string bytes;
    } damaged[] = {
        {"wrong size", ""},
        {"wrong size", whole.substr(0, 900)},
        {"wrong size", whole + "x"},
        {"not a journal", flipped(0)},
        {"unknown version", flipped(8)},
        {"checksum mismatch", flipped(16 + 1281 + 3)},
        {"checksum mismatch", flipped(kAccountJournalSize - 1)},
        {"unterminated field", record(unterminated)},
        {"incomplete new account", record(account("https://acs.new.test||"))},
    };
    for (const auto &c : damaged) {
        SCOPED_TRACE(c.reason);
        storeAccount("||");
        const std::string before = tavelTestReadFile(kTavelTestStore);
        tavelTestWriteFile(kJournal, c.bytes);
        tavel_journalRecover();
        EXPECT_EQ(tavelTestReadFile(kTavelTestStore), before);
        EXPECT_FALSE(tavelTestExists(kJournal));
        EXPECT_TRUE(tavelTestLogHas("error", "management account journal " + kJournal + " is not whole (" +
                                                 c.reason + "): removed, data model left as it is"));
    }
    ASSERT_EQ(mkfifo(tavelTestPath(kJournal).c_str(), 0600), 0); // never read: it would block the start
    tavel_journalRecover();
    EXPECT_TRUE(tavelTestLogHas("error",
                                "management account journal " + kJournal +
                                    " is not whole (not a regular file): removed, data model left as it is"));

    // Cut off in the pause, and a later journal write cut off before its rename.
    tavelTestWriteFile(kJournal, whole);
    tavelTestWriteFile(kJournal + ".tmp", "half");
    tavel_journalRecover();
    EXPECT_EQ(storedAccount(), kNew);
    EXPECT_FALSE(tavelTestExists(kJournal) || tavelTestExists(kJournal + ".tmp"));
    EXPECT_TRUE(
        tavelTestLogHas("notice", "management account write interrupted by a restart: completed from " +
                                      kJournal + " with the new account (URL https://acs.new.test/cwmp, " +
                                      "user cpe-new), journal removed"));
    // Cut off after the new account was written: nothing written again.
    const std::string written = tavelTestReadFile(kTavelTestStore);
    tavelTestWriteFile(kJournal, whole);
    tavel_journalRecover();
    EXPECT_EQ(tavelTestReadFile(kTavelTestStore), written);
    EXPECT_FALSE(tavelTestExists(kJournal));
    EXPECT_TRUE(tavelTestLogHas("notice", "management account journal " + kJournal +
                                              ": new account already in place, journal removed"));
    // A data model that does not take the account keeps the journal for the next start.
    storeAccount(kOld, "Fault.dml_setManagementServerInfo=1\n");
    tavelTestWriteFile(kJournal, whole);
    tavel_journalRecover();
    EXPECT_EQ(storedAccount() + (tavelTestExists(kJournal) ? " kept" : ""), kOld + " kept");
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "secret"), 0);
}

TEST_F(Journal, AccountIsNotEmptiedWithoutAJournalAndAFailedAttemptLeavesNone)
{
    std::string url = "https://acs.new.test/cwmp", user = "cpe-new", pass = "new-secret";
    ServerData data = g_serverData;
    data.mgmtUrl = &url[0];
    data.cdpusername = &user[0];
    data.cdppassword = &pass[0];
    // The journal's temporary path is taken by a directory: nothing is emptied.
    storeAccount(kOld);
    std::filesystem::create_directories(tavelTestPath(kJournal + ".tmp"));
    EXPECT_EQ(tavel_setMgmtServerObj(&data), -1);
    EXPECT_EQ(storedAccount(), kOld);
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "Setting URL in MangamentServerObject"), 0);
    std::filesystem::remove_all(tavelTestPath(kJournal + ".tmp"));

    // The emptying write fails: no pause, and the journal goes with the attempt.
    storeAccount(kOld, "Fault.dml_setManagementServerInfo=1\n");
    EXPECT_EQ(tavel_setMgmtServerObj(&data), -1);
    EXPECT_FALSE(tavelTestExists(kJournal));
    EXPECT_EQ(tavelTestCount(tavelTestLog(), "Sleeping tavelAgent"), 0);
}

} // namespace
