/* Requests and subscriptions used from C, with the application's own GLib
 * main loop, against the simulator the test runner started. Prints what is
 * wrong and exits non-zero when a check failed. */
#include <glib.h>
#include <lumora/lumora-api.h>
#include <stdio.h>
#include <string.h>

#include "check.h"

typedef struct {
    int calls;
    char subject[128];
    char data[4096];
} Heard;

static void OnHeard(const char* subject, char* data, void* userData) {
    Heard* heard = (Heard*)userData;
    ++heard->calls;
    g_strlcpy(heard->subject, subject, sizeof heard->subject);
    g_strlcpy(heard->data, data, sizeof heard->data);
}

/* Runs the default main context until heard has count calls or 5 s pass. */
static int WaitFor(const Heard* heard, int count) {
    gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (heard->calls < count && g_get_monotonic_time() < deadline) {
        if (!g_main_context_iteration(NULL, FALSE)) g_usleep(1000);
    }
    return heard->calls >= count;
}

int main(void) {
    Heard request = {0, "", ""};
    Heard fixed = {0, "", ""};
    Heard changed = {0, "", ""};
    Heard mode = {0, "", ""};

    CHECK(Lumora_InitService());

    CHECK(Lumora_Request("Ctx/App/Info/Current", NULL, OnHeard, &request));
    CHECK(WaitFor(&request, 1));
    CHECK(strcmp(request.subject, "Ctx/App/Info/Current") == 0);
    CHECK(strstr(request.data, "AppId") != NULL);
    CHECK(CS_Lumora_Request("Ctx/Media/Source/Info/Current", "{}", OnHeard, &request));
    CHECK(Lumora_RequestCurrentBroadcastProgram(NULL, OnHeard, &fixed));
    CHECK(WaitFor(&request, 2) && WaitFor(&fixed, 1));
    CHECK(strcmp(fixed.subject, "Ctx/Media/Broadcast/Program/Current") == 0);

    /* A write of a subscribed subject comes back as its notification. */
    CHECK(Lumora_Subscribe("Ctx/Test/FromC/Changed", OnHeard, &changed));
    CHECK(CS_Lumora_Subscribe("Ctx/Test/FromC/Changed", OnHeard, &fixed) == false); /* one callback per subject */
    CHECK(Lumora_Write("Ctx/Test/FromC/Changed", "{\"c\":3}"));
    CHECK(WaitFor(&changed, 1));
    CHECK(strcmp(changed.data, "{\"c\":3}") == 0);
    CHECK(Lumora_Unsubscribe("Ctx/Test/FromC/Changed", OnHeard, &changed));

    CHECK(Lumora_SubscribeSourndOutputMode(OnHeard, &mode));
    CHECK(Lumora_Write("Ctx/Sound/Output/Mode/Changed", "{\"Mode\":\"Movie\"}"));
    CHECK(WaitFor(&mode, 1));
    CHECK(strcmp(mode.subject, "Ctx/Sound/Output/Mode/Changed") == 0);
    CHECK(Lumora_UnsubscribeSourndOutputMode(OnHeard, &mode));

    CHECK(Lumora_SubscribeBrightnessLevelEx(OnHeard, "nestory", &mode));
    CHECK(!Lumora_SubscribeBrightnessLevelEx(OnHeard, "someone", &mode));
    CHECK(Lumora_UnsubscribeBrightnessLevelEx(OnHeard, "NESTORY", &mode));

    CHECK(Lumora_FiniService());

    if (failures == 0) puts("c events ok");
    return failures == 0 ? 0 : 1;
}
