/* tv-watcher: prints what the television is doing as it changes.
 *
 * The recommended pattern: an availability callback says whether the service
 * can be used; the programme is subscribed with its current value, so that
 * no change is lost, not even one made while the service was restarting;
 * source changes are a plain subscription. Prints until Ctrl-C. Build it
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

/* The programme: its current value first, then every change, each once and
 * in order, and the value again when it changed while the service was away
 * (a restart of the service, or of the bus). */
static void OnProgram(const char* subject, char* data, void* userData) {
    int* told = (int*)userData;
    (void)subject;
    printf("programme %s: %s\n", *told ? "changed" : "now", data);
    fflush(stdout);
    *told = 1;
}

/* Whether the service can be used: a real application greys out its guide
 * while it cannot, instead of polling. Called once per change, on the main
 * loop's thread, with no library lock held. */
static void OnAvailability(int available, const char* reason, void* userData) {
    (void)userData;
    if (available)
        printf("service available (%s)\n", reason);
    else
        printf("service unavailable (%s): showing the guide greyed out\n", reason);
    fflush(stdout);
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
    /* The library retries by itself: whether the service is there now, and
     * whenever that changes, OnAvailability says. */
    if (Lumora_InitServiceWithResponse(NULL, NULL) == LMF_INIT_CONNECTION_FAILED)
        fprintf(stderr, "tv-watcher: no system bus yet; retrying every 2 s\n");

    /* Subscriptions made now reach the service when it is there, and are
     * registered again by the library whenever the service restarts. */
    static int programTold = 0;
    if (!Lumora_AddAvailabilityCallback(OnAvailability, NULL) || !Lumora_SubscribeSourceInfo(OnSourceChanged, NULL) ||
        !Lumora_SubscribeWithValue("Ctx/Media/Broadcast/Program/Changed", OnProgram, &programTold)) {
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
    Lumora_Unsubscribe("Ctx/Media/Broadcast/Program/Changed", OnProgram, &programTold);
    Lumora_RemoveAvailabilityCallback(OnAvailability, NULL);
    Lumora_FiniService();
    g_source_remove(interrupt);
    g_source_remove(terminate);
    g_main_loop_unref(loop);
    printf("tv-watcher: stopped\n");
    return 0;
}
