/* The source of notifications for bench/NotifyBenchmark.cpp: emits the
 * service's "Response" signal, with the service's path and interface and no
 * destination, so that every connection listening for it gets each one. It
 * runs as a process of its own so that building and sending the signals is
 * never counted as the receiving process's time.
 *
 * Reads lines "COUNT SUBJECT" from standard input and emits COUNT signals
 * (0, SUBJECT, data) back to back for each; ends at the end of its input.
 * Usage: signal_emitter BUS_ADDRESS */
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The size and shape of a real change notification (a source change). */
static const char kData[] =
    "{\"Source\":\"TV\",\"SrcType\":\"RF\",\"Port\":\"ANT\",\"Label\":\"TV\",\"Connected\":true}";

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: signal_emitter BUS_ADDRESS\n");
        return 2;
    }
    GError* error = NULL;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        argv[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, NULL,
        NULL, &error);
    if (connection == NULL) {
        fprintf(stderr, "signal_emitter: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    char line[512];
    while (fgets(line, sizeof line, stdin) != NULL) {
        char subject[480];
        int count = 0;
        if (sscanf(line, "%d %479s", &count, subject) != 2 || count < 0) {
            fprintf(stderr, "signal_emitter: bad command: %s", line);
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (!g_dbus_connection_emit_signal(connection, NULL, "/org/verdin/tv/lumora2",
                                               "org.verdin.tv.lumora.interface2", "Response",
                                               g_variant_new("(iss)", 0, subject, kData), &error)) {
                fprintf(stderr, "signal_emitter: %s\n", error->message);
                g_clear_error(&error);
            }
        }
    }
    g_dbus_connection_flush_sync(connection, NULL, NULL);
    g_object_unref(connection);
    return 0;
}
