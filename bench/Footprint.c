/* One client of the service, started afresh, for soak_benchmark --footprint:
 * it connects, subscribes to one subject and reports its resident memory and
 * threads, then waits for one notification of that subject and reports them
 * again. Built twice from this file: as an application of the library
 * (LINK_LUMORA: Lumora_InitService and Lumora_Subscribe) and as the bare GDBus
 * client that does the same on the bus (a private connection, the "Response"
 * signal subscribed with the library's match, "ServiceEnable", one
 * "RequestSync" of type 3). Both are C programs, so that everything the
 * library brings (the C++ runtime, jsoncpp, SQLite, its own objects) is
 * counted on its side only.
 *
 * Each report, on standard output:
 *   point NAME
 *   status FIELD KB           VmRSS, RssAnon, RssFile, VmHWM (kB), Threads
 *   thread NAME               one line per thread (its comm; "main" for the
 *                             main thread)
 *   map RSS PRIVATE_DIRTY PERMS NAME   kB per mapped file (or kind of
 *                             mapping) and permissions
 *   end
 * Usage: footprint_lumora|footprint_gdbus [SUBJECT] */
#include <dirent.h>
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifdef LINK_LUMORA
#include <lumora/lumora-api.h>
#endif

#define BUS_NAME "org.verdin.tv.lumora2"
#define OBJECT_PATH "/org/verdin/tv/lumora2"
#define INTERFACE "org.verdin.tv.lumora.interface2"

static int g_notified = 0;

/* ---- the report ---------------------------------------------------------- */

static void ReportStatus(void) {
    static const char* const kFields[] = {"VmRSS:", "RssAnon:", "RssFile:", "VmHWM:", "Threads:"};
    FILE* status = fopen("/proc/self/status", "r");
    char line[256];
    while (status != NULL && fgets(line, sizeof line, status) != NULL) {
        for (size_t i = 0; i < sizeof kFields / sizeof kFields[0]; ++i) {
            size_t length = strlen(kFields[i]);
            if (strncmp(line, kFields[i], length) == 0)
                printf("status %.*s %ld\n", (int)(length - 1), line, strtol(line + length, NULL, 10));
        }
    }
    if (status != NULL) fclose(status);
}

static void ReportThreads(void) {
    DIR* tasks = opendir("/proc/self/task");
    struct dirent* task;
    while (tasks != NULL && (task = readdir(tasks)) != NULL) {
        if (task->d_name[0] == '.') continue;
        char path[300];
        char name[64] = "?";
        snprintf(path, sizeof path, "/proc/self/task/%s/comm", task->d_name);
        FILE* comm = fopen(path, "r");
        if (comm != NULL) {
            if (fgets(name, sizeof name, comm) != NULL) name[strcspn(name, "\n")] = '\0';
            fclose(comm);
        }
        /* The main thread goes by the program's name, which differs between
         * the two builds. */
        if (strtol(task->d_name, NULL, 10) == (long)getpid()) snprintf(name, sizeof name, "main");
        printf("thread %s\n", name);
    }
    if (tasks != NULL) closedir(tasks);
}

/* Resident and private dirty kB of every mapping, summed per file (or per
 * kind: [heap], [stack], [anon] for the nameless ones such as thread stacks
 * and malloc arenas) and permissions: a library's code (r-xp), read-only
 * parts (r--p: symbol tables, constants, relocated data made read-only) and
 * written data (rw-p) apart. */
typedef struct {
    char name[256];
    char perms[8];
    long rss;
    long privateDirty;
} MapSum;

static void ReportMaps(void) {
    enum { kMaxNames = 256 };
    static MapSum sums[kMaxNames];
    size_t count = 0;
    MapSum* current = NULL;
    FILE* smaps = fopen("/proc/self/smaps", "r");
    char line[1024];
    while (smaps != NULL && fgets(line, sizeof line, smaps) != NULL) {
        long kb = 0;
        char field[64];
        if (sscanf(line, "%63[A-Za-z_]: %ld kB", field, &kb) == 2) {
            if (current == NULL) continue;
            if (strcmp(field, "Rss") == 0) current->rss += kb;
            if (strcmp(field, "Private_Dirty") == 0) current->privateDirty += kb;
            continue;
        }
        /* A mapping's header: range perms offset dev inode [name]. Its range
         * begins with a lower-case hex digit; every field's name with a
         * capital. */
        if (!g_ascii_isxdigit(line[0]) || g_ascii_isupper(line[0])) continue;
        int nameAt = 0;
        char perms[8] = "";
        if (sscanf(line, "%*s %7s %*s %*s %*s %n", perms, &nameAt) < 1 || nameAt == 0) continue;
        char* name = line + nameAt;
        name[strcspn(name, "\n")] = '\0';
        if (*name == '\0') name = "[anon]";
        current = NULL;
        for (size_t i = 0; i < count && current == NULL; ++i)
            if (strcmp(sums[i].name, name) == 0 && strcmp(sums[i].perms, perms) == 0) current = &sums[i];
        if (current == NULL && count < kMaxNames) {
            current = &sums[count++];
            snprintf(current->name, sizeof current->name, "%s", name);
            snprintf(current->perms, sizeof current->perms, "%s", perms);
            current->rss = current->privateDirty = 0;
        }
    }
    if (smaps != NULL) fclose(smaps);
    for (size_t i = 0; i < count; ++i)
        printf("map %ld %ld %s %s\n", sums[i].rss, sums[i].privateDirty, sums[i].perms, sums[i].name);
}

static void Report(const char* point) {
    printf("point %s\n", point);
    ReportStatus();
    ReportThreads();
    ReportMaps();
    printf("end\n");
    fflush(stdout);
}

/* ---- the two clients ------------------------------------------------------- */

static gboolean OnTimeout(gpointer expired) {
    *(int*)expired = 1;
    return G_SOURCE_REMOVE;
}

/* Runs the default main context until the notification came; 0 after 10 s. */
static int WaitForNotification(void) {
    int expired = 0;
    guint timer = g_timeout_add(10000, OnTimeout, &expired);
    while (!g_notified && !expired) g_main_context_iteration(NULL, TRUE);
    if (!expired) g_source_remove(timer);
    return g_notified;
}

/* What an application does with the data: looks at it. */
static volatile size_t g_seen = 0;

#ifdef LINK_LUMORA

static void OnChange(const char* subject, char* data, void* userData) {
    (void)subject;
    (void)userData;
    g_seen += strlen(data);
    g_notified = 1;
}

static int Start(const char* subject) {
    if (!Lumora_InitService()) return 0;
    return Lumora_Subscribe(subject, OnChange, NULL);
}

static void Stop(const char* subject) {
    Lumora_Unsubscribe(subject, OnChange, NULL);
    Lumora_FiniService();
}

#else

static GDBusConnection* g_connection = NULL;
static const char* g_subject = NULL;

static void OnSignal(GDBusConnection* connection, const gchar* sender, const gchar* path, const gchar* interface,
                     const gchar* signal, GVariant* parameters, gpointer userData) {
    (void)connection;
    (void)sender;
    (void)path;
    (void)interface;
    (void)signal;
    (void)userData;
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iss)"))) return;
    gint32 unused = 0;
    const gchar* subject = NULL;
    const gchar* data = NULL;
    g_variant_get(parameters, "(i&s&s)", &unused, &subject, &data);
    if (strcmp(subject, g_subject) != 0) return;
    g_seen += strlen(data);
    g_notified = 1;
}

static GVariant* Call(const char* method, GVariant* parameters, const char* replyType, int timeoutMs) {
    GError* error = NULL;
    GVariant* reply =
        g_dbus_connection_call_sync(g_connection, BUS_NAME, OBJECT_PATH, INTERFACE, method, parameters,
                                    G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, timeoutMs, NULL, &error);
    if (reply == NULL) {
        fprintf(stderr, "footprint: %s: %s\n", method, error->message);
        g_error_free(error);
    }
    return reply;
}

static int Start(const char* subject) {
    g_subject = subject;
    GError* error = NULL;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    if (address != NULL)
        g_connection = g_dbus_connection_new_for_address_sync(
            address, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
            NULL, NULL, &error);
    g_free(address);
    if (g_connection == NULL) {
        fprintf(stderr, "footprint: %s\n", error->message);
        g_error_free(error);
        return 0;
    }
    g_dbus_connection_signal_subscribe(g_connection, NULL, INTERFACE, "Response", OBJECT_PATH, NULL,
                                       G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, NULL, NULL);
    GVariant* enabled = Call("ServiceEnable", NULL, "(bs)", 300);
    if (enabled == NULL) return 0;
    gboolean on = FALSE;
    g_variant_get(enabled, "(b&s)", &on, NULL);
    g_variant_unref(enabled);
    GVariant* subscribed =
        Call("RequestSync", g_variant_new("(iiiss)", (gint32)getpid(), 3, 1, subject, "{}"), "(is)", 1000);
    if (subscribed == NULL) return 0;
    gint32 code = -1;
    g_variant_get(subscribed, "(i&s)", &code, NULL);
    g_variant_unref(subscribed);
    return on && code == 0;
}

static void Stop(const char* subject) {
    GVariant* reply =
        Call("RequestSync", g_variant_new("(iiiss)", (gint32)getpid(), 4, 2, subject, "{}"), "(is)", 1000);
    if (reply != NULL) g_variant_unref(reply);
    g_object_unref(g_connection);
}

#endif

int main(int argc, char** argv) {
    const char* subject = argc > 1 ? argv[1] : "Ctx/Media/Source/Changed";
    if (!Start(subject)) {
        fprintf(stderr, "footprint: cannot start and subscribe to %s\n", subject);
        return 1;
    }
    /* Whatever the start left for the main loop runs before the figures. */
    while (g_main_context_iteration(NULL, FALSE)) {
    }
    Report("subscribed");
    if (!WaitForNotification()) {
        fprintf(stderr, "footprint: no notification of %s\n", subject);
        return 1;
    }
    Report("notified");
    Stop(subject);
    return 0;
}
