/* N reads of one subject, made either through the library (Lumora_Read...) or
 * as the same raw GDBus "RequestSync", for counting instructions with
 * callgrind: the difference between two counts of N is repeatable, whatever
 * else the machine does. Usage: read_instructions lib|raw N */
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char* kSubject = "Ctx/Media/Source/Info/Current";

static int LibraryReads(int n) {
    if (!Lumora_InitService()) return 1;
    for (int i = 0; i < n; ++i) {
        char* value = Lumora_ReadCurrentSourceInfo(NULL);
        if (value == NULL) return 2;
        free(value);
    }
    Lumora_FiniService();
    return 0;
}

static int RawReads(int n) {
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, NULL);
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, NULL,
        NULL, NULL);
    g_free(address);
    if (connection == NULL) return 1;
    for (int i = 0; i < n; ++i) {
        GVariant* reply = g_dbus_connection_call_sync(
            connection, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2",
            "RequestSync", g_variant_new("(iiiss)", (gint32)getpid(), 1, i + 1, kSubject, ""), NULL,
            G_DBUS_CALL_FLAGS_NONE, 1000, NULL, NULL);
        if (reply == NULL) return 2;
        gint32 code = 0;
        const gchar* text = NULL;
        g_variant_get(reply, "(i&s)", &code, &text);
        free(strdup(text));
        g_variant_unref(reply);
    }
    g_object_unref(connection);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: read_instructions lib|raw N\n");
        return 2;
    }
    int n = atoi(argv[2]);
    return strcmp(argv[1], "lib") == 0 ? LibraryReads(n) : RawReads(n);
}
