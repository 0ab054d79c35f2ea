/* Sends many bus signals quickly for load tests: one connection, a list of
 * signals sent round-robin until COUNT have gone out, paced to RATE a second.
 *
 * usage: sigstorm COUNT RATE SPECFILE [OWNER]
 * SPECFILE lines: MEMBER HEX   (an `ay` argument; "" for an empty array)
 *                 MEMBER -     (no argument)
 *                 MEMBER =TEXT (a string argument instead of `ay`)
 * With OWNER, prints "ready" once subscribed to OWNER's appearance and sends
 * the instant the bus announces an owner for that name.
 * The bus is DBUS_SYSTEM_BUS_ADDRESS.  Prints the number sent.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <dbus/dbus.h>

static double now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

int main(int argc, char **argv)
{
    static char line[16384];
    static DBusMessage *msgs[64];
    int args = argc == 4 || argc == 5;
    long count = args ? atol(argv[1]) : 0;
    double rate = args ? atof(argv[2]) : 0;
    FILE *f = args ? fopen(argv[3], "r") : NULL;
    const char *owner = argc == 5 ? argv[4] : NULL;
    int n = 0;
    if (f == NULL || count <= 0 || rate <= 0) {
        fprintf(stderr, "usage: sigstorm COUNT RATE SPECFILE [OWNER]\n");
        return 2;
    }
    /* Each signal is built once and copied for every send. */
    while (n < 64 && fgets(line, sizeof(line), f) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        char *arg = strchr(line, ' ');
        if (arg == NULL) continue;
        *arg++ = '\0';
        DBusMessage *m = dbus_message_new_signal("/velka/sigstorm", "velka.sigstorm", line);
        if (arg[0] == '=') {
            const char *t = arg + 1;
            dbus_message_append_args(m, DBUS_TYPE_STRING, &t, DBUS_TYPE_INVALID);
        } else if (strcmp(arg, "-") != 0) {
            static unsigned char bytes[sizeof(line) / 2];
            const unsigned char *p = bytes;
            int len = 0;
            while (arg[2 * len] != '\0' && sscanf(arg + 2 * len, "%2hhx", &bytes[len]) == 1) len++;
            if (arg[2 * len] != '\0') {
                fprintf(stderr, "sigstorm: bad hex\n");
                return 2;
            }
            dbus_message_append_args(m, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &p, len, DBUS_TYPE_INVALID);
        }
        msgs[n++] = m;
    }
    fclose(f);
    DBusError err;
    dbus_error_init(&err);
    DBusConnection *conn = n > 0 ? dbus_bus_get_private(DBUS_BUS_SYSTEM, &err) : NULL;
    if (conn == NULL) {
        fprintf(stderr, "sigstorm: %s\n", n > 0 ? err.message : "no signals");
        return 1;
    }
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    if (owner != NULL) {
        char rule[256];
        snprintf(rule, sizeof(rule), "type='signal',member='NameOwnerChanged',arg0='%s'", owner);
        dbus_bus_add_match(conn, rule, &err);
        if (dbus_error_is_set(&err)) {
            fprintf(stderr, "sigstorm: %s\n", err.message);
            return 1;
        }
        printf("ready\n");
        fflush(stdout);
        for (int owned = 0; !owned;) {
            if (!dbus_connection_read_write(conn, -1)) return 1;
            DBusMessage *m;
            while (!owned && (m = dbus_connection_pop_message(conn)) != NULL) {
                const char *name = "", *before = "", *after = "";
                owned = dbus_message_is_signal(m, DBUS_INTERFACE_DBUS, "NameOwnerChanged") &&
                        dbus_message_get_args(m, NULL, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &before,
                                              DBUS_TYPE_STRING, &after, DBUS_TYPE_INVALID) &&
                        after[0] != '\0';
                dbus_message_unref(m);
            }
        }
    }
    double start = now();
    long sent = 0;
    for (; sent < count; ++sent) {
        DBusMessage *m = dbus_message_copy(msgs[sent % n]);
        if (m == NULL || !dbus_connection_send(conn, m, NULL)) return 1;
        dbus_message_unref(m);
        if (sent % 50 == 49) {
            dbus_connection_flush(conn);
            /* Pacing: never ahead of the requested rate. */
            double ahead = (sent + 1) / rate - (now() - start);
            if (ahead > 0) {
                struct timespec ts = {(time_t)ahead, (long)((ahead - (time_t)ahead) * 1e9)};
                nanosleep(&ts, NULL);
            }
        }
    }
    dbus_connection_flush(conn);
    int ok = dbus_connection_get_is_connected(conn);
    dbus_connection_close(conn);
    dbus_connection_unref(conn);
    printf("%ld\n", sent);
    return ok ? 0 : 1;
}
