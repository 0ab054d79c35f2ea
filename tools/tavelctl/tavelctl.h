// tavelctl: operator and simulation tool for a device running tavelAgent.
#ifndef TAVELCTL_H
#define TAVELCTL_H

// "tavelctl dml ...": args are the words after "dml".  Returns the exit status.
int tavelctlDml(int argc, char **argv);
void tavelctlDmlUsage();

// Bus commands ("dbg", "bootstrap", "ntp", "sync", "call"): argv[0] is the
// command word.  Returns the exit status.
int tavelctlBus(int argc, char **argv);
void tavelctlBusUsage();
bool tavelctlIsBusCommand(const char *word);

#endif
