/* The plain-function interface used from C: every read and write export
 * against the simulator the test runner started. Prints what is wrong and
 * exits non-zero on the first failed check. */
#include <lumora/lumora-api.h>
#include <lumora/lumora-platform.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"

/* A read must give a value (a JSON text) that the caller frees. */
static void ExpectValue(char* value, const char* what) {
    if (value == NULL || value[0] == '\0') {
        fprintf(stderr, "no value from %s\n", what);
        ++failures;
    }
    free(value);
}

typedef char* (*ReadFn)(const char*);

int main(void) {
    static const struct {
        ReadFn fn;
        const char* name;
    } reads[] = {
        {Lumora_ReadPrefChannelList, "Lumora_ReadPrefChannelList"},
        {Lumora_ReadPrefChannelListByCurrentSource, "Lumora_ReadPrefChannelListByCurrentSource"},
        {Lumora_ReadPrefChannelListByCurrentSourceMRU, "Lumora_ReadPrefChannelListByCurrentSourceMRU"},
        {Lumora_ReadPrefChannelListWeekTimeTable, "Lumora_ReadPrefChannelListWeekTimeTable"},
        {Lumora_ReadPrefChannelListByServiceProvider, "Lumora_ReadPrefChannelListByServiceProvider"},
        {Lumora_ReadCurrentBroadcastProgram, "Lumora_ReadCurrentBroadcastProgram"},
        {Lumora_ReadCurrentBroadcastStatus, "Lumora_ReadCurrentBroadcastStatus"},
        {Lumora_ReadSTBStatus, "Lumora_ReadSTBStatus"},
        {Lumora_ReadCurrentSourceInfo, "Lumora_ReadCurrentSourceInfo"},
        {Lumora_ReadCurrentAppInfo, "Lumora_ReadCurrentAppInfo"},
        {Lumora_ReadCurrentVolumeLevel, "Lumora_ReadCurrentVolumeLevel"},
        {Lumora_ReadCurrentSoundOutputStatus, "Lumora_ReadCurrentSoundOutputStatus"},
        {Lumora_ReadCurrentSoundOutputMode, "Lumora_ReadCurrentSoundOutputMode"},
        {Lumora_ReadCurrentSourceStatus, "Lumora_ReadCurrentSourceStatus"},
        {Lumora_ReadCurrentStreamingStatus, "Lumora_ReadCurrentStreamingStatus"},
    };
    LMF_SRC_TYPE source = LMF_SRC_RF;
    LMF_MODEL_TYPE model = LMF_MODEL_0;
    char* text = NULL;
    size_t i;

    CHECK(Is_LMFSupported());
    CHECK(Lumora_InitService());
    CHECK(CS_InitService());

    /* Reads, in the order the runner expects them on the bus. */
    ExpectValue(Lumora_Read("Ctx/Media/Source/Info/Current", NULL), "Lumora_Read");
    ExpectValue(CS_Lumora_Read("Ctx/App/Info/Current", "{}"), "CS_Lumora_Read");
    for (i = 0; i < sizeof reads / sizeof reads[0]; ++i) ExpectValue(reads[i].fn(NULL), reads[i].name);
    ExpectValue(Lumora_ReadCurrentBrightnessLevel(NULL), "Lumora_ReadCurrentBrightnessLevel(NULL)");
    ExpectValue(Lumora_ReadCurrentBrightnessLevel("NeStOrY"), "Lumora_ReadCurrentBrightnessLevel(NeStOrY)");
    CHECK(Lumora_ReadCurrentBrightnessLevel("someone") == NULL);
    CHECK(Lumora_Read("Ctx/No/Such/Subject", NULL) == NULL);
    ExpectValue(Lumora_ReadRecommendedList("{\"group\":\"HomeAppReordering\"}"), "Lumora_ReadRecommendedList");
    ExpectValue(CS_Lumora_ReadRecommendedList("{\"group\":\"AccessibilityShortCut\"}"),
                "CS_Lumora_ReadRecommendedList");
    text = Lumora_ReadRecommendedList("{}");
    CHECK(text != NULL && strcmp(text, "{error}") == 0);
    free(text);

    /* Writes, in order. */
    CHECK(Lumora_Write("Ctx/Test/FromC", "{\"c\":1}"));
    CHECK(Lumora_WriteRawStreamingEvent("{\"event\":\"play\"}"));
    CHECK(Lumora_WriteSelectedItem("{\"item\":\"Picture\"}"));
    CHECK(CS_Lumora_Write("Ctx/Test/FromC/CS", "{\"c\":2}"));
    CHECK(!CS_Lumora_Write("Ctx/Test/FromC/CS", NULL));

    /* The settings store. */
    CHECK(settings_set_str("db/lumora-service/setting_hintlist", "[\"Picture\"]") == 0);
    text = Lumora_ReadHintList("c-app", "setting");
    CHECK(text != NULL && strcmp(text, "[\"Picture\"]") == 0);
    free(text);
    text = CS_Lumora_ReadHintList("c-app", "Setting");
    CHECK(text == NULL);
    free(text);
    CHECK(Lumora_STAction("app://guide", "{\"x\":1}"));
    text = settings_get_str("memory/lumora-agent/STAction");
    CHECK(text != NULL && strcmp(text, "{\"data\":\"{\\\"x\\\":1}\",\"uri\":\"app://guide\"}") == 0);
    free(text);
    CHECK(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[\"a\"]}"));
    CHECK(CS_WriteItemList("{\"group\":\"Inputs\",\"list\":[\"b\"]}"));
    text = settings_get_str("db/lumora-service/itemlist");
    CHECK(text != NULL && strcmp(text,
                                 "{\"HomeApps\":{\"group\":\"HomeApps\",\"list\":[\"a\"]},"
                                 "\"Inputs\":{\"group\":\"Inputs\",\"list\":[\"b\"]}}") == 0);
    free(text);

    /* Source and model. */
    CHECK(CS_GetSourceAndModel(&source, &model));
    CHECK(source == LMF_SRC_ALL && model == LMF_MODEL_DEFAULT);
    CHECK(CS_SetSourceAndModel(LMF_SRC_STB, LMF_MODEL_1));
    CHECK(CS_GetSourceAndModel(&source, &model));
    CHECK(source == LMF_SRC_STB && model == LMF_MODEL_1);

    /* The retired video-status functions. */
    CHECK(Lumora_ReadCurrentVideoStatus() == NULL);
    CHECK(!Lumora_RequestCurrentVideoStatus());
    CHECK(!Lumora_SubscribeVideoStatus());
    CHECK(!Lumora_UnsubscribeVideoStatus());

    CHECK(Lumora_FiniService());
    CHECK(CS_FiniService());
    CHECK(Lumora_FiniService()); /* one stop too many finalises again */
    CHECK(Lumora_InitServiceWithResponse(NULL, NULL) == LMF_INIT_OK);
    CHECK(Lumora_FiniService());

    if (failures == 0) puts("c exports ok");
    return failures == 0 ? 0 : 1;
}
