/* tv-watcher: prints what the television is doing as it changes.
 *
 * Subscribes to source changes and programme changes, asks once for the
 * current programme, and prints every notification until Ctrl-C. Build it
 * against an installed liblumora-api with the Makefile beside it:
 *
 *     make && ./tv-watcher
 *
 * The library delivers replies and notifications on the default GLib main
 * context, so the program runs a GLib main loop. */
#include <glib-unix.h>
#include <glib.h>
#include <lumora/lumora-api.h>
#include <signal.h>
#include <stdio.h>

/* Notifications: called on the main loop's thread, with no library lock
 * held. data belongs to the library and is valid only during the call. */
static void OnSourceChanged(const char* subject, char* data, void* userData) {
    (void)subject;
    (void)userData;
    printf("source changed: %s\n", data);
    fflush(stdout);
}

static void OnProgramChanged(const char* subject, char* data, void* userData) {
    (void)subject;
    (void)userData;
    printf("programme changed: %s\n", data);
    fflush(stdout);
}

/* The answer to the request: called once. It runs with the library's lock
 * held, so it only prints; calling the library from here would be refused. */
static void OnCurrentProgram(const char* subject, char* data, void* userData) {
    (void)subject;
    (void)userData;
    printf("programme now: %s\n", data);
    fflush(stdout);
}

/* Called once, from the main loop, when the service is ready. */
static void OnServiceReady(char* data, void* userData) {
    (void)data;
    (void)userData;
    if (!Lumora_RequestCurrentBroadcastProgram(NULL, OnCurrentProgram, NULL))
        fprintf(stderr, "tv-watcher: the request for the current programme was refused (see the log)\n");
}

static gboolean OnStopSignal(gpointer loop) {
    g_main_loop_quit((GMainLoop*)loop);
    return G_SOURCE_CONTINUE;
}

int main(void) {
    if (!Is_LMFSupported()) {
        fprintf(stderr, "tv-watcher: the context service is disabled on this device\n");
        return 1;
    }
    /* The result says whether the service is ready now; either way
     * OnServiceReady runs once it is. */
    if (Lumora_InitServiceWithResponse(OnServiceReady, NULL) == LMF_INIT_CONNECTION_FAILED)
        fprintf(stderr, "tv-watcher: no system bus yet; retrying every 2 s\n");

    /* Subscriptions made now reach the service when it is there, and are
     * registered again by the library whenever the service restarts. */
    if (!Lumora_SubscribeSourceInfo(OnSourceChanged, NULL) ||
        !Lumora_SubscribeBroadcastProgram(OnProgramChanged, NULL)) {
        fprintf(stderr, "tv-watcher: cannot subscribe (see the log)\n");
        Lumora_FiniService();
        return 1;
    }
    printf("tv-watcher: watching source and programme changes; Ctrl-C to stop\n");
    fflush(stdout);

    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    guint interrupt = g_unix_signal_add(SIGINT, OnStopSignal, loop);
    guint terminate = g_unix_signal_add(SIGTERM, OnStopSignal, loop);
    g_main_loop_run(loop);

    Lumora_UnsubscribeSourceInfo(OnSourceChanged, NULL);
    Lumora_UnsubscribeBroadcastProgram(OnProgramChanged, NULL);
    Lumora_FiniService();
    g_source_remove(interrupt);
    g_source_remove(terminate);
    g_main_loop_unref(loop);
    printf("tv-watcher: stopped\n");
    return 0;
}
