// "tavelctl dml ...": read and change the data-model store of a simulated
// device with the same file rules as the dml_ stand-in.  Fault lines are
// ordinary parameters here: the tool sets and clears them but never obeys them.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

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

// Passwords and API keys: the last part of the name holds "Password" or
// "APIKey", in any case (the ACS and backup passwords, the agent's and the
// cloud's keys, and any a device adds under the same naming).
bool isSecretName(std::string_view name)
{
    size_t dot = name.rfind('.');
    std::string last(dot == std::string_view::npos ? name : name.substr(dot + 1));
    for (char &c : last) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return last.find("password") != std::string::npos || last.find("apikey") != std::string::npos;
}

int dump(bool showSecrets)
{
    Store store;
    std::string error;
    if (!store.load(&error)) {
        return fail("dump", error);
    }
    for (const tavel::dml::Param &param : store.params()) {
        std::string_view value = param.raw;
        if (!showSecrets && !value.empty() && isSecretName(param.name)) {
            value = "***";
        }
        fwrite(param.name.data(), 1, param.name.size(), stdout);
        fputc('=', stdout);
        fwrite(value.data(), 1, value.size(), stdout);
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
        want = argc == 2 && strcmp(argv[1], "--show-secrets") == 0 ? 2 : 1;
    }
    if (want < 0 || argc != want) {
        fputs("tavelctl: bad dml command line; usage:\n", stderr);
        tavelctlDmlUsage(stderr);
        return 2;
    }
    if (strcmp(command, "dump") == 0) {
        return dump(argc == 2);
    }
    if (!tavel::dml::isValidName(argv[1])) {
        fprintf(stderr, "tavelctl: dml %s: invalid parameter name '%s'\n", command, argv[1]);
        return 2;
    }
    if (strcmp(command, "get") == 0) {
        return get(argv[1]);
    }
    if (strcmp(command, "set") == 0) {
        return change(command, Change{argv[1], argv[2]});
    }
    return change(command, Change{argv[1], std::string(), true});
}

void tavelctlDmlUsage(FILE *out)
{
    fputs(
        "Data model (the store file, $TAVEL_ROOT/flash/dml/datamodel.conf):\n"
        "  tavelctl dml get NAME               print a parameter's value (an empty line when absent)\n"
        "  tavelctl dml set NAME VALUE         store a parameter\n"
        "  tavelctl dml unset NAME             remove a parameter\n"
        "  tavelctl dml dump [--show-secrets]  print every parameter as Name=value, escaped as stored;\n"
        "                                      passwords and API keys show as *** without --show-secrets\n"
        "  tavelctl factory-reset --yes        lab devices: put the agent's parameters and markers back to\n"
        "                                      the factory state, so the next start onboards again\n",
        out);
}

namespace
{

// What onboarding writes, back to what a device leaves the factory with:
// the factory ACS URL and no account, no cloud settings, no status or
// descriptions.  The onboarding URL, API key and Enable are provisioning,
// not results, and stay; so do the time zone and the country code, whose
// factory values only the device image knows.
const char *const kFactoryUnset[] = {
    "Device.X_TAVEL_Agent.OnBoardStatus",   "Device.X_TAVEL_Agent.OpDesc",
    "Device.X_TAVEL_Agent.SubnetDesc",      "Device.X_TAVEL_Agent.ACSConnStatus",
    "Device.X_TAVEL_Cloud.L1URL",           "Device.X_TAVEL_Cloud.L1Flags",
    "Device.X_TAVEL_Cloud.L2URL",           "Device.X_TAVEL_Cloud.L2Flags",
    "Device.X_TAVEL_Cloud.RemoteAccessURL", "Device.X_TAVEL_Cloud.ConfigURL",
    "Device.X_TAVEL_Cloud.ConfigAPIKey",
};
// The markers the start-up decision reads, and the parked country code.
const char *const kFactoryMarkers[] = {
    "/flash/mcq/tavel/timezoneconfigdone.txt",
    "/flash/mcq/tavel/KPRCConfigdone.txt",
    "/flash/cc_from_tavel",
    "/configs/cc_configured_by",
};

} // namespace

int tavelctlFactoryReset(int argc, char **argv)
{
    bool yes = argc == 1 && strcmp(argv[0], "--yes") == 0;
    if (argc > 1 || (argc == 1 && !yes)) {
        fputs("tavelctl: usage: tavelctl factory-reset --yes\n", stderr);
        return 2;
    }
    if (!yes) {
        fprintf(stderr,
                "tavelctl: factory-reset sets Device.ManagementServer.URL to %s, empties its user name "
                "and password, removes the agent's status and cloud parameters and its markers; "
                "nothing changed: add --yes\n",
                TAVEL_FACTORY_ACS_URL);
        return 2;
    }
    if (tavelctlAgentRunning()) {
        fputs("tavelctl: factory-reset: tavelAgent is running; stop it first\n", stderr);
        return 1;
    }
    std::vector<Change> changes = {
        {"Device.ManagementServer.URL", TAVEL_FACTORY_ACS_URL},
        {"Device.ManagementServer.Username", ""},
        {"Device.ManagementServer.Password", ""},
    };
    for (const char *name : kFactoryUnset) {
        changes.push_back(Change{name, std::string(), true});
    }
    std::string error;
    if (tavel::dml::update(changes, nullptr, &error) != UpdateResult::Ok) {
        return fail("factory-reset", error);
    }
    const char *root = getenv("TAVEL_ROOT");
    for (const char *marker : kFactoryMarkers) {
        std::string path = std::string(root != nullptr ? root : "") + marker;
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            return fail("factory-reset", path + ": " + strerror(errno));
        }
    }
    printf("factory state restored: the next start of tavelAgent onboards again\n");
    return flushOutput("factory-reset");
}
