/* The least a program can do to read a subject: connect to the system bus,
 * make the one "RequestSync" call, print the text. The baseline for a
 * one-shot `lumora read`. With --service-enable first it asks "ServiceEnable"
 * before reading, as every client of the service must when it starts: the
 * least a client of this protocol can do. */
#include <gio/gio.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static GVariant* Call(GDBusConnection* connection, const char* method, GVariant* parameters, GError** error) {
    return g_dbus_connection_call_sync(connection, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2",
                                       "org.verdin.tv.lumora.interface2", method, parameters, NULL,
                                       G_DBUS_CALL_FLAGS_NONE, 1000, NULL, error);
}

static int Fail(const GError* error) {
    fprintf(stderr, "minimal-read: %s\n", error->message);
    return 1;
}

int main(int argc, char** argv) {
    gboolean enableFirst = argc > 1 && strcmp(argv[1], "--service-enable") == 0;
    if (enableFirst) {
        --argc;
        ++argv;
    }
    const char* subject = argc > 1 ? argv[1] : "Ctx/Media/Source/Info/Current";
    GError* error = NULL;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    GDBusConnection* connection =
        address == NULL ? NULL
                        : g_dbus_connection_new_for_address_sync(
                              address,
                              G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                              NULL, NULL, &error);
    g_free(address);
    if (connection == NULL) {
        return Fail(error);
    }
    if (enableFirst) {
        GVariant* enabled = Call(connection, "ServiceEnable", NULL, &error);
        if (enabled == NULL) {
            return Fail(error);
        }
        g_variant_unref(enabled);
    }
    GVariant* reply = Call(connection, "RequestSync", g_variant_new("(iiiss)", (gint32)getpid(), 1, 1, subject, ""), &error);
    if (reply == NULL) {
        return Fail(error);
    }
    gint32 code = 0;
    const gchar* text = NULL;
    g_variant_get(reply, "(i&s)", &code, &text);
    printf("%s\n", text);
    g_variant_unref(reply);
    g_object_unref(connection);
    return code == 0 ? 0 : 1;
}
