/*
 * The management-account journal.  A re-onboarding empties the management
 * account and writes the new one five seconds later; the journal, written
 * durably before the account is emptied, carries the new account (and the
 * one it replaces) across a power cut in that window, so the next start can
 * finish the write instead of finding an empty account.
 *
 * File: a fixed record of kAccountJournalSize bytes, mode 0600 (it holds
 * passwords), little-endian:
 *   0     8     magic "TVACCJNL"
 *   8     4     version (1)
 *   12    4     payload length (3074)
 *   16    1537  new account: URL[1025] Username[256] Password[256]
 *   1553  1537  previous account, same fields
 *   3090  4     CRC-32 (IEEE) of bytes 0..3089
 * Every text field ends in a NUL inside its width.
 */
#ifndef TAVEL_ACCOUNT_JOURNAL_H
#define TAVEL_ACCOUNT_JOURNAL_H

#include <stddef.h>
#include <stdint.h>

#include "dml.h"

#define TAVEL_ACCOUNT_JOURNAL_FILE "/flash/mcq/tavel/mgmt_account.journal"

constexpr size_t kAccountJournalSize = 16 + 2 * sizeof(ManagementServerInfo) + 4;
static_assert(sizeof(ManagementServerInfo) == 1537, "journal layout follows the platform record");
static_assert(kAccountJournalSize == 3094, "journal record size");

struct AccountJournal {
    ManagementServerInfo next;
    ManagementServerInfo before;
};

/* The record for a journal; buf holds kAccountJournalSize bytes. */
void tavel_journalEncode(const AccountJournal &journal, uint8_t *buf);
/* Checks a record read from the file (size bytes) and fills *journal only
 * when it is whole: size, magic, version, length, CRC, terminated fields and
 * a complete new account.  nullptr when valid, else why not (a literal). */
const char *tavel_journalDecode(const uint8_t *buf, size_t size, AccountJournal *journal);

/* Writes the journal durably: temporary file (0600), fsync, rename, fsync of
 * the directory.  0, or -1 with the failed step logged. */
int tavel_journalWrite(const AccountJournal &journal);
/* Removes the journal and syncs the directory; a missing journal is fine. */
int tavel_journalRemove(void);

/* Start-up: finishes an account write that a power cut interrupted (writes
 * the journal's new account unless the data model already holds it), or
 * drops a journal that is not whole without touching the data model; then
 * removes the journal and any temporary copy of it.  Logs what it did. */
void tavel_journalRecover(void);

#endif
