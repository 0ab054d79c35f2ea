/*
 * External commands of the agent: no shell anywhere, and none runs for
 * longer than its time limit.
 */
#ifndef TAVEL_PROCESS_H
#define TAVEL_PROCESS_H

/* How long a command may run before it is killed: a hung iptables (a held
 * xtables lock, a wedged netlink) must not hold the agent for ever. */
#define TAVEL_COMMAND_LIMIT_MS 10000

/* Runs argv[0], found through PATH, with argv (null-terminated) and waits for
 * it, at most limitMs.  The child starts with no signal blocked, in a process
 * group of its own.  Past the limit, or on a stop pending for the calling
 * thread, the group is killed (SIGKILL) and reaped; the caller carries the
 * stop out (errno ECANCELED).  Returns the wait status, or -1 when the
 * command could not be started (also when it exits 127, the status of an
 * exec that failed where the C library cannot say so otherwise) or was
 * killed.  Every
 * failure, a non-zero exit status included, is logged with the command. */
int tavel_spawn(const char *const argv[], int limitMs = TAVEL_COMMAND_LIMIT_MS);

#endif
