/* Sends many bus signals quickly for load tests: one connection, a list of
 * signals sent round-robin until COUNT have gone out, paced to RATE a second.
 *
 * usage: sigstorm COUNT RATE SPECFILE
 * SPECFILE lines: MEMBER HEX   (an `ay` argument; "" for an empty array)
 *                 MEMBER -     (no argument)
 *                 MEMBER =TEXT (a string argument instead of `ay`)
 * The bus is DBUS_SYSTEM_BUS_ADDRESS.  Prints the number sent.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <dbus/dbus.h>

#define MAX_SPECS 64

struct spec {
    char member[128];
    int kind; /* 0 bytes, 1 none, 2 string */
    unsigned char *bytes;
    int len;
    char *text;
};

static int hexval(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

static double now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: sigstorm COUNT RATE SPECFILE\n");
        return 2;
    }
    long count = atol(argv[1]);
    double rate = atof(argv[2]);
    FILE *f = fopen(argv[3], "r");
    if (f == NULL || count <= 0 || rate <= 0) {
        fprintf(stderr, "sigstorm: bad arguments\n");
        return 2;
    }
    static struct spec specs[MAX_SPECS];
    int n = 0;
    static char line[16384];
    while (n < MAX_SPECS && fgets(line, sizeof(line), f) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        char *sp = strchr(line, ' ');
        if (sp == NULL) continue;
        *sp = '\0';
        char *arg = sp + 1;
        struct spec *s = &specs[n];
        snprintf(s->member, sizeof(s->member), "%.127s", line);
        if (strcmp(arg, "-") == 0) {
            s->kind = 1;
        } else if (arg[0] == '=') {
            s->kind = 2;
            s->text = strdup(arg + 1);
        } else {
            size_t hl = strlen(arg);
            if (hl % 2 != 0) { fprintf(stderr, "sigstorm: odd hex\n"); return 2; }
            s->bytes = malloc(hl / 2 + 1);
            s->len = (int)(hl / 2);
            for (size_t i = 0; i < hl; i += 2) {
                int hi = hexval(arg[i]), lo = hexval(arg[i + 1]);
                if (hi < 0 || lo < 0) { fprintf(stderr, "sigstorm: bad hex\n"); return 2; }
                s->bytes[i / 2] = (unsigned char)(hi * 16 + lo);
            }
        }
        n++;
    }
    fclose(f);
    if (n == 0) {
        fprintf(stderr, "sigstorm: no signals\n");
        return 2;
    }
    DBusError err;
    dbus_error_init(&err);
    DBusConnection *conn = dbus_bus_get_private(DBUS_BUS_SYSTEM, &err);
    if (conn == NULL) {
        fprintf(stderr, "sigstorm: %s\n", err.message);
        return 1;
    }
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    double start = now();
    long sent = 0;
    for (; sent < count; ++sent) {
        const struct spec *s = &specs[sent % n];
        DBusMessage *m = dbus_message_new_signal("/velka/sigstorm", "velka.sigstorm", s->member);
        if (m == NULL) return 1;
        if (s->kind == 0) {
            static const unsigned char none[1] = {0};
            const unsigned char *p = s->len > 0 ? s->bytes : none;
            dbus_message_append_args(m, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &p, s->len, DBUS_TYPE_INVALID);
        } else if (s->kind == 2) {
            const char *t = s->text;
            dbus_message_append_args(m, DBUS_TYPE_STRING, &t, DBUS_TYPE_INVALID);
        }
        if (!dbus_connection_send(conn, m, NULL)) return 1;
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
