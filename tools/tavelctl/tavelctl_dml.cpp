// "tavelctl dml ...": read and change the data-model store of a simulated
// device with the same file rules as the dml_ stand-in.  Fault lines are
// ordinary parameters here: the tool sets and clears them but never obeys them.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "store.h"
#include "tavelctl.h"

namespace
{

using tavel::dml::Change;
using tavel::dml::Store;
using tavel::dml::UpdateResult;

int fail(const char *command, const std::string &error)
{
    fprintf(stderr, "tavelctl: dml %s: %s\n", command, error.c_str());
    return 1;
}

// A closed or full stdout must not pass for a successful read.
int flushOutput(const char *command)
{
    if (fflush(stdout) != 0 || ferror(stdout)) {
        return fail(command, "cannot write to standard output");
    }
    return 0;
}

int get(const char *name)
{
    Store store;
    std::string error;
    if (!store.load(&error)) {
        return fail("get", error);
    }
    std::string value = store.get(name);
    fwrite(value.data(), 1, value.size(), stdout);
    fputc('\n', stdout);
    return flushOutput("get");
}

int dump()
{
    Store store;
    std::string error;
    if (!store.load(&error)) {
        return fail("dump", error);
    }
    for (const tavel::dml::Param &param : store.params()) {
        fwrite(param.name.data(), 1, param.name.size(), stdout);
        fputc('=', stdout);
        fwrite(param.raw.data(), 1, param.raw.size(), stdout);
        fputc('\n', stdout);
    }
    return flushOutput("dump");
}

int change(const char *command, const Change &change)
{
    std::string error;
    if (tavel::dml::update({change}, nullptr, &error) != UpdateResult::Ok) {
        return fail(command, error);
    }
    return 0;
}

} // namespace

int tavelctlDml(int argc, char **argv)
{
    const char *command = argc > 0 ? argv[0] : "";
    int want = -1;
    if (strcmp(command, "get") == 0 || strcmp(command, "unset") == 0) {
        want = 2;
    } else if (strcmp(command, "set") == 0) {
        want = 3;
    } else if (strcmp(command, "dump") == 0) {
        want = 1;
    }
    if (want < 0 || argc != want) {
        tavelctlDmlUsage();
        return 2;
    }
    if (want > 1 && !tavel::dml::isValidName(argv[1])) {
        fprintf(stderr, "tavelctl: dml %s: invalid parameter name '%s'\n", command, argv[1]);
        return 2;
    }
    if (strcmp(command, "get") == 0) {
        return get(argv[1]);
    }
    if (strcmp(command, "set") == 0) {
        return change(command, Change{argv[1], argv[2]});
    }
    if (strcmp(command, "unset") == 0) {
        return change(command, Change{argv[1], std::string(), true});
    }
    return dump();
}

void tavelctlDmlUsage()
{
    fprintf(stderr,
            "  tavelctl dml get NAME          print a parameter's value (an empty line when absent)\n"
            "  tavelctl dml set NAME VALUE    store a parameter\n"
            "  tavelctl dml unset NAME        remove a parameter\n"
            "  tavelctl dml dump              print every parameter as Name=value, escaped as stored\n"
            "  (store: $TAVEL_ROOT/flash/dml/datamodel.conf)\n");
}
