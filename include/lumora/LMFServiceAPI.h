/// @file
/// @brief LMFServiceAPI: the process-wide façade over the bus client.
#ifndef LUMORA_LMFSERVICEAPI_H
#define LUMORA_LMFSERVICEAPI_H

#include <glib.h>
#include <lumora/ContextData.h>
#include <lumora/DBusClient.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <string>
#include <vector>

/// One subscription of an application callback to a subject (the untyped
/// list); owned by LMFServiceAPI::g_vSubscribeNonTypeList.
struct SubscribeDataNonType {
    std::string subject;                 ///< The subscribed subject.
    LumoraSubjectCb callback = nullptr;  ///< The application's callback.
    void* user_data = nullptr;           ///< Handed back to callback.
};

/// One subscription of an application callback to a typed context signal;
/// owned by LMFServiceAPI::g_vSubscribeList.
struct SubscribeData {
    std::string subject;                                   ///< The subject of type.
    ContextSignalType type = CONTEXT_SIGNAL_MOST_WATCHED;  ///< The typed signal.
    LumoraSignalCb callback = nullptr;                     ///< The application's callback.
    void* user_data = nullptr;                             ///< Handed back to callback.
};

/// The channel callback of RegisterChannelCallback: the event, a copy of its
/// data, a count (the kept entries of a filtered list, 0 for a list the
/// service did not mark "Success", 1 for the other events) and the user data.
/// Runs on the main-loop thread with LMFServiceAPI::m_mutex held.
typedef void (*LumoraChannelCb)(LMF_EVENT_TYPE event, std::string data, int count, void* userData);

/// Filters the channel list document in by the source type that
/// LMFServiceAPI::SetSourceAndModel stored, adding to out (which should be
/// empty): "ChList" (the kept entries in their order), "Size" (= count) and
/// "Status" ("Success" when an entry was kept; otherwise "Error" with
/// "Reason" "The list is empty."). An entry whose "SrcType" is not exactly
/// "RF" (source LMF_SRC_RF) or "STB" (LMF_SRC_STB) is dropped; LMF_SRC_ALL
/// keeps every entry and any other source type none. Entries of channel type
/// 9 are dropped; a null or absent "ChType" member is removed from its entry,
/// which is kept. Takes no lock.
LUMORA_EXPORT void _GetChannelListUsingSrcFilter(ContextData& in, ContextData& out, int& count);

/**
 * The service API behind the Lumora_* and CS_* functions of lumora-c.h.
 * Static members only. Starts and stops are counted: the first start creates
 * the shared DBusClient and initialises it, the last stop finalises it.
 *
 * Locks: InitService, InitServiceWithResponse, FiniService, Subscribe,
 * Unsubscribe, SubscribeSignal and UnsubscribeSignal hold m_mutex for their
 * whole run and take the client mutex inside it; m_mutex is always taken
 * first. Read, Write, Request and the channel operations take no lock of
 * their own (the bus client serialises reads and requests); the settings-store
 * lists take none at all. Results are true on success; failures are logged
 * (tag "LMF_API").
 *
 * Callbacks: every callback runs on the thread that iterates the default GLib
 * main context. A request's callback runs with the client mutex held; from
 * it, an operation that would take that mutex again (Read, Request,
 * Subscribe, Unsubscribe, SubscribeSignal, UnsubscribeSignal, the channel
 * reads, InitService, InitServiceWithResponse, FiniService) is refused at
 * once with false and one error line instead of hanging the thread. The
 * channel callback runs with m_mutex held: from it, InitService,
 * InitServiceWithResponse, FiniService, Subscribe, Unsubscribe,
 * SubscribeSignal and UnsubscribeSignal are refused the same way; reads,
 * writes, requests and the channel operations may be called. Subscription
 * and typed-signal callbacks run with no library lock held.
 */
class LUMORA_EXPORT LMFServiceAPI {
public:
    /// @name Start, stop and state
    /// @{

    /// Starts (or counts another start of) the service connection. False when
    /// the platform's feature switch disables the service, when refused inside a
    /// request's callback or the channel callback, or when the bus client cannot
    /// be created. True otherwise, whether or not the service is ready yet: ask
    /// IsAvailable().
    static bool InitService();
    /// Like InitService but without consulting the feature switch, and
    /// reporting the outcome (LMF_INIT_OK, LMF_INIT_CONNECTION_FAILED,
    /// LMF_INIT_SERVICE_NOT_READY). On a first start callback is called once
    /// from the main loop when the service is ready, with a null string and no
    /// library lock held; when the service is already in use, LMF_INIT_OK is
    /// returned and callback is never called. When refused:
    /// LMF_INIT_CONNECTION_FAILED.
    static LMF_INIT_RESULT InitServiceWithResponse(LumoraInitCb callback, void* userData);
    /// Counts a stop; the last one finalises the bus client (which is kept for a
    /// later start), drops every typed and untyped subscription, the
    /// availability callbacks and the subscriptions with the current value,
    /// clears the channel callback and forgets the cached process name. Once
    /// the last stop returns, none of those callbacks runs on another thread
    /// (a call in progress is waited for, after m_mutex is released) or will
    /// run again. False when never started, or when refused.
    static bool FiniService();
    /// Whether the service can be used now; false when never started. Takes no
    /// lock.
    static bool IsAvailable();
    /// Stores the source type (which channel-list entries the application
    /// sees) and the model type, for the whole process. Always true. Takes no
    /// lock.
    static bool SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model);
    /// The stored pair; LMF_SRC_ALL and LMF_MODEL_DEFAULT until set. Always
    /// true. Takes no lock.
    static bool GetSourceAndModel(LMF_SRC_TYPE& source, LMF_MODEL_TYPE& model);
    /// @}

    /// @name Reads, writes, requests and subscriptions
    /// @{

    /// Reads subject's current value into output (replacing it); blocks for up
    /// to about 1 s. False when the service gave no value, is not available, or
    /// the subject is internal and this process is not on the service's
    /// whitelist, for a null subject, or when refused inside a request's
    /// callback; output is then unchanged.
    static bool Read(const char* subject, const char* input, std::string& output);
    /// Queues a write of input to subject; true means only that the message was
    /// queued. Any process may write any subject. False when never started, when
    /// the service is not available, or for a null (or non-UTF-8) subject or
    /// input. Takes no lock.
    static bool Write(const char* subject, const char* input);

    /// Asks for subject's value without blocking. True when the request went
    /// out: callback is then called exactly once, later, on the thread that
    /// runs the default main context, with the client mutex held, with the
    /// value (data belongs to the library and is valid during the call), with
    /// {"Status":"Error"} when the service failed or did not answer within
    /// the bus time-out (25 s), or for the five "I/TallyDB/.../Duration"
    /// subjects with a StatisticsResult* cast to char*. Exceptions, where it
    /// is never called: the service said "BYE" before the answer arrived, or
    /// the service was stopped and started again (FiniService, InitService)
    /// meanwhile. False, and no callback, when the service is not available,
    /// the subject is null, or the subject is internal and this process is
    /// not on the service's whitelist. A null input is sent as "".
    /// The callback must not call Read, Request, Subscribe, Unsubscribe,
    /// InitService or FiniService: such a call is refused (false, one error
    /// line) since it would wait for the mutex its own thread holds.
    static bool Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData);
    /// Subscribes callback with user_data to subject's change notifications.
    /// The callback runs on the thread that runs the default main context,
    /// with no library lock held, once per notification (it may subscribe and
    /// unsubscribe); data is valid during the call only. False for a subject
    /// of two characters or fewer (or null), an internal subject refused by
    /// the whitelist, a triple already subscribed, or when the bus client
    /// refuses the pair (the same callback on the same subject with another
    /// user_data: the triple is still kept here). True when the bus is not
    /// connected, although nothing reaches the service then. Takes m_mutex,
    /// then the client mutex; refused (false) inside a request's callback or
    /// the channel callback.
    static bool Subscribe(const char* subject, LumoraSubjectCb callback, void* user_data);
    /// Removes the triple, and asks the bus client to remove (subject,
    /// callback), whatever user_data was given. The result is the bus client's:
    /// true when it removed the pair or the bus is not connected, false when it
    /// did not know the pair. False as Subscribe for an invalid or refused
    /// subject, and when refused inside a callback. Once it returns, the
    /// triple's callback is not running on another thread (a call in progress
    /// is waited for, after m_mutex is released) and will not be called again;
    /// from inside that callback it returns at once.
    static bool Unsubscribe(const char* subject, LumoraSubjectCb callback, void* user_data);
    /// As Subscribe, then asks for subject's current value without blocking:
    /// the callback hears the current value first and then every change, each
    /// once, in order, and the value again after every return of the service
    /// when it changed meanwhile (see Lumora_SubscribeWithValue()). Removed
    /// with Unsubscribe. False as Subscribe, and for a null callback or a
    /// statistics subject; also before InitService() or after the last
    /// FiniService(). Takes m_mutex, then the client mutex.
    static bool SubscribeWithValue(const char* subject, LumoraSubjectCb callback, void* user_data);
    /// @}

    /// @name Availability of the service
    /// @{

    /// Adds an availability callback, told the current state at once and then
    /// every change, on the main-loop thread with no library lock held (see
    /// LumoraAvailabilityCb). False, with one line, before InitService() or
    /// after the last FiniService() (which removes every callback added here),
    /// for a null callback or a pair already added. Takes m_mutex, then the
    /// client mutex (to listen for the service's news).
    static bool AddAvailabilityCallback(LumoraAvailabilityCb callback, void* user_data);
    /// Removes the pair; once it returns, the callback is not running on
    /// another thread (a call in progress is waited for) and will not be
    /// called again. False, with one line, when it was not added, and before
    /// InitService() or after the last FiniService(). Takes m_mutex for the
    /// check only.
    static bool RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* user_data);
    /// @}

    /// @name Typed signals
    /// @{

    /// Subscribes callback to the typed signal type (CONTEXT_SIGNAL_*). The
    /// first callback of a type registers the shared _SubscribeCallback with
    /// the bus client (one bus subscription per type), and its result is the
    /// bus client's; later callbacks of the type are only added (true). The
    /// callback runs on the main-loop thread with no library lock held, once
    /// per signal, with its type and user_data; data is valid during the call
    /// only. False for an unknown type, a callback already subscribed to the
    /// type (whatever its user_data), when never started, or when refused. Takes
    /// m_mutex, then the client mutex. While a type is subscribed, an untyped
    /// subscription (Subscribe) of the same subject hears each signal twice:
    /// from the bus client, and from _SubscribeCallback.
    static bool SubscribeSignal(ContextSignalType type, LumoraSignalCb callback, void* user_data);
    /// Drops every callback of type and the bus subscription; the bus
    /// client's result (false when it did not know it). False for an unknown
    /// type, when never started, or when refused.
    static bool UnsubscribeSignal(ContextSignalType type);
    /// The subject of type, or "" (after an error line) for an unknown type.
    static std::string _ConvertSignalTypeToSubject(ContextSignalType type);
    /// @}

    /// @name Channel list services
    /// The reads block as Read does and are refused inside a request's callback;
    /// the removals are writes. Only _SubscribeCb takes m_mutex, around the
    /// channel callback.
    /// @{

    /// Reads the channel list and filters it (_GetChannelListUsingSrcFilter)
    /// when the service says "Success"; otherwise list is the service's
    /// answer as it came and count 0. True whenever an answer was read, also
    /// when nothing was kept (its "Status" is then "Error"). False when the
    /// service gave no answer or the answer is not JSON.
    static bool GetChannelList(std::string& list, int& count);
    /// Sends channels as a candidate order for source and replaces them with
    /// the service's order (its answer's "reorder" array; none empties the
    /// vector). False, with channels unchanged, for an empty vector, no answer
    /// or an answer that is not JSON.
    static bool ReorderChannelList(std::vector<LMF_CHANNEL_ELEM>& channels, int source);
    /// Withdrawn: always false, ids untouched.
    /// @deprecated Use ReorderChannelList.
    static bool ReorderChannelListFromSourceID(std::vector<std::string>& ids);
    /// Asks the service to remove a channel (a one-way write to
    /// "Pref/Channel/Remove"). False when the write could not be sent.
    static bool RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type);
    /// The same, naming the channel's service id as well (a write to
    /// "Pref/Channel/RemoveWithServiceID").
    /// False, nothing sent, for a serviceId that is not valid UTF-8.
    static bool RemoveChannelFromList(int major, int minor, std::string serviceId, LMF_SRC_EXT_TYPE type);
    /// The current programme, as the service gives it. False without an answer.
    static bool GetCurrentChannelInfo(std::string& info);
    /// The set-top-box status, as the service gives it. False without an answer.
    static bool GetContentsRecognitionStatus(std::string& status);
    /// "AIR", "CABLE", "SATELLITE", "HDMI1" to "HDMI6", or "Unknown".
    static std::string _ConvertSrcTypeString(LMF_SRC_EXT_TYPE type);
    /// Deprecated (use SubscribeSignal). Subscribes _SubscribeCb to the four
    /// channel subjects and stores callback, which then hears the list
    /// (event 0, filtered when the service says "Success", with the kept
    /// count), programme changes (event 2, count 1) and set-top-box status
    /// (event 3, count 1). It runs on the main-loop thread with m_mutex held
    /// (see the class comment for what it may call); data is its own copy.
    /// Each subject keeps the userData of the registration that subscribed it
    /// first. False when never started, or when exactly three of the four
    /// subscriptions failed; any other count keeps the callback and gives
    /// true, also inside a request's callback, where all four are refused.
    /// @deprecated Use SubscribeSignal.
    static bool RegisterChannelCallback(LumoraChannelCb callback, void* userData);
    /// Unsubscribes the list, programme and set-top-box subjects; the current
    /// list stays subscribed and the callback stored. False without a client;
    /// true otherwise, whatever the unsubscriptions gave.
    static bool UnRegisterChannelCallback();
    /// The bus callback of RegisterChannelCallback: hands one signal to
    /// m_fnChannelCb under m_mutex. A signal without data, a list that is not
    /// JSON or an unknown subject is dropped with a line.
    static void _SubscribeCb(const char* subject, char* data, void* user_data);
    /// @}

    /// @name Actions
    /// One-way writes; no lock is taken.
    /// @{

    /// Writes {"componentId","jsonData"} (jsonData as a string) to
    /// "Raw/Firstscreen/Action". False for a null or empty argument, when never
    /// started, or when the write could not be sent.
    /// False also, nothing sent, for an argument that is not valid UTF-8.
    static bool SetFirstscreenAction(const char* componentId, const char* jsonData);
    /// Writes {"ruleId"} to "Raw/Voice/Orvi/SetAction"; failures are only logged.
    static void SetVoiceActionRuleId(std::string ruleId);
    /// Writes {"category","cmd_name","param":[{"value"}...],"ext_param":[...]}
    /// to "Raw/Voice/Parlo/SetAction"; an empty vector leaves its key out.
    /// Failures are only logged.
    static void SetVoiceAction(std::string category, std::string cmdName, std::vector<std::string>& values,
                               std::vector<std::string>& extParams);
    /// @}

    /// @name Settings-store and recommended lists
    /// @{

    /// The hint list of type ("source", "setting" or "channel"; any other
    /// non-empty type reads the general list) from the settings store, or
    /// null, also for a null requester or a null or empty type. The caller
    /// frees the result with free(). requester is otherwise only logged. Takes
    /// no lock.
    static char* ReadHintList(const char* requester, const char* type);
    /// Leaves {"uri","data"} for the agent in the settings store. A null uri
    /// is taken as "". False when data is null or the store refuses. Takes no
    /// lock.
    static bool STAction(const char* uri, const char* data);
    /// Stores one group's item list ({"group":..., "list":...}) in the
    /// settings store's item lists. Group "AccessibilityShortCut" (with "mode"
    /// "default" or "edit") replaces the whole stored value with that one
    /// group; any other group replaces only its own entry. False for a null
    /// json, a json that does not parse or lacks "group" or "list", another
    /// shortcut mode, or when the store refuses. Takes no lock.
    static bool WriteItemList(const char* json);
    /// Asks the service (a Read) for the recommended list of json's "group"
    /// ("HomeAppReordering" or "AccessibilityShortCut"), with json as the input.
    /// A copy of the answer, or of "{error}" (another group, a json that does not
    /// parse, a failed read), for the caller to free(); null for a null or empty
    /// json.
    static char* ReadRecommendedList(const char* json);
    /// @}

    /// @name Internals
    /// Public for the library's own units and tests.
    /// @{

    /// This process's short program name, cached on first use (until the last
    /// stop). The text belongs to the class.
    static const char* _GetProcessName();
    /// Whether subject is internal: at least two characters, the first 'I'.
    /// A null subject is not internal.
    static bool _CheckInternalSubject(const char* subject);
    /// The shared signal callback: hands data to every typed record of subject,
    /// then to every untyped one, each in insertion order. The third argument
    /// is ignored. Copies the records under m_mutex and calls the callbacks
    /// with no lock held.
    static void _SubscribeCallback(const char* subject, char* data, void* ignored);

    /// Adds a record to the untyped list. False only when it cannot be
    /// allocated. m_mutex held by the caller.
    static bool _InsertSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data);
    /// The untyped record of the triple, or null. m_mutex held by the caller.
    static SubscribeDataNonType* _FindSubscribeDataNonType(std::string subject, LumoraSubjectCb callback,
                                                           void* user_data);
    /// Removes and frees the untyped records of the triple. m_mutex held by the
    /// caller.
    static void _RemoveSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data);
    /// Frees every untyped record and empties the list. m_mutex held by the
    /// caller.
    static void _RemoveAllSubscribeDataNonType();
    /// Counts the untyped records of subject. m_mutex held by the caller.
    static unsigned int _CheckSubscribeDataNonType(std::string subject);
    /// Adds a record to the typed list. False only when it cannot be
    /// allocated. m_mutex held by the caller.
    static bool _InsertSubscribeData(std::string subject, ContextSignalType type, LumoraSignalCb callback,
                                     void* user_data);
    /// The typed record of subject and callback (whatever its user data), or
    /// null. m_mutex held by the caller.
    static SubscribeData* _FindSubscribeData(std::string subject, LumoraSignalCb callback);
    /// Removes and frees every typed record of subject. m_mutex held by the
    /// caller.
    static void _RemoveSubscribeData(std::string subject);
    /// Counts the typed records of subject. m_mutex held by the caller.
    static unsigned int _CheckSubscribeData(std::string subject);
    /// Frees every typed record and empties the list. Called with m_mutex held.
    static void _RemoveAllSubscribeData();
    /// @}

    /// @name State
    /// The class's static state, public for the library's own units and
    /// tests; applications leave it alone.
    /// @{

    /// The cached program name (_GetProcessName); emptied by the last stop.
    static std::string m_strProgName;
    /// The channel callback; null until RegisterChannelCallback and after the
    /// last stop. Read and written atomically.
    static LumoraChannelCb m_fnChannelCb;
    /// The shared bus client; null until the first start, then kept.
    static DBusClient* m_pDbusClient;
    /// The start count. Guarded by m_mutex.
    static int m_nRefCnt;
    /// The service mutex: held by the starts, the stop, subscribe and
    /// unsubscribe (typed or not) and around the channel callback; always taken
    /// before the client mutex.
    static GMutex m_mutex;
    /// The untyped subscriptions, in subscription order; owns its records.
    /// Guarded by m_mutex.
    static std::vector<SubscribeDataNonType*> g_vSubscribeNonTypeList;
    /// The typed subscriptions, in subscription order; owns its records.
    /// Guarded by m_mutex.
    static std::vector<SubscribeData*> g_vSubscribeList;
    /// @}
};

#endif  // LUMORA_LMFSERVICEAPI_H
