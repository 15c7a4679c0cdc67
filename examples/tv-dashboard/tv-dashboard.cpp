// tv-dashboard: follows the picture source and the volume of the television
// through the object interface LumoraAPI.
//
// Each subject has two callbacks: one prints the change, one keeps a tally in
// its own user data. The library holds one subscription per subject and hands
// every change to both callbacks, in the order they subscribed. The current
// source is read once, as soon as the context service is available. Runs until
// Ctrl-C (SIGINT) or SIGTERM.
#include <glib-unix.h>
#include <glib.h>
#include <lumora/lumora-api.h>

#include <cstdio>
#include <string>

namespace {

constexpr const char* kSourceChanged = "Ctx/Media/Source/Changed";
constexpr const char* kVolumeChanged = "Ctx/Sound/Volume/Level/Changed";
constexpr const char* kSourceNow = "Ctx/Media/Source/Info/Current";

// The user data of a tally callback.
struct Tally {
    const char* what;
    int changes;
};

// Callbacks run on the thread that runs the GLib main loop (here, main's),
// with no library lock held. data is only valid during the call.
void PrintChange(const char* subject, char* data, void* userData) {
    printf("%s changed: %s   (%s)\n", static_cast<const char*>(userData), data, subject);
}

void CountChange(const char* /*subject*/, char* /*data*/, void* userData) {
    Tally* tally = static_cast<Tally*>(userData);
    ++tally->changes;
    printf("%s: %d change(s) so far\n", tally->what, tally->changes);
}

// Reads the current source once the service can answer; until then the timer
// keeps running.
gboolean ReadSourceWhenAvailable(gpointer /*data*/) {
    ILumoraAPI* api = LumoraAPI::GetInstance();
    if (!api->IsAvailable()) {
        printf("waiting for the context service...\n");
        return G_SOURCE_CONTINUE;
    }
    std::string source;
    if (api->Read(kSourceNow, "", source)) {
        printf("source now: %s\n", source.c_str());
    } else {
        printf("source now: unknown (the read failed; see the LMF_API log)\n");
    }
    return G_SOURCE_REMOVE;
}

gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // one line at a time, also into a pipe

    ILumoraAPI* api = LumoraAPI::GetInstance();
    if (api == nullptr || !api->InitializeService()) {
        fprintf(stderr, "tv-dashboard: cannot start the context service client\n");
        return 1;
    }

    static char source[] = "source";
    static char volume[] = "volume";
    Tally sourceTally{"source tally", 0};
    Tally volumeTally{"volume tally", 0};
    struct {
        const char* subject;
        LumoraSubjectCb callback;
        void* userData;
    } subscriptions[] = {
        {kSourceChanged, PrintChange, source},
        {kSourceChanged, CountChange, &sourceTally},
        {kVolumeChanged, PrintChange, volume},
        {kVolumeChanged, CountChange, &volumeTally},
    };
    for (const auto& s : subscriptions) {
        if (!api->Subscribe(s.subject, s.callback, s.userData))
            fprintf(stderr, "tv-dashboard: cannot subscribe to %s\n", s.subject);
    }

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    if (ReadSourceWhenAvailable(nullptr) == G_SOURCE_CONTINUE) g_timeout_add(500, ReadSourceWhenAvailable, nullptr);
    g_unix_signal_add(SIGINT, Quit, loop);
    g_unix_signal_add(SIGTERM, Quit, loop);
    printf("tv-dashboard: running; Ctrl-C stops\n");
    g_main_loop_run(loop);
    g_main_loop_unref(loop);

    // Removing the last callback of a subject answers false and leaves the
    // subject's bus subscription in place until the client is finalised:
    // that is expected, not an error.
    for (const auto& s : subscriptions) api->UnSubscribe(s.subject, s.callback, s.userData);
    api->FinalizeService();
    LumoraAPI::DeleteInstance();
    printf("tv-dashboard: stopped after %d source and %d volume change(s)\n", sourceTally.changes, volumeTally.changes);
    return 0;
}
