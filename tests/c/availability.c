/* Availability callbacks and subscriptions with the current value used from
 * C, with the application's own GLib main loop, against the simulator the
 * test runner started. Prints what is wrong and exits non-zero when a check
 * failed. */
#include <glib.h>
#include <lumora/lumora-api.h>
#include <stdio.h>
#include <string.h>

#include "check.h"

typedef struct {
    int calls;
    int available;
    char reason[32];
} State;

typedef struct {
    int calls;
    char data[4096];
} Values;

static void OnAvailability(int available, const char* reason, void* userData) {
    State* state = (State*)userData;
    ++state->calls;
    state->available = available;
    g_strlcpy(state->reason, reason, sizeof state->reason);
}

static void OnValue(const char* subject, char* data, void* userData) {
    Values* values = (Values*)userData;
    (void)subject;
    ++values->calls;
    g_strlcpy(values->data, data, sizeof values->data);
}

/* Runs the default main context for ms milliseconds, or until *calls reaches
 * count when count is positive. */
static int RunUntil(const int* calls, int count, int ms) {
    gint64 deadline = g_get_monotonic_time() + (gint64)ms * 1000;
    while ((count <= 0 || *calls < count) && g_get_monotonic_time() < deadline) {
        if (!g_main_context_iteration(NULL, FALSE)) g_usleep(1000);
    }
    return count <= 0 || *calls >= count;
}

int main(void) {
    State state = {0, -1, ""};
    Values volume = {0, ""};

    CHECK(!Lumora_AddAvailabilityCallback(OnAvailability, &state)); /* before the start */
    CHECK(!Lumora_SubscribeWithValue("Ctx/Sound/Volume/Level/Current", OnValue, &volume));
    CHECK(Lumora_InitService());

    CHECK(Lumora_AddAvailabilityCallback(OnAvailability, &state));
    CHECK(!Lumora_AddAvailabilityCallback(OnAvailability, &state)); /* twice */
    CHECK(!Lumora_AddAvailabilityCallback(NULL, NULL));
    CHECK(RunUntil(&state.calls, 1, 5000));
    CHECK(state.available == 1 && strcmp(state.reason, "ready") == 0);

    CHECK(Lumora_SubscribeWithValue("Ctx/Sound/Volume/Level/Current", OnValue, &volume));
    CHECK(RunUntil(&volume.calls, 1, 5000));
    CHECK(strstr(volume.data, "\"Level\"") != NULL);
    /* A write of the subject comes back as its notification, after the value. */
    CHECK(Lumora_Write("Ctx/Sound/Volume/Level/Current", "{\"Level\":33}"));
    CHECK(RunUntil(&volume.calls, 2, 5000));
    CHECK(strcmp(volume.data, "{\"Level\":33}") == 0);
    CHECK(Lumora_Unsubscribe("Ctx/Sound/Volume/Level/Current", OnValue, &volume));

    CHECK(Lumora_RemoveAvailabilityCallback(OnAvailability, &state));
    CHECK(!Lumora_RemoveAvailabilityCallback(OnAvailability, &state)); /* not added any more */
    RunUntil(&state.calls, 0, 300);
    CHECK(state.calls == 1);
    CHECK(volume.calls == 2);
    CHECK(Lumora_FiniService());

    if (failures == 0) puts("c availability ok");
    return failures == 0 ? 0 : 1;
}
