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

/* The last member of each enumeration below: no value of its own, it makes
 * the type a 32-bit signed integer in C and C++ alike, so that any int a
 * caller passes (an unknown source type, a signal type of -1) is a value of
 * the type that the library can refuse, not undefined behaviour. */
#define LUMORA_ENUM_INT32 (-2147483647 - 1)

/* Outcome of starting the service connection. */
typedef enum {
    LMF_INIT_OK = 0,                /* connected, the service is enabled */
    LMF_INIT_CONNECTION_FAILED = 1, /* no bus connection; retried every 2 s */
    LMF_INIT_SERVICE_NOT_READY = 2, /* connected, the service is not ready yet */
    LMF_INIT_RESULT_INT32 = LUMORA_ENUM_INT32
} LMF_INIT_RESULT;

/* Which channel-list entries an application sees (by their "SrcType"). */
typedef enum {
    LMF_SRC_RF = 0,  /* "RF" entries only */
    LMF_SRC_STB = 1, /* "STB" entries only */
    LMF_SRC_ALL = 2, /* every entry (the default) */
    LMF_SRC_TYPE_INT32 = LUMORA_ENUM_INT32
} LMF_SRC_TYPE;

/* The device model declared with the source type; its meaning is the
 * service's. 2 is the default. */
typedef enum {
    LMF_MODEL_0 = 0,
    LMF_MODEL_1 = 1,
    LMF_MODEL_DEFAULT = 2,
    LMF_MODEL_TYPE_INT32 = LUMORA_ENUM_INT32
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
    LMF_SRC_EXT_HDMI6 = 8,
    LMF_SRC_EXT_TYPE_INT32 = LUMORA_ENUM_INT32
} LMF_SRC_EXT_TYPE;

/* Events delivered to the channel callback. */
typedef enum {
    LMF_EVENT_CHANNEL_LIST = 0,    /* the channel list changed */
    LMF_EVENT_RESERVED = 1,        /* not produced */
    LMF_EVENT_PROGRAM_CHANGED = 2, /* the broadcast programme changed */
    LMF_EVENT_STB_STATUS = 3,      /* the set-top-box status changed */
    LMF_EVENT_TYPE_INT32 = LUMORA_ENUM_INT32
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
    CONTEXT_SIGNAL_STB_STATUS = 2,        /* "Ctx/Media/Broadcast/Status/STB" */
    CONTEXT_SIGNAL_TYPE_INT32 = LUMORA_ENUM_INT32
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

/* The channel callback of CS_RegisterChannelCallback: the event, a copy of
 * its data that the callback owns and frees with free(), a count (the kept
 * entries of a filtered list, 0 for a list the service did not mark
 * "Success", 1 for the other events) and the user data. */
typedef void (*LumoraChannelEventCb)(LMF_EVENT_TYPE event, char* data, int count, void* userData);

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

/* ---- Asynchronous requests ---------------------------------------------------
 * Each asks for a subject's value without blocking and returns true when the
 * request went out; callback(subject, data, userData) is then called exactly
 * once, later, on the thread that iterates the default GLib main context:
 *   - with the value as text (JSON, or "" for an empty value);
 *   - with {"Status":"Error"} when the service failed, or gave no answer
 *     within the bus time-out (25 s);
 *   - for the five "I/TallyDB/.../Duration" subjects with a StatisticsResult*
 *     cast to char*.
 * data belongs to the library and is valid only during the call; copy what
 * you keep. The callback is never called when the function returned false
 * (service not available, null subject, internal subject refused to this
 * process), nor when the service says "BYE" before its answer arrives or the
 * application stops and restarts the service meanwhile.
 *
 * Lock: the callback runs with the library's client mutex held. From inside
 * it, every function that takes that mutex (reads, requests, subscribe and
 * unsubscribe, start and stop) is refused at once: it returns false or NULL
 * and logs one error line, since waiting would hang the thread for good.
 * Writes take no lock and are allowed. Do not iterate the
 * main context from inside the callback. */

LUMORA_EXPORT bool Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback,
                                  void* userData);
/* As Lumora_Request; logs "call CS_Lumora_Request!" when it succeeds. */
LUMORA_EXPORT bool CS_Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback,
                                     void* userData);
LUMORA_EXPORT bool Lumora_RequestPrefChannelList(const char* input, LumoraSubjectCb callback, void* userData);                   /* "Pref/Channel/List" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByCurrentSource(const char* input, LumoraSubjectCb callback, void* userData);    /* "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByCurrentSourceMRU(const char* input, LumoraSubjectCb callback, void* userData); /* "Pref/Channel/List/CurrentSource/MRU" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListWeekTimeTable(const char* input, LumoraSubjectCb callback, void* userData);      /* "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByServiceProvider(const char* input, LumoraSubjectCb callback, void* userData);  /* "Pref/Channel/List/ServiceProvider" */
LUMORA_EXPORT bool Lumora_RequestCurrentBroadcastProgram(const char* input, LumoraSubjectCb callback, void* userData);           /* "Ctx/Media/Broadcast/Program/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentBroadcastStatus(const char* input, LumoraSubjectCb callback, void* userData);            /* "Ctx/Media/Broadcast/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestSTBStatus(const char* input, LumoraSubjectCb callback, void* userData);                         /* "Ctx/Media/Broadcast/Status/STB" */
LUMORA_EXPORT bool Lumora_RequestCurrentSourceInfo(const char* input, LumoraSubjectCb callback, void* userData);                 /* "Ctx/Media/Source/Info/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentAppInfo(const char* input, LumoraSubjectCb callback, void* userData);                    /* "Ctx/App/Info/Current" */
/* Deprecated since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT bool Lumora_RequestCurrentVolumeLevel(const char* input, LumoraSubjectCb callback, void* userData);                /* "Ctx/Sound/Volume/Level/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentSoundOutputStatus(const char* input, LumoraSubjectCb callback, void* userData);          /* "Ctx/Sound/Output/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentSoundOutputMode(const char* input, LumoraSubjectCb callback, void* userData);            /* "Ctx/Sound/Output/Mode/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentSourceStatus(const char* input, LumoraSubjectCb callback, void* userData);               /* "Data/Source/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentStreamingStatus(const char* input, LumoraSubjectCb callback, void* userData);            /* "Data/Streaming/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentBrightnessLevel(const char* input, LumoraSubjectCb callback, void* userData);            /* "Ctx/Env/Brightness/Level/Current" */
LUMORA_EXPORT bool Lumora_RequestStatisticApp(const char* input, LumoraSubjectCb callback, void* userData);                      /* "Data/Statistic/App" */
LUMORA_EXPORT bool Lumora_RequestWeatherInfo(const char* input, LumoraSubjectCb callback, void* userData);                       /* "Data/Weather/Forecast" */

/* ---- Subscriptions -------------------------------------------------------------
 * Subscribe registers callback with userData for a subject's change
 * notifications; callback(subject, data, userData) is then called once per
 * notification, on the thread that iterates the default GLib main context,
 * with no library lock held (it may subscribe and unsubscribe itself). data
 * is valid only during the call. The service is told once per subject;
 * subscriptions are registered again by themselves when the service restarts
 * (its "HELLO"), so notifications resume without the application's help.
 *
 * Subscribe returns false for a subject of two characters or fewer (or
 * NULL), an internal subject ("I...") refused to this process, a (subject,
 * callback, userData) already subscribed, or the same callback on the same
 * subject with another userData (one callback per subject). It returns true
 * when the bus is not connected, although nothing is stored then.
 * Unsubscribe removes (subject, callback, userData) and returns true when the
 * pair was removed or the bus is not connected, false when it was unknown.
 * Both take the library's locks: called from inside a request's callback
 * they are refused (false, one error line). */

LUMORA_EXPORT bool Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData);
/* As Lumora_Subscribe; logs "call CS_Lumora_Subscribe!" when it succeeds. */
LUMORA_EXPORT bool CS_Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool CS_Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData);

LUMORA_EXPORT bool Lumora_SubscribePrefChannelList(LumoraSubjectCb callback, void* userData);                  /* "Pref/Channel/List" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelList(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData);   /* "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData);     /* "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData);                 /* "Ctx/Media/Broadcast/Program/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData);                  /* "Ctx/Media/Broadcast/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData);
/* Note the subject: no "Info" step, unlike the source-info read and request. */
LUMORA_EXPORT bool Lumora_SubscribeSourceInfo(LumoraSubjectCb callback, void* userData);                       /* "Ctx/Media/Source/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSourceInfo(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeAppInfo(LumoraSubjectCb callback, void* userData);                          /* "Ctx/App/Info/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeAppInfo(LumoraSubjectCb callback, void* userData);
/* Deprecated since API version 6.0 (log a warning on every call). */
LUMORA_EXPORT bool Lumora_SubscribeVolumeLevel(LumoraSubjectCb callback, void* userData);                      /* "Ctx/Sound/Volume/Level/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeVolumeLevel(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeLKFSValue(LumoraSubjectCb callback, void* userData);                        /* "Ctx/Sound/LKFS/Value" */
LUMORA_EXPORT bool Lumora_UnsubscribeLKFSValue(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData);                /* "Ctx/Sound/Output/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData);
/* Spelt "Sournd" as exported since the first release; there is no other spelling. */
LUMORA_EXPORT bool Lumora_SubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData);                 /* "Ctx/Sound/Output/Mode/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeSourceStatus(LumoraSubjectCb callback, void* userData);                     /* "Data/Source/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSourceStatus(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeStreamingEvent(LumoraSubjectCb callback, void* userData);                   /* "Data/Streaming/Event" */
LUMORA_EXPORT bool Lumora_UnsubscribeStreamingEvent(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData);                  /* "Ctx/Env/Brightness/Level/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData);
/* A NULL requester uses "Ctx/Env/Brightness/Level/Changed"; the privileged
 * client (any letter case) "Ctx/Env/Brightness/EX/Level/Changed"; any other
 * requester is refused: false, nothing sent, and the error line "Invalid
 * requester" (subscribe) or "Invalid szRequester" (unsubscribe). */
LUMORA_EXPORT bool Lumora_SubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester,
                                                     void* userData);
LUMORA_EXPORT bool Lumora_UnsubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester,
                                                       void* userData);

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

/* ---- Channel list services ---------------------------------------------------
 * Texts returned are the caller's, to free with free(). */

/* The channel list filtered by the source type of CS_SetSourceAndModel:
 * {"ChList":[...],"Size":n,"Status":"Success"} (or "Status":"Error" with
 * "Reason" when nothing was kept), or the service's answer as it came when it
 * did not say "Success". *count gets the number kept (0 on failure); NULL
 * when the service gave no answer or the answer is not JSON. count must not
 * be NULL. */
LUMORA_EXPORT char* CS_GetChannelList(int* count);
/* The current programme as the service gives it, or NULL. */
LUMORA_EXPORT char* CS_GetCurrentChannelInfo(void);
/* channel_list: a JSON array of {"major":m,"minor":n}. Returns the service's
 * order as one line of the same form ("null" when the service's order is
 * empty), or NULL for a NULL or unparsable input, an empty array, or no
 * answer. */
LUMORA_EXPORT char* CS_ReorderChannelList(const char* channel_list, int source);
/* Ask the service to remove a channel (a one-way write); false when the write
 * could not be sent. */
LUMORA_EXPORT bool CS_RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type);
/* The same, naming the channel's service id (false for a NULL serviceId). */
LUMORA_EXPORT bool CS_RemoveChannelFromListWithServiceID(int major, int minor, const char* serviceId,
                                                         LMF_SRC_EXT_TYPE type);
/* Deprecated: use SubscribeSignal. Registers cCallback for the channel list,
 * programme-changed and set-top-box events. It is called on the thread that
 * runs the default main context while LMFServiceAPI::m_mutex is held: it may
 * read, write, request and use the channel functions, but a start, stop,
 * subscribe or unsubscribe from it is refused (false, one error line). false
 * when exactly three of the four subscriptions failed. */
LUMORA_EXPORT bool CS_RegisterChannelCallback(LumoraChannelEventCb cCallback, void* userData);
/* Stops the events: the callback is cleared at once. */
LUMORA_EXPORT bool CS_UnRegisterChannelCallback(void);

/* ---- Actions ------------------------------------------------------------------ */

/* Hands the home launcher's component componentId the JSON text jsonData
 * (carried as a string). false for a NULL or empty argument or when the write
 * could not be sent. */
LUMORA_EXPORT bool CS_SetFirstscreenAction(const char* componentId, const char* jsonData);

/* ---- Retired video-status functions -------------------------------------------
 * Kept so that old applications still link: they contact nothing, log a
 * deprecation warning and return NULL / false. */

LUMORA_EXPORT char* Lumora_ReadCurrentVideoStatus(void);
LUMORA_EXPORT bool Lumora_RequestCurrentVideoStatus(void);
LUMORA_EXPORT bool Lumora_SubscribeVideoStatus(void);
LUMORA_EXPORT bool Lumora_UnsubscribeVideoStatus(void);

LUMORA_EXTERN_C_END

#endif /* LUMORA_C_H */
