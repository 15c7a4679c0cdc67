/* The channel services, the channel callback and the first-screen action
 * used from C, with the application's own GLib main loop, against the
 * simulator the test runner started. Prints what is wrong and exits non-zero
 * when a check failed. */
#include <glib.h>
#include <lumora/lumora-api.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"

typedef struct {
    int calls;
    int event;
    int count;
    char data[4096];
} Events;

static void OnChannelEvent(LMF_EVENT_TYPE event, char* data, int count, void* userData) {
    Events* events = (Events*)userData;
    ++events->calls;
    events->event = (int)event;
    events->count = count;
    g_strlcpy(events->data, data, sizeof events->data);
    free(data); /* the application's copy */
}

/* Runs the default main context until events has count calls or 5 s pass. */
static int WaitFor(const Events* events, int count) {
    gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (events->calls < count && g_get_monotonic_time() < deadline) {
        if (!g_main_context_iteration(NULL, FALSE)) g_usleep(1000);
    }
    return events->calls >= count;
}

int main(void) {
    Events events = {0, -1, -1, ""};
    int count = -1;
    char* text = NULL;

    CHECK(CS_InitService());

    CHECK(CS_SetSourceAndModel(LMF_SRC_RF, LMF_MODEL_DEFAULT));
    text = CS_GetChannelList(&count);
    CHECK(text != NULL && strstr(text, "\"Status\":\"Success\"") != NULL);
    CHECK(count == 4);
    free(text);
    CHECK(CS_SetSourceAndModel(LMF_SRC_ALL, LMF_MODEL_DEFAULT));

    text = CS_ReorderChannelList("[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":1}]", 0);
    CHECK(text != NULL && strcmp(text, "[{\"major\":7,\"minor\":1},{\"major\":9,\"minor\":1}]") == 0);
    free(text);
    CHECK(CS_ReorderChannelList("[]", 0) == NULL);

    text = CS_GetCurrentChannelInfo();
    CHECK(text != NULL && strstr(text, "ProgramTitle") != NULL);
    free(text);

    CHECK(CS_RemoveChannelFromList(11, 1, LMF_SRC_EXT_AIR));
    CHECK(CS_RemoveChannelFromListWithServiceID(202, 0, "stb-202", LMF_SRC_EXT_HDMI1));
    CHECK(CS_SetFirstscreenAction("home", "{\"tile\":3}"));
    CHECK(!CS_SetFirstscreenAction("", "{\"tile\":3}"));

    /* A write of the set-top-box subject comes back as its event. */
    CHECK(CS_RegisterChannelCallback(OnChannelEvent, &events));
    CHECK(Lumora_Write("Ctx/Media/Broadcast/Status/STB", "{\"Connected\":false}"));
    CHECK(WaitFor(&events, 1));
    CHECK(events.event == LMF_EVENT_STB_STATUS && events.count == 1);
    CHECK(strcmp(events.data, "{\"Connected\":false}") == 0);
    CHECK(CS_UnRegisterChannelCallback());

    CHECK(CS_FiniService());

    if (failures == 0) puts("c channels ok");
    return failures == 0 ? 0 : 1;
}
