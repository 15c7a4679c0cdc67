/* The plain-function interface of liblumora-api: enumerations, records,
 * callback types and the exported C functions. Usable from C and C++.
 *
 * Ownership: every char* returned by a function here is allocated with malloc
 * (strdup) and released by the caller with free. Callbacks run on the thread
 * that iterates the default GLib main context; the application must run a
 * GLib main loop for them to fire. */
#ifndef LUMORA_C_H
#define LUMORA_C_H

#include <lumora/lumora-export.h>

#include <stdint.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

LUMORA_EXTERN_C_BEGIN

/* Outcome of starting the service connection. */
typedef enum {
    LMF_INIT_OK = 0,                /* connected, the service is enabled */
    LMF_INIT_CONNECTION_FAILED = 1, /* no bus connection; retried every 2 s */
    LMF_INIT_SERVICE_NOT_READY = 2  /* connected, the service is not ready yet */
} LMF_INIT_RESULT;

/* Which channel-list entries an application sees (by their "SrcType"). */
typedef enum {
    LMF_SRC_RF = 0,  /* "RF" entries only */
    LMF_SRC_STB = 1, /* "STB" entries only */
    LMF_SRC_ALL = 2  /* every entry (the default) */
} LMF_SRC_TYPE;

/* The device model declared with the source type; its meaning is the
 * service's. 2 is the default. */
typedef enum {
    LMF_MODEL_0 = 0,
    LMF_MODEL_1 = 1,
    LMF_MODEL_DEFAULT = 2
} LMF_MODEL_TYPE;

/* A channel's source, as the channel-removal requests name it. */
typedef enum {
    LMF_SRC_EXT_AIR = 0,
    LMF_SRC_EXT_CABLE = 1,
    LMF_SRC_EXT_SATELLITE = 2,
    LMF_SRC_EXT_HDMI1 = 3,
    LMF_SRC_EXT_HDMI2 = 4,
    LMF_SRC_EXT_HDMI3 = 5,
    LMF_SRC_EXT_HDMI4 = 6,
    LMF_SRC_EXT_HDMI5 = 7,
    LMF_SRC_EXT_HDMI6 = 8
} LMF_SRC_EXT_TYPE;

/* Events delivered to the channel callback. */
typedef enum {
    LMF_EVENT_CHANNEL_LIST = 0,    /* the channel list changed */
    LMF_EVENT_RESERVED = 1,        /* not produced */
    LMF_EVENT_PROGRAM_CHANGED = 2, /* the broadcast programme changed */
    LMF_EVENT_STB_STATUS = 3       /* the set-top-box status changed */
} LMF_EVENT_TYPE;

/* One channel of a reorder request or answer. */
typedef struct {
    int32_t major;
    int32_t minor;
} LMF_CHANNEL_ELEM;

/* Typed context signals. */
typedef enum {
    CONTEXT_SIGNAL_MOST_WATCHED = 0,      /* "Pref/Channel/List" */
    CONTEXT_SIGNAL_BROADCAST_PROGRAM = 1, /* "Ctx/Media/Broadcast/Program/Current" */
    CONTEXT_SIGNAL_STB_STATUS = 2         /* "Ctx/Media/Broadcast/Status/STB" */
} ContextSignalType;

/* What the callback of a request for one of the five usage-statistics
 * subjects receives, through its data pointer: cast data to
 * (StatisticsResult*). items points to count records of the subject's record
 * type below, or is NULL (always test it: a failed allocation leaves count set
 * and items NULL). The records and their strings are freed as soon as the
 * callback returns; copy what you keep. */
typedef struct {
    int32_t count;
    void* items;
} StatisticsResult;

/* The records, one per statistics subject. Each fieldN is filled from the
 * reply tuple's element named in its comment (counted from 1); unsigned
 * 32-bit wire values are stored as signed 32-bit values widened to 64 bits,
 * so values of 2^31 and more read negative. What each field means is the
 * service's business. */

/* "I/TallyDB/Onoff/Duration", wire "a(uu)". */
typedef struct {
    int64_t field1; /* element 1 */
    int64_t field2; /* element 2 */
} OnoffDurationItem;

/* "I/TallyDB/App/Duration", wire "a(uusssi)". */
typedef struct {
    int64_t field1; /* element 1 */
    int64_t field2; /* element 2 */
    char* field3;   /* element 4 */
    char* field4;   /* element 3 */
    int32_t field5; /* element 6 */
    char* field6;   /* element 5 */
} AppDurationItem;

/* "I/TallyDB/Channel/Duration", wire "a(uuiisss)". */
typedef struct {
    int64_t field1; /* element 1 */
    int64_t field2; /* element 2 */
    char* field3;   /* element 5 */
    int32_t field4; /* element 3 */
    int32_t field5; /* element 4 */
    char* field6;   /* element 6 */
    char* field7;   /* element 7 */
} ChannelDurationItem;

/* "I/TallyDB/Genre/Duration", wire "a(uuss)". */
typedef struct {
    int64_t field1; /* element 1 */
    int64_t field2; /* element 2 */
    char* field3;   /* element 3 */
    char* field4;   /* element 4 */
} GenreDurationItem;

/* "I/TallyDB/Content/Duration", wire "a(uusssssiiss)". */
typedef struct {
    int64_t field1;  /* element 1 */
    int64_t field2;  /* element 2 */
    char* field3;    /* element 6 */
    char* field4;    /* element 5 */
    char* field5;    /* element 3 */
    char* field6;    /* element 4 */
    char* field7;    /* element 7 */
    char* field8;    /* element 11 */
    char* field9;    /* element 10 */
    int32_t field10; /* element 8 */
    int32_t field11; /* element 9 */
} ContentDurationItem;

/* Callback of subscriptions and asynchronous requests. data belongs to the
 * library and is valid only during the call. */
typedef void (*LumoraSubjectCb)(const char* subject, char* data, void* userData);

/* Callback of Lumora_InitServiceWithResponse; data is always NULL. */
typedef void (*LumoraInitCb)(char* data, void* userData);

/* Callback of typed context signals. */
typedef void (*LumoraSignalCb)(ContextSignalType type, char* data, void* userData);

/* ---- Service start and stop ------------------------------------------------
 * Starts are counted; each successful start needs one stop. */

/* Whether the platform's feature switch enables the context service here. */
LUMORA_EXPORT bool Is_LMFSupported(void);
/* Start using the service. false when the feature switch disables it; true
 * otherwise, whether or not the service is ready yet. */
LUMORA_EXPORT bool Lumora_InitService(void);
LUMORA_EXPORT bool CS_InitService(void);
/* Start without consulting the feature switch; the outcome is returned and, on
 * a first start, callback(NULL, userData) runs once from the main loop when the
 * service is ready. When the service is already in use: LMF_INIT_OK at once and
 * the callback is never called. */
LUMORA_EXPORT LMF_INIT_RESULT Lumora_InitServiceWithResponse(LumoraInitCb callback, void* userData);
/* Stop using the service; the last stop drops every subscription. false when
 * the service was never started. */
LUMORA_EXPORT bool Lumora_FiniService(void);
LUMORA_EXPORT bool CS_FiniService(void);

/* ---- Reads -------------------------------------------------------------------
 * Each returns a new string (free it) with the subject's current value, or NULL
 * when the read failed (service unavailable, no data, internal subject refused
 * to this process...; the reason is logged). A successful read of an empty
 * value returns "", not NULL. Blocks for up to about 1 s. */

LUMORA_EXPORT char* Lumora_Read(const char* subject, const char* input);
LUMORA_EXPORT char* CS_Lumora_Read(const char* subject, const char* input);
LUMORA_EXPORT char* Lumora_ReadPrefChannelList(const char* input);                     /* "Pref/Channel/List" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByCurrentSource(const char* input);      /* "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByCurrentSourceMRU(const char* input);   /* "Pref/Channel/List/CurrentSource/MRU" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListWeekTimeTable(const char* input);        /* "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByServiceProvider(const char* input);    /* "Pref/Channel/List/ServiceProvider" */
LUMORA_EXPORT char* Lumora_ReadCurrentBroadcastProgram(const char* input);             /* "Ctx/Media/Broadcast/Program/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentBroadcastStatus(const char* input);              /* "Ctx/Media/Broadcast/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadSTBStatus(const char* input);                           /* "Ctx/Media/Broadcast/Status/STB" */
LUMORA_EXPORT char* Lumora_ReadCurrentSourceInfo(const char* input);                   /* "Ctx/Media/Source/Info/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentAppInfo(const char* input);                      /* "Ctx/App/Info/Current" */
/* Deprecated since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT char* Lumora_ReadCurrentVolumeLevel(const char* input);                  /* "Ctx/Sound/Volume/Level/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentSoundOutputStatus(const char* input);            /* "Ctx/Sound/Output/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentSoundOutputMode(const char* input);              /* "Ctx/Sound/Output/Mode/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentSourceStatus(const char* input);                 /* "Data/Source/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentStreamingStatus(const char* input);              /* "Data/Streaming/Status/Current" */
/* A NULL requester reads "Ctx/Env/Brightness/Level/Current"; the privileged
 * client (any letter case) reads "Ctx/Env/Brightness/EX/Level/Current" with the
 * requester as input; any other requester is refused (NULL, nothing sent). */
LUMORA_EXPORT char* Lumora_ReadCurrentBrightnessLevel(const char* requester);

/* ---- Writes ------------------------------------------------------------------
 * A write is queued and not awaited. */

/* These two return true or report failure by throwing std::runtime_error
 * ("Lumora_Write Failed", "Lumora_WriteRawStreamingEvent Failed"), never by
 * returning false: build callers so that the exception can pass through. */
LUMORA_EXPORT bool Lumora_Write(const char* subject, const char* data);
LUMORA_EXPORT bool Lumora_WriteRawStreamingEvent(const char* data); /* "I/Raw/Streaming/Event" */
LUMORA_EXPORT bool Lumora_WriteSelectedItem(const char* data); /* "Raw/Setting/Selected/Item"; false on failure */
LUMORA_EXPORT bool CS_Lumora_Write(const char* subject, const char* data); /* false on failure */

/* ---- Settings-store lists ---------------------------------------------------- */

/* A copy of the recommended list for json's "group", or "{error}"; free it.
 * NULL for a NULL or empty json. */
LUMORA_EXPORT char* Lumora_ReadRecommendedList(const char* json);
LUMORA_EXPORT char* CS_Lumora_ReadRecommendedList(const char* json);
/* The hint list of type ("source", "setting", "channel", else the general
 * list) or NULL; free it. */
LUMORA_EXPORT char* Lumora_ReadHintList(const char* requester, const char* type);
LUMORA_EXPORT char* CS_Lumora_ReadHintList(const char* requester, const char* type);
LUMORA_EXPORT bool Lumora_STAction(const char* uri, const char* data);
LUMORA_EXPORT bool Lumora_WriteItemList(const char* json);
LUMORA_EXPORT bool CS_WriteItemList(const char* json);

/* ---- Source and model ------------------------------------------------------- */

LUMORA_EXPORT bool CS_SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model);
LUMORA_EXPORT bool CS_GetSourceAndModel(LMF_SRC_TYPE* source, LMF_MODEL_TYPE* model);

/* ---- Retired video-status functions -------------------------------------------
 * Kept so that old applications still link: they contact nothing, log a
 * deprecation warning and return NULL / false. */

LUMORA_EXPORT char* Lumora_ReadCurrentVideoStatus(void);
LUMORA_EXPORT bool Lumora_RequestCurrentVideoStatus(void);
LUMORA_EXPORT bool Lumora_SubscribeVideoStatus(void);
LUMORA_EXPORT bool Lumora_UnsubscribeVideoStatus(void);

LUMORA_EXTERN_C_END

#endif /* LUMORA_C_H */
