// tavelctl: operator and simulation tool for a device running tavelAgent.
#ifndef TAVELCTL_H
#define TAVELCTL_H

#include <stdio.h>

// "tavelctl dml ...": args are the words after "dml".  Returns the exit status.
int tavelctlDml(int argc, char **argv);
void tavelctlDmlUsage(FILE *out);

// "tavelctl factory-reset ...": args are the words after the command.
int tavelctlFactoryReset(int argc, char **argv);

// Bus commands ("dbg", "bootstrap", "ntp", "sync", "call"): argv[0] is the
// command word.  Returns the exit status.
int tavelctlBus(int argc, char **argv);
void tavelctlBusUsage(FILE *out);
// 1 when tavelAgent owns its bus name; 0 when not, or no bus is reachable.
bool tavelctlAgentRunning();
bool tavelctlIsBusCommand(const char *word);

#endif
