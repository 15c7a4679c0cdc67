/**
 * @file
 * @brief The plain-function interface of liblumora-api: enumerations, records,
 * callback types and the exported C functions. Usable from C and C++.
 *
 * @par Memory
 * Every `char*` returned by a function here is allocated with malloc (strdup)
 * and belongs to the caller, who releases it with free(). A text that the
 * library hands to a callback is the library's and valid only during the
 * call; the one exception is the channel callback's copy, which the callback
 * frees (LumoraChannelEventCb). The library never dereferences a userData
 * pointer; it only hands it back.
 *
 * @par Threads
 * The functions may be called from any thread. Callbacks run on the thread
 * that iterates the global default GLib main context; the application must
 * run a GLib main loop there for them to fire. This holds whatever thread
 * starts the service, subscribes or requests, also a thread that pushed a
 * main context of its own with g_main_context_push_thread_default().
 *
 * @par Removing a callback
 * When Lumora_Unsubscribe(), Lumora_RemoveAvailabilityCallback() or the
 * last Lumora_FiniService() returns, the callbacks it removed are not
 * running on any other thread (a call in progress is waited for) and will
 * not be called again: the user data may be freed at once. Called from
 * inside the removed callback itself, they return at once. So do not call
 * them while holding a lock of your own that the callback takes.
 *
 * @par Locks held while a callback runs
 * - A request's callback (the LumoraSubjectCb of the Lumora_Request...
 *   functions): the library's client mutex. From inside it, every function
 *   that takes that mutex (reads, requests and the channel reads, subscribe
 *   and unsubscribe, start and stop) is refused at once: it returns false,
 *   NULL or LMF_INIT_CONNECTION_FAILED and logs one error line, since waiting
 *   would hang the thread for good. Writes take no lock and are allowed.
 * - The channel callback (CS_RegisterChannelCallback()):
 *   LMFServiceAPI::m_mutex. From inside it, start, stop, subscribe and
 *   unsubscribe are refused the same way; reads, writes, requests and the
 *   channel functions may be called.
 * - Subscription callbacks, typed-signal callbacks, availability callbacks
 *   and the start callback of Lumora_InitServiceWithResponse(): no library
 *   lock; they may call any function, subscribe and unsubscribe included.
 * - Lumora_AddAvailabilityCallback() and Lumora_SubscribeWithValue() take the
 *   client mutex (to listen for the service's news): they are refused inside
 *   a request's callback like the other functions that take it.
 *
 * Lumora_GetRefusedCallCount() counts the refusals of the calling thread, so
 * that a caller can tell a refused call from one that failed.
 *
 * Do not iterate the main context from inside a callback.
 *
 * @par Results
 * A bool result is true on success and false on failure; a `char*` result is
 * NULL on failure. Every failure is logged with its reason (tag "LMF_API").
 * No function here throws, except Lumora_Write() and
 * Lumora_WriteRawStreamingEvent() on a failed write, and
 * CS_RemoveChannelFromListWithServiceID() for a NULL serviceId. From C, such
 * an exception ends the program: do not pass what makes them throw.
 *
 * @par Subjects
 * Each fact or action is a subject, a slash-separated name such as
 * "Ctx/Media/Source/Info/Current"; values travel as JSON text. Subjects and
 * inputs must be valid UTF-8 (they travel as D-Bus strings); any other text
 * is refused like a missing one. A subject of two characters or more whose
 * first is 'I' is internal: reading, requesting and subscribing to it need
 * this process (by its short program name) on the whitelist that the service
 * sends, which the process "lumora-agent" always passes. Writes are not
 * checked.
 */
#ifndef LUMORA_C_H
#define LUMORA_C_H

#include <lumora/lumora-export.h>

#include <stdint.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

LUMORA_EXTERN_C_BEGIN

/**
 * The value of the last member of each enumeration below. It names no value
 * of its own: it makes the type a 32-bit signed integer in C and C++ alike,
 * so that any int a caller passes (an unknown source type, a signal type of
 * -1) is a value of the type that the library can refuse, not undefined
 * behaviour.
 */
#define LUMORA_ENUM_INT32 (-2147483647 - 1)

/** Outcome of starting the service connection (Lumora_InitServiceWithResponse()). */
typedef enum {
    /** Connected, and the service is enabled. Also the answer to a start
     *  while the service is already in use. */
    LMF_INIT_OK = 0,
    /** No bus connection. A timer tries a new connection every 2 s; once one
     *  is open, the next start (after a stop) asks the service again. Also
     *  the answer when the start was refused inside a callback that holds a
     *  library lock. */
    LMF_INIT_CONNECTION_FAILED = 1,
    /** Connected, but the service is not ready or not enabled yet. After a
     *  start that opened a new connection the library checks again every 3 s
     *  until the service is ready (giving up after eleven refusals once the
     *  service has started), and the service's "HELLO" makes it available as
     *  well. */
    LMF_INIT_SERVICE_NOT_READY = 2,
    LMF_INIT_RESULT_INT32 = LUMORA_ENUM_INT32 /**< Not a result: makes the type 32-bit (LUMORA_ENUM_INT32). */
} LMF_INIT_RESULT;

/** Which channel-list entries an application sees, by their "SrcType"
 *  (CS_SetSourceAndModel()). */
typedef enum {
    LMF_SRC_RF = 0,  /**< "RF" entries only. */
    LMF_SRC_STB = 1, /**< "STB" entries only. */
    LMF_SRC_ALL = 2, /**< Every entry (the default). */
    /** Not a source type (LUMORA_ENUM_INT32). Any value other than the three
     *  above admits no entry. */
    LMF_SRC_TYPE_INT32 = LUMORA_ENUM_INT32
} LMF_SRC_TYPE;

/** The device model declared with the source type (CS_SetSourceAndModel()).
 *  The library only stores it and hands it back (CS_GetSourceAndModel()); it
 *  sends it nowhere. */
typedef enum {
    LMF_MODEL_0 = 0,       /**< Model 0. */
    LMF_MODEL_1 = 1,       /**< Model 1. */
    LMF_MODEL_DEFAULT = 2, /**< Model 2, the default. */
    LMF_MODEL_TYPE_INT32 = LUMORA_ENUM_INT32 /**< Not a model: makes the type 32-bit (LUMORA_ENUM_INT32). */
} LMF_MODEL_TYPE;

/** A channel's source, as the channel-removal requests name it: its "type"
 *  member is the name given with each value; any other value is sent as
 *  "Unknown". */
typedef enum {
    LMF_SRC_EXT_AIR = 0,       /**< "AIR": terrestrial. */
    LMF_SRC_EXT_CABLE = 1,     /**< "CABLE". */
    LMF_SRC_EXT_SATELLITE = 2, /**< "SATELLITE". */
    LMF_SRC_EXT_HDMI1 = 3,     /**< "HDMI1". */
    LMF_SRC_EXT_HDMI2 = 4,     /**< "HDMI2". */
    LMF_SRC_EXT_HDMI3 = 5,     /**< "HDMI3". */
    LMF_SRC_EXT_HDMI4 = 6,     /**< "HDMI4". */
    LMF_SRC_EXT_HDMI5 = 7,     /**< "HDMI5". */
    LMF_SRC_EXT_HDMI6 = 8,     /**< "HDMI6". */
    LMF_SRC_EXT_TYPE_INT32 = LUMORA_ENUM_INT32 /**< Not a source: makes the type 32-bit (LUMORA_ENUM_INT32). */
} LMF_SRC_EXT_TYPE;

/** Events delivered to the channel callback (CS_RegisterChannelCallback()). */
typedef enum {
    /** The channel list changed ("Pref/Channel/List" or
     *  "Pref/Channel/List/Current"). data is the list filtered by the source
     *  type when the service marked it "Success", with count the number of
     *  entries kept; otherwise the list as it came, with count 0. */
    LMF_EVENT_CHANNEL_LIST = 0,
    LMF_EVENT_RESERVED = 1, /**< Not produced. */
    /** The broadcast programme changed ("Ctx/Media/Broadcast/Program/Changed");
     *  count is 1. */
    LMF_EVENT_PROGRAM_CHANGED = 2,
    /** The set-top-box status changed ("Ctx/Media/Broadcast/Status/STB");
     *  count is 1. */
    LMF_EVENT_STB_STATUS = 3,
    LMF_EVENT_TYPE_INT32 = LUMORA_ENUM_INT32 /**< Not an event: makes the type 32-bit (LUMORA_ENUM_INT32). */
} LMF_EVENT_TYPE;

/** One channel of a reorder request or answer (LMFServiceAPI::ReorderChannelList()). */
typedef struct {
    int32_t major; /**< Major channel number. */
    int32_t minor; /**< Minor channel number. */
} LMF_CHANNEL_ELEM;

/** Typed context signals (LMFServiceAPI::SubscribeSignal()); each stands for
 *  one subject. */
typedef enum {
    CONTEXT_SIGNAL_MOST_WATCHED = 0,      /**< "Pref/Channel/List". */
    CONTEXT_SIGNAL_BROADCAST_PROGRAM = 1, /**< "Ctx/Media/Broadcast/Program/Current". */
    CONTEXT_SIGNAL_STB_STATUS = 2,        /**< "Ctx/Media/Broadcast/Status/STB". */
    /** Not a signal type (LUMORA_ENUM_INT32). The typed-signal functions
     *  refuse it, as any value other than the three above. */
    CONTEXT_SIGNAL_TYPE_INT32 = LUMORA_ENUM_INT32
} ContextSignalType;

/**
 * What the callback of a request for one of the five usage-statistics
 * subjects ("I/TallyDB/.../Duration") receives, through its data pointer:
 * cast data to `(StatisticsResult*)`. The records and their strings are freed
 * as soon as the callback returns; copy what you keep.
 *
 * A failed request of these subjects is answered like any other: data is then
 * the text {"Status":"Error"}, not a StatisticsResult.
 *
 * The record types are OnoffDurationItem, AppDurationItem,
 * ChannelDurationItem, GenreDurationItem and ContentDurationItem. Each fieldN
 * is filled from the reply tuple's element named in its description (counted
 * from 1); unsigned 32-bit wire values (u) are stored as signed 32-bit values
 * widened to 64 bits, so values of 2^31 and more read negative. What each
 * field means is the service's business. Strings are copies that the library
 * frees with the record.
 */
typedef struct {
    /** Number of records the reply announced: 0 for none, or for a reply of
     *  another type than the subject's. */
    int32_t count;
    /** count records of the subject's record type below, or NULL. Always test
     *  it: a failed allocation leaves count set and items NULL. */
    void* items;
} StatisticsResult;

/* The records, one per statistics subject (see StatisticsResult).
 *
 * Their layout is part of the interface: fields in the order declared, each
 * at its natural alignment, no packing, so that an application built with
 * any compiler of the platform's ABI reads what the library wrote. Offsets
 * and sizes in bytes:
 *
 *                         32-bit ARM (armhf)       64-bit (arm64, amd64)
 *                         4-byte pointers,         8-byte pointers
 *                         8-byte aligned int64_t
 *   StatisticsResult
 *     count, items        0, 4                     0, 8
 *     size                8                        16
 *   OnoffDurationItem
 *     field1, field2      0, 8                     0, 8
 *     size                16                       16
 *   AppDurationItem
 *     field1 .. field6    0, 8, 16, 20, 24, 28     0, 8, 16, 24, 32, 40
 *     size                32                       48
 *   ChannelDurationItem
 *     field1 .. field7    0, 8, 16, 20, 24, 28, 32 0, 8, 16, 24, 28, 32, 40
 *     size                40                       48
 *   GenreDurationItem
 *     field1 .. field4    0, 8, 16, 20             0, 8, 16, 24
 *     size                24                       32
 *   ContentDurationItem
 *     field1, field2      0, 8                     0, 8
 *     field3 .. field9    16, 20, .. 40            16, 24, .. 64
 *     field10, field11    44, 48                   72, 76
 *     size                56                       80
 *
 * Every record is aligned to 8 bytes on both; StatisticsResult to its
 * pointer's size. None of them holds a time_t or an off_t: an application
 * built with a 64-bit time_t on 32-bit ARM (_TIME_BITS=64) sees the same
 * records as the library.
 */

/** A record of "I/TallyDB/Onoff/Duration", wire "a(uu)". */
typedef struct {
    int64_t field1; /**< Element 1 (u). */
    int64_t field2; /**< Element 2 (u). */
} OnoffDurationItem;

/** A record of "I/TallyDB/App/Duration", wire "a(uusssi)". */
typedef struct {
    int64_t field1; /**< Element 1 (u). */
    int64_t field2; /**< Element 2 (u). */
    char* field3;   /**< Element 4 (s). */
    char* field4;   /**< Element 3 (s). */
    int32_t field5; /**< Element 6 (i). */
    char* field6;   /**< Element 5 (s). */
} AppDurationItem;

/** A record of "I/TallyDB/Channel/Duration", wire "a(uuiisss)". */
typedef struct {
    int64_t field1; /**< Element 1 (u). */
    int64_t field2; /**< Element 2 (u). */
    char* field3;   /**< Element 5 (s). */
    int32_t field4; /**< Element 3 (i). */
    int32_t field5; /**< Element 4 (i). */
    char* field6;   /**< Element 6 (s). */
    char* field7;   /**< Element 7 (s). */
} ChannelDurationItem;

/** A record of "I/TallyDB/Genre/Duration", wire "a(uuss)". */
typedef struct {
    int64_t field1; /**< Element 1 (u). */
    int64_t field2; /**< Element 2 (u). */
    char* field3;   /**< Element 3 (s). */
    char* field4;   /**< Element 4 (s). */
} GenreDurationItem;

/** A record of "I/TallyDB/Content/Duration", wire "a(uusssssiiss)". */
typedef struct {
    int64_t field1;  /**< Element 1 (u). */
    int64_t field2;  /**< Element 2 (u). */
    char* field3;    /**< Element 6 (s). */
    char* field4;    /**< Element 5 (s). */
    char* field5;    /**< Element 3 (s). */
    char* field6;    /**< Element 4 (s). */
    char* field7;    /**< Element 7 (s). */
    char* field8;    /**< Element 11 (s). */
    char* field9;    /**< Element 10 (s). */
    int32_t field10; /**< Element 8 (i). */
    int32_t field11; /**< Element 9 (i). */
} ContentDurationItem;

/** Callback of subscriptions and asynchronous requests:
 *  callback(subject, data, userData). subject is the subject of the
 *  notification or answer; data belongs to the library and is valid only
 *  during the call (a `StatisticsResult*` for a successful statistics
 *  request); userData is the pointer given with the subscription or request.
 *  For the thread and the lock held, see lumora-c.h. */
typedef void (*LumoraSubjectCb)(const char* subject, char* data, void* userData);

/** Callback of Lumora_InitServiceWithResponse(): called as callback(NULL,
 *  userData), so data is always NULL. Runs on the main-loop thread with no
 *  library lock held. */
typedef void (*LumoraInitCb)(char* data, void* userData);

/** Callback of availability changes (Lumora_AddAvailabilityCallback()):
 *  callback(available, reason, userData). available is 1 when the service can
 *  be used and 0 when it cannot; reason says why, as a static text:
 *  - "ready": the service answered that it is enabled (at the start, or at a
 *    later check; after a check, what was subscribed while it was away is
 *    registered with it by the time the callback runs);
 *  - "hello": the service announced itself ("HELLO", after a restart); the
 *    subscriptions are registered with it again by the time the callback
 *    runs, so a read from the callback reaches the new service;
 *  - "reconnected": the library has a bus connection again after losing it,
 *    and the service is there;
 *  - "bye": the service said it is leaving ("BYE"), or answered that it is
 *    not enabled;
 *  - "name-lost": the service's bus name has no owner any more (it crashed or
 *    was killed), or it had not started;
 *  - "no-answer": the service holds its name but did not answer in time (it
 *    hangs, or is stopped); the library keeps checking every 3 s and tells
 *    "ready" once it answers again, with the subscriptions registered with
 *    it by then;
 *  - "bus-closed": the library's bus connection closed (the bus daemon went
 *    away) or could not be opened.
 *  Runs on the main-loop thread with no library lock held. */
typedef void (*LumoraAvailabilityCb)(int available, const char* reason, void* userData);

/** Callback of typed context signals (LMFServiceAPI::SubscribeSignal()): the
 *  signal's type, its data (the library's, valid only during the call) and
 *  the user data of the subscription. Runs on the main-loop thread with no
 *  library lock held. */
typedef void (*LumoraSignalCb)(ContextSignalType type, char* data, void* userData);

/** The channel callback of CS_RegisterChannelCallback(): the event, a copy of
 *  its data that the callback owns and frees with free(), a count (the kept
 *  entries of a filtered list, 0 for a list the service did not mark
 *  "Success", 1 for the other events) and the user data. Runs on the
 *  main-loop thread with LMFServiceAPI::m_mutex held (see lumora-c.h for
 *  what it may call). */
typedef void (*LumoraChannelEventCb)(LMF_EVENT_TYPE event, char* data, int count, void* userData);

/**
 * @name Service start and stop
 * Starts are counted: the first start connects to the system bus and asks
 * the service whether it is enabled (blocking while it connects, and for up
 * to 0.3 s for the answer); later starts only count. Each successful start
 * needs one stop; the last stop ends the use of the service. Start and stop
 * take LMFServiceAPI::m_mutex, then the client mutex: inside a request's
 * callback or the channel callback they are refused (false, or
 * LMF_INIT_CONNECTION_FAILED, and one error line).
 */
/** @{ */

/** Whether the platform's feature switch
 *  ("com.kaldor/featureconf/lumora.service_enable") enables the context
 *  service here; false also when the switch cannot be read. Takes no lock. */
LUMORA_EXPORT bool Is_LMFSupported(void);
/** Starts using the service, or counts another start. false when the feature
 *  switch disables the service (see Is_LMFSupported()), when refused, or when
 *  the bus client cannot be created; true otherwise, whether or not the
 *  service is ready yet. */
LUMORA_EXPORT bool Lumora_InitService(void);
LUMORA_EXPORT bool CS_InitService(void); /**< The same as Lumora_InitService(). */
/** Starts without consulting the feature switch and returns the outcome. On a
 *  first start, callback(NULL, userData) runs once from the main loop, about
 *  1 s after the service is found ready (by the start itself, by a later
 *  check or on the service's "HELLO"), with no library lock held; a stop
 *  before then cancels it. When the service is already in use: LMF_INIT_OK
 *  at once, and the callback is neither stored nor ever called. When
 *  refused: LMF_INIT_CONNECTION_FAILED. */
LUMORA_EXPORT LMF_INIT_RESULT Lumora_InitServiceWithResponse(LumoraInitCb callback, void* userData);
/** Stops using the service (counts a stop). The last stop drops every
 *  subscription (the service is told, without waiting for its answers), the
 *  pending requests, the typed signals, the availability callbacks and the
 *  subscriptions with the current value, and clears the channel callback;
 *  answers still in flight are then dropped without a callback. Once it
 *  returns, none of those callbacks runs or will run (see "Removing a
 *  callback"). The bus connection stays open for a later start. false when
 *  the service was never started, or when refused. */
LUMORA_EXPORT bool Lumora_FiniService(void);
LUMORA_EXPORT bool CS_FiniService(void); /**< The same as Lumora_FiniService(). */
/** @} */

/**
 * @name Reads
 * Each returns a new string (free it with free()) with the subject's current
 * value, or NULL when the read failed: the service was not started or is not
 * available, the subject is NULL, not UTF-8, or internal and refused to this
 * process, the service has no value (it answered "{}") or answered with an
 * error code, the bus call failed or timed out, or the read was refused
 * inside a request's callback. The reason is logged. A successful read of an empty value returns
 * "", not NULL.
 *
 * input is handed to the service with the subject; NULL is sent as "".
 * Blocks for up to about 1 s, plus any wait for the client mutex while
 * another thread holds it.
 */
/** @{ */

LUMORA_EXPORT char* Lumora_Read(const char* subject, const char* input); /**< Reads subject with input. */
LUMORA_EXPORT char* CS_Lumora_Read(const char* subject, const char* input); /**< The same as Lumora_Read(). */
LUMORA_EXPORT char* Lumora_ReadPrefChannelList(const char* input);                     /**< "Pref/Channel/List" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByCurrentSource(const char* input);      /**< "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByCurrentSourceMRU(const char* input);   /**< "Pref/Channel/List/CurrentSource/MRU" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListWeekTimeTable(const char* input);        /**< "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT char* Lumora_ReadPrefChannelListByServiceProvider(const char* input);    /**< "Pref/Channel/List/ServiceProvider" */
LUMORA_EXPORT char* Lumora_ReadCurrentBroadcastProgram(const char* input);             /**< "Ctx/Media/Broadcast/Program/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentBroadcastStatus(const char* input);              /**< "Ctx/Media/Broadcast/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadSTBStatus(const char* input);                           /**< "Ctx/Media/Broadcast/Status/STB" */
LUMORA_EXPORT char* Lumora_ReadCurrentSourceInfo(const char* input);                   /**< "Ctx/Media/Source/Info/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentAppInfo(const char* input);                      /**< "Ctx/App/Info/Current" */
/** "Ctx/Sound/Volume/Level/Current".
 *  @deprecated Since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT char* Lumora_ReadCurrentVolumeLevel(const char* input);
LUMORA_EXPORT char* Lumora_ReadCurrentSoundOutputStatus(const char* input);            /**< "Ctx/Sound/Output/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentSoundOutputMode(const char* input);              /**< "Ctx/Sound/Output/Mode/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentSourceStatus(const char* input);                 /**< "Data/Source/Status/Current" */
LUMORA_EXPORT char* Lumora_ReadCurrentStreamingStatus(const char* input);              /**< "Data/Streaming/Status/Current" */
/** A NULL requester reads "Ctx/Env/Brightness/Level/Current"; the privileged
 *  client (any letter case) reads "Ctx/Env/Brightness/EX/Level/Current" with the
 *  requester as input; any other requester is refused (NULL, nothing sent). */
LUMORA_EXPORT char* Lumora_ReadCurrentBrightnessLevel(const char* requester);
/** @} */

/**
 * @name Writes
 * A write is queued on the bus and not awaited: success means only that the
 * message left, and the service's answer and any delivery error are dropped.
 * A write fails when the service was not started or is not available, or for
 * a NULL subject or data (or a text that is not UTF-8). Writes take no
 * library lock and may be called from any callback.
 */
/** @{ */

/** Writes data to subject. Returns true, or reports failure by throwing
 *  std::runtime_error("Lumora_Write Failed"), never by returning false: build
 *  callers so that the exception can pass through. From C, prefer
 *  CS_Lumora_Write(). */
LUMORA_EXPORT bool Lumora_Write(const char* subject, const char* data);
/** Writes data to "I/Raw/Streaming/Event". Returns true, or reports failure by
 *  throwing std::runtime_error("Lumora_WriteRawStreamingEvent Failed"), as
 *  Lumora_Write() does. */
LUMORA_EXPORT bool Lumora_WriteRawStreamingEvent(const char* data);
LUMORA_EXPORT bool Lumora_WriteSelectedItem(const char* data); /**< "Raw/Setting/Selected/Item"; false on failure. */
/** Writes data to subject; false on failure. */
LUMORA_EXPORT bool CS_Lumora_Write(const char* subject, const char* data);
/** @} */

/**
 * @name Asynchronous requests
 * Each asks for a subject's value without blocking and returns true when the
 * request went out; callback(subject, data, userData) is then called exactly
 * once, later, on the thread that iterates the default GLib main context:
 *   - with the value as text (JSON, or "" for an empty value);
 *   - with {"Status":"Error"} when the service failed, or gave no answer
 *     within the bus time-out (25 s);
 *   - for the five "I/TallyDB/.../Duration" subjects with a
 *     `StatisticsResult*` cast to `char*` (but with {"Status":"Error"} when
 *     the request failed).
 *
 * data belongs to the library and is valid only during the call; copy what
 * you keep. input is handed to the service with the subject (NULL is sent as
 * ""). A NULL callback is allowed: the answer is then dropped with a log line.
 *
 * The functions return false, and the callback is never called, when the
 * service was not started or is not available (nothing is kept for later),
 * for a NULL subject or a text that is not UTF-8, for an internal subject
 * refused to this process, or when refused inside a request's callback. Nor
 * is the callback called when the service is no longer available when the
 * answer arrives (it said "BYE", or the application stopped the service), or
 * when the application stopped and started the service meanwhile.
 *
 * Lock: the callback runs with the library's client mutex held. From inside
 * it, every function that takes that mutex (reads, requests, subscribe and
 * unsubscribe, start and stop) is refused at once: it returns false or NULL
 * and logs one error line, since waiting would hang the thread for good.
 * Writes take no lock and are allowed. Do not iterate the main context from
 * inside the callback.
 */
/** @{ */

/** Asks for subject's value with input. */
LUMORA_EXPORT bool Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback,
                                  void* userData);
/** As Lumora_Request(); logs "call CS_Lumora_Request!" when it succeeds. */
LUMORA_EXPORT bool CS_Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback,
                                     void* userData);
LUMORA_EXPORT bool Lumora_RequestPrefChannelList(const char* input, LumoraSubjectCb callback, void* userData);                   /**< "Pref/Channel/List" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByCurrentSource(const char* input, LumoraSubjectCb callback, void* userData);    /**< "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByCurrentSourceMRU(const char* input, LumoraSubjectCb callback, void* userData); /**< "Pref/Channel/List/CurrentSource/MRU" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListWeekTimeTable(const char* input, LumoraSubjectCb callback, void* userData);      /**< "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT bool Lumora_RequestPrefChannelListByServiceProvider(const char* input, LumoraSubjectCb callback, void* userData);  /**< "Pref/Channel/List/ServiceProvider" */
LUMORA_EXPORT bool Lumora_RequestCurrentBroadcastProgram(const char* input, LumoraSubjectCb callback, void* userData);           /**< "Ctx/Media/Broadcast/Program/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentBroadcastStatus(const char* input, LumoraSubjectCb callback, void* userData);            /**< "Ctx/Media/Broadcast/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestSTBStatus(const char* input, LumoraSubjectCb callback, void* userData);                         /**< "Ctx/Media/Broadcast/Status/STB" */
LUMORA_EXPORT bool Lumora_RequestCurrentSourceInfo(const char* input, LumoraSubjectCb callback, void* userData);                 /**< "Ctx/Media/Source/Info/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentAppInfo(const char* input, LumoraSubjectCb callback, void* userData);                    /**< "Ctx/App/Info/Current" */
/** "Ctx/Sound/Volume/Level/Current".
 *  @deprecated Since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT bool Lumora_RequestCurrentVolumeLevel(const char* input, LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_RequestCurrentSoundOutputStatus(const char* input, LumoraSubjectCb callback, void* userData);          /**< "Ctx/Sound/Output/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentSoundOutputMode(const char* input, LumoraSubjectCb callback, void* userData);            /**< "Ctx/Sound/Output/Mode/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentSourceStatus(const char* input, LumoraSubjectCb callback, void* userData);               /**< "Data/Source/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentStreamingStatus(const char* input, LumoraSubjectCb callback, void* userData);            /**< "Data/Streaming/Status/Current" */
LUMORA_EXPORT bool Lumora_RequestCurrentBrightnessLevel(const char* input, LumoraSubjectCb callback, void* userData);            /**< "Ctx/Env/Brightness/Level/Current" */
LUMORA_EXPORT bool Lumora_RequestStatisticApp(const char* input, LumoraSubjectCb callback, void* userData);                      /**< "Data/Statistic/App" */
LUMORA_EXPORT bool Lumora_RequestWeatherInfo(const char* input, LumoraSubjectCb callback, void* userData);                       /**< "Data/Weather/Forecast" */
/** @} */

/**
 * @name Subscriptions
 * Subscribe registers callback with userData for a subject's change
 * notifications; callback(subject, data, userData) is then called once per
 * notification, on the thread that iterates the default GLib main context,
 * with no library lock held (it may subscribe and unsubscribe itself). data
 * belongs to the library and is valid only during the call. The service is
 * told once per subject; subscriptions are registered again by themselves
 * when the service restarts (its "HELLO"), so notifications resume without
 * the application's help.
 *
 * Subscribe returns false when the service was not started, for a subject of
 * two characters or fewer (or NULL, or not UTF-8), an internal subject
 * ("I...") refused to this process, a (subject, callback, userData) already
 * subscribed, or the same callback on the same subject with another userData
 * (one callback per subject). It returns true when the bus is not connected,
 * although nothing reaches the service then and no notification follows.
 *
 * Unsubscribe removes (subject, callback, userData) from the library's list,
 * and the pair (subject, callback) from the bus client whatever userData
 * was given. It returns true when the pair was removed or the bus is not
 * connected, false when the pair was unknown (or for the subjects Subscribe
 * refuses).
 *
 * Both take the library's locks: called from inside a request's callback or
 * the channel callback they are refused (false, one error line).
 */
/** @{ */

/** Subscribes callback with userData to subject. */
LUMORA_EXPORT bool Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
/** Unsubscribes callback with userData from subject. Once it returns, the
 *  callback runs nowhere for this subscription and will not be called for it
 *  again (see "Removing a callback"). */
LUMORA_EXPORT bool Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData);
/**
 * Subscribes callback with userData to subject and asks for its current value:
 * the callback hears the current value first and then every change, each
 * once, in order. It is subscribed first; the value is then asked without
 * blocking, and its answer is dropped (with a log line) when a notification
 * of the subject came before it, since that notification is newer. An answer
 * that fails while the service is there (a service error, the bus time-out)
 * reaches the callback as {"Status":"Error"}, as a failed request does, and
 * the subscription stays. While the service is not available (it left, does
 * not answer, or the bus itself is away) the value is not asked: it is asked
 * as soon as the service is back, and the callback never hears an error only
 * because the service was away.
 *
 * After every return of the service ("HELLO", a new bus connection, a
 * service found answering again) the library asks again for the current
 * value of every subscription made this way, as soon as the subscriptions
 * went out to it, a window of requests in flight at a time (so that a bus's
 * limit of pending replies is never met), and calls the callback when the
 * value differs from the last one it was given: a change made while the
 * service was away is not missed. Refused inside a request's callback (it
 * takes the client mutex).
 *
 * Remove it with Lumora_Unsubscribe(). Returns false as Lumora_Subscribe()
 * does (the same subjects, the whitelist, duplicates), and for a NULL
 * callback or one of the five statistics subjects (request those instead).
 * The callback runs on the main-loop thread with no library lock held.
 */
LUMORA_EXPORT bool Lumora_SubscribeWithValue(const char* subject, LumoraSubjectCb callback, void* userData);
/** As Lumora_Subscribe(); logs "call CS_Lumora_Subscribe!" when it succeeds. */
LUMORA_EXPORT bool CS_Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
/** The same as Lumora_Unsubscribe(). */
LUMORA_EXPORT bool CS_Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData);

LUMORA_EXPORT bool Lumora_SubscribePrefChannelList(LumoraSubjectCb callback, void* userData);                  /**< "Pref/Channel/List" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelList(LumoraSubjectCb callback, void* userData);                /**< "Pref/Channel/List" */
LUMORA_EXPORT bool Lumora_SubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData);   /**< "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData); /**< "Pref/Channel/List/CurrentSource" */
LUMORA_EXPORT bool Lumora_SubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData);     /**< "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT bool Lumora_UnsubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData);   /**< "Pref/Channel/List/WeekTimeTable" */
LUMORA_EXPORT bool Lumora_SubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData);                 /**< "Ctx/Media/Broadcast/Program/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData);               /**< "Ctx/Media/Broadcast/Program/Changed" */
LUMORA_EXPORT bool Lumora_SubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData);                  /**< "Ctx/Media/Broadcast/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData);                /**< "Ctx/Media/Broadcast/Status/Changed" */
/** "Ctx/Media/Source/Changed". Note the subject: no "Info" step, unlike the
 *  source-info read and request. */
LUMORA_EXPORT bool Lumora_SubscribeSourceInfo(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_UnsubscribeSourceInfo(LumoraSubjectCb callback, void* userData);                     /**< "Ctx/Media/Source/Changed" */
LUMORA_EXPORT bool Lumora_SubscribeAppInfo(LumoraSubjectCb callback, void* userData);                          /**< "Ctx/App/Info/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeAppInfo(LumoraSubjectCb callback, void* userData);                        /**< "Ctx/App/Info/Changed" */
/** "Ctx/Sound/Volume/Level/Changed".
 *  @deprecated Since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT bool Lumora_SubscribeVolumeLevel(LumoraSubjectCb callback, void* userData);
/** "Ctx/Sound/Volume/Level/Changed".
 *  @deprecated Since API version 6.0 (logs a warning on every call). */
LUMORA_EXPORT bool Lumora_UnsubscribeVolumeLevel(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_SubscribeLKFSValue(LumoraSubjectCb callback, void* userData);                        /**< "Ctx/Sound/LKFS/Value" */
LUMORA_EXPORT bool Lumora_UnsubscribeLKFSValue(LumoraSubjectCb callback, void* userData);                      /**< "Ctx/Sound/LKFS/Value" */
LUMORA_EXPORT bool Lumora_SubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData);                /**< "Ctx/Sound/Output/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData);              /**< "Ctx/Sound/Output/Status/Changed" */
/** "Ctx/Sound/Output/Mode/Changed". Spelt "Sournd" as exported since the
 *  first release; there is no other spelling. */
LUMORA_EXPORT bool Lumora_SubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData);
LUMORA_EXPORT bool Lumora_UnsubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData);               /**< "Ctx/Sound/Output/Mode/Changed"; spelt "Sournd" as well. */
LUMORA_EXPORT bool Lumora_SubscribeSourceStatus(LumoraSubjectCb callback, void* userData);                     /**< "Data/Source/Status/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeSourceStatus(LumoraSubjectCb callback, void* userData);                   /**< "Data/Source/Status/Changed" */
LUMORA_EXPORT bool Lumora_SubscribeStreamingEvent(LumoraSubjectCb callback, void* userData);                   /**< "Data/Streaming/Event" */
LUMORA_EXPORT bool Lumora_UnsubscribeStreamingEvent(LumoraSubjectCb callback, void* userData);                 /**< "Data/Streaming/Event" */
LUMORA_EXPORT bool Lumora_SubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData);                  /**< "Ctx/Env/Brightness/Level/Changed" */
LUMORA_EXPORT bool Lumora_UnsubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData);                /**< "Ctx/Env/Brightness/Level/Changed" */
/** A NULL requester uses "Ctx/Env/Brightness/Level/Changed"; the privileged
 *  client (any letter case) "Ctx/Env/Brightness/EX/Level/Changed"; any other
 *  requester is refused: false, nothing sent, and the error line "Invalid
 *  requester". */
LUMORA_EXPORT bool Lumora_SubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester,
                                                     void* userData);
/** The subject of requester as for Lumora_SubscribeBrightnessLevelEx(); any
 *  other requester is refused: false, nothing sent, and the error line
 *  "Invalid szRequester". */
LUMORA_EXPORT bool Lumora_UnsubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester,
                                                       void* userData);
/** @} */

/**
 * @name Availability of the service
 * An availability callback is told whether the service can be used, once per
 * change (never twice the same state in a row), on the thread that iterates
 * the default GLib main context, with no library lock held: it may call any
 * function, remove itself and subscribe. See LumoraAvailabilityCb for the
 * reasons.
 */
/** @{ */

/** Adds callback with userData. The current state reaches it at once from the
 *  main loop (when the library has learnt one), then every change. While an
 *  availability callback exists, the library hears the service's going and
 *  coming back whether or not the application holds subscriptions, and
 *  checks every 3 s for a service that does not answer. Returns false, with
 *  one log line, before Lumora_InitService() or after the last
 *  Lumora_FiniService(), for a NULL callback, for a (callback, userData)
 *  already added, or inside a request's callback. The last
 *  Lumora_FiniService() removes every callback added here. */
LUMORA_EXPORT bool Lumora_AddAvailabilityCallback(LumoraAvailabilityCb callback, void* userData);
/** Removes (callback, userData). Once it returns, the callback is not running
 *  on any other thread (a call in progress is waited for) and will not be
 *  called again; from inside the callback itself it returns at once. Returns
 *  false, with one log line, when the pair was not added, and before
 *  Lumora_InitService() or after the last Lumora_FiniService(). */
LUMORA_EXPORT bool Lumora_RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* userData);

/** @} */

/**
 * @name Refused calls
 */
/** @{ */

/** How many calls the library has refused on the calling thread because they
 *  were made from inside one of its callbacks that holds a library lock (see
 *  "Locks held while a callback runs"), where waiting would have hung the
 *  thread. Each refusal also logs one error line. A call that returned false
 *  or NULL was refused for that reason exactly when the count grew across it:
 *  language bindings tell such a call from one that failed this way. */
LUMORA_EXPORT unsigned int Lumora_GetRefusedCallCount(void);

/** @} */

/**
 * @name Recommended, hint and item lists
 * The recommended lists come from the service; the hint, action and item
 * lists live in the platform's settings store, which these functions use
 * without any library lock. Texts returned are the caller's, to free with
 * free().
 */
/** @{ */

/** Asks the service for the recommended list of json's "group":
 *  "HomeAppReordering" reads "Data/App/Recommended/List" and
 *  "AccessibilityShortCut" reads "Data/Setting/Recommended/List", each with
 *  json itself as the input. Returns a copy of the answer, or of "{error}"
 *  for another group, a json that does not parse or lacks "group", or a
 *  failed read; NULL for a NULL or empty json. Blocks and is refused as a
 *  read is (then "{error}"). A json that is not UTF-8 gives "{error}", unsent. */
LUMORA_EXPORT char* Lumora_ReadRecommendedList(const char* json);
LUMORA_EXPORT char* CS_Lumora_ReadRecommendedList(const char* json); /**< The same as Lumora_ReadRecommendedList(). */
/** The hint list of type ("source", "setting" or "channel", compared exactly;
 *  any other non-empty type reads the general list) from the settings store,
 *  or NULL for a NULL requester, a NULL or empty type, a list that is not
 *  stored, or a store that cannot be read. requester is otherwise only
 *  logged. NULL also when requester or type is not valid UTF-8. */
LUMORA_EXPORT char* Lumora_ReadHintList(const char* requester, const char* type);
/** The same as Lumora_ReadHintList(). */
LUMORA_EXPORT char* CS_Lumora_ReadHintList(const char* requester, const char* type);
/** Leaves {"uri":uri,"data":data} for the agent in the settings store,
 *  replacing the one before. A NULL uri is stored as "". false when data is
 *  NULL or the store refuses, or when uri or data is not valid UTF-8. */
LUMORA_EXPORT bool Lumora_STAction(const char* uri, const char* data);
/** Stores one group's item list, json = {"group":..., "list":...}, in the
 *  settings store's item lists. Group "AccessibilityShortCut" (with "mode"
 *  "default", or "edit", which keeps the group's earlier default list)
 *  replaces the whole stored value with that one group; any other group
 *  replaces only its own entry. false for a NULL json, a json that does not
 *  parse or lacks "group" or "list", another shortcut mode, or when the store
 *  refuses; also for a json that is not valid UTF-8. */
LUMORA_EXPORT bool Lumora_WriteItemList(const char* json);
LUMORA_EXPORT bool CS_WriteItemList(const char* json); /**< The same as Lumora_WriteItemList(). */
/** @} */

/**
 * @name Source and model
 * The source type and model of this process, kept for the whole process
 * (a stop does not reset them). No lock is taken.
 */
/** @{ */

/** Stores the source type (which channel-list entries this process sees) and
 *  the model type. Always true. */
LUMORA_EXPORT bool CS_SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model);
/** Reads the stored pair into *source and *model: LMF_SRC_ALL and
 *  LMF_MODEL_DEFAULT until set. false, with nothing written, when either
 *  pointer is NULL; true otherwise. */
LUMORA_EXPORT bool CS_GetSourceAndModel(LMF_SRC_TYPE* source, LMF_MODEL_TYPE* model);
/** @} */

/**
 * @name Channel list services
 * Texts returned are the caller's, to free with free(). The reads block as
 * Lumora_Read() does and are refused inside a request's callback; the
 * removals are writes.
 */
/** @{ */

/** The channel list ("Pref/Channel/List") filtered by the source type of
 *  CS_SetSourceAndModel(): {"ChList":[...],"Size":n,"Status":"Success"} (or
 *  "Status":"Error" with "Reason" when nothing was kept), or the service's
 *  answer as it came when it did not say "Success". *count gets the number
 *  kept (0 on failure or for an answer not marked "Success"); count may be
 *  NULL. NULL when the service gave no answer or the answer is not JSON. */
LUMORA_EXPORT char* CS_GetChannelList(int* count);
/** The current programme ("Ctx/Media/Broadcast/Program/Current") as the
 *  service gives it, or NULL. */
LUMORA_EXPORT char* CS_GetCurrentChannelInfo(void);
/** channel_list: a JSON array of {"major":m,"minor":n} (a member that is
 *  missing, or no number in int's range, counts as 0), sent with source to
 *  the service as a candidate order. Returns the service's order as one line of the same form
 *  ("null" when the service's order is empty), or NULL for a NULL or
 *  unparsable input, anything but a non-empty array, no answer, or an answer
 *  that is not JSON. An input that is not valid UTF-8 counts as unparsable. */
LUMORA_EXPORT char* CS_ReorderChannelList(const char* channel_list, int source);
/** Asks the service to remove a channel (a one-way write of {"major",
 *  "minor","type"} to "Pref/Channel/Remove"); false when the write could not
 *  be sent. */
LUMORA_EXPORT bool CS_RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type);
/** The same, naming the channel's service id as well (to
 *  "Pref/Channel/RemoveWithServiceID"); false, nothing sent, for a serviceId
 *  that is not valid UTF-8.
 *  @exception std::logic_error serviceId is NULL (nothing is sent; the
 *  serviceId is taken as a std::string without a null test, as callers have
 *  always had it). */
LUMORA_EXPORT bool CS_RemoveChannelFromListWithServiceID(int major, int minor, const char* serviceId,
                                                         LMF_SRC_EXT_TYPE type);
/** Registers cCallback for the channel list, programme-changed and
 *  set-top-box events (LMF_EVENT_TYPE), subscribing to
 *  "Pref/Channel/List/Current", "Pref/Channel/List",
 *  "Ctx/Media/Broadcast/Program/Changed" and
 *  "Ctx/Media/Broadcast/Status/STB". It is called on the thread that runs
 *  the default main context while LMFServiceAPI::m_mutex is held: it may
 *  read, write, request and use the channel functions, but a start, stop,
 *  subscribe or unsubscribe from it is refused (false, one error line). A
 *  list that is not JSON, and an event without data, are dropped with a log
 *  line. Each subject keeps the userData of the registration that subscribed
 *  it first. false when the service was never started, or when exactly three
 *  of the four subscriptions failed; any other count of failures keeps the
 *  callback and returns true, also inside a request's callback, where all
 *  four are refused.
 *  @deprecated Use LMFServiceAPI::SubscribeSignal(). */
LUMORA_EXPORT bool CS_RegisterChannelCallback(LumoraChannelEventCb cCallback, void* userData);
/** Stops the events: the callback is cleared at once, then every subject but
 *  "Pref/Channel/List/Current" is unsubscribed. false when the service was
 *  never started; true otherwise, whatever the unsubscriptions gave. */
LUMORA_EXPORT bool CS_UnRegisterChannelCallback(void);
/** @} */

/**
 * @name Actions
 * One-way writes of an action for the service to carry out.
 */
/** @{ */

/** Hands the home launcher's component componentId the JSON text jsonData:
 *  writes {"componentId":..., "jsonData":...} to "Raw/Firstscreen/Action",
 *  jsonData carried as a string. false for a NULL or empty argument or when
 *  the write could not be sent; also, nothing sent, for one that is not UTF-8. */
LUMORA_EXPORT bool CS_SetFirstscreenAction(const char* componentId, const char* jsonData);
/** @} */

/**
 * @name Retired video-status functions
 * Kept so that old applications still link: they contact nothing, log a
 * deprecation warning and return NULL / false.
 */
/** @{ */

LUMORA_EXPORT char* Lumora_ReadCurrentVideoStatus(void);  /**< @deprecated Retired since API version 3.0: NULL. */
LUMORA_EXPORT bool Lumora_RequestCurrentVideoStatus(void); /**< @deprecated Retired since API version 3.0: false. */
LUMORA_EXPORT bool Lumora_SubscribeVideoStatus(void);      /**< @deprecated Retired since API version 3.0: false. */
LUMORA_EXPORT bool Lumora_UnsubscribeVideoStatus(void);    /**< @deprecated Retired since API version 3.0: false. */
/** @} */

LUMORA_EXTERN_C_END

#endif /* LUMORA_C_H */
