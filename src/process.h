/*
 * External commands of the agent: no shell anywhere.
 */
#ifndef TAVEL_PROCESS_H
#define TAVEL_PROCESS_H

/* Runs argv[0], found through PATH, with argv (null-terminated) and waits for
 * it.  The child starts with no signal blocked.  Returns its wait status, or
 * -1 when it could not be started (also when it exits 127, the status of an
 * exec that failed where the C library cannot say so otherwise). */
int tavel_spawn(const char *const argv[]);

#endif
