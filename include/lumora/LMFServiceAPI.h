// LMFServiceAPI: the process-wide façade over the bus client.
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
    std::string subject;
    LumoraSubjectCb callback = nullptr;
    void* user_data = nullptr;
};

/// One subscription of an application callback to a typed context signal;
/// owned by LMFServiceAPI::g_vSubscribeList.
struct SubscribeData {
    std::string subject;
    ContextSignalType type = CONTEXT_SIGNAL_MOST_WATCHED;
    LumoraSignalCb callback = nullptr;
    void* user_data = nullptr;
};

/// The channel callback: event, data (a copy), count, user data.
typedef void (*LumoraChannelCb)(LMF_EVENT_TYPE event, std::string data, int count, void* userData);

/// Filters the channel list document in by the source type that
/// LMFServiceAPI::SetSourceAndModel stored: out gets "ChList" (the kept
/// entries in their order, none of channel type 9, none with a null or absent
/// "ChType" member), "Size" (= count) and "Status" ("Success" when an entry
/// was kept; otherwise "Error" with "Reason" "The list is empty."). An entry
/// whose "SrcType" is not exactly "RF" (source LMF_SRC_RF) or "STB"
/// (LMF_SRC_STB) is dropped; LMF_SRC_ALL keeps every entry. Takes no lock.
LUMORA_EXPORT void _GetChannelListUsingSrcFilter(ContextData& in, ContextData& out, int& count);

/**
 * Static members only. Starts and stops are counted: the first start creates
 * the shared DBusClient and initialises it, the last stop finalises it.
 *
 * Locks: InitService, InitServiceWithResponse, FiniService, Subscribe and
 * Unsubscribe hold m_mutex for their whole run and take the client mutex
 * inside it; m_mutex is always taken first. Read, Write and Request take no
 * lock of their own (the bus client serialises reads and requests). Results
 * are true on success; failures are logged.
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
    /// Starts (or counts another start of) the service connection. False when
    /// the platform's feature switch disables the service. True otherwise,
    /// whether or not the service is ready yet: ask IsAvailable().
    static bool InitService();
    /// Like InitService but without consulting the feature switch, and
    /// reporting the outcome (LMF_INIT_OK, LMF_INIT_CONNECTION_FAILED,
    /// LMF_INIT_SERVICE_NOT_READY). On a first start callback is called once
    /// from the main loop when the service is ready, with a null string; when
    /// the service is already in use, 0 is returned and callback is never
    /// called.
    static LMF_INIT_RESULT InitServiceWithResponse(LumoraInitCb callback, void* userData);
    /// Counts a stop; the last one drops every subscription and finalises the
    /// bus client (which is kept for a later start). False when never started.
    static bool FiniService();
    /// Whether the service can be used now. Takes no lock.
    static bool IsAvailable();
    /// Stores the source type (which channel-list entries the application
    /// sees) and the model type. Always true. Takes no lock.
    static bool SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model);
    /// The stored pair; LMF_SRC_ALL and LMF_MODEL_DEFAULT until set. Always true.
    static bool GetSourceAndModel(LMF_SRC_TYPE& source, LMF_MODEL_TYPE& model);

    /// Reads subject's current value into output (replacing it). False when
    /// the service gave no value, is not available, or the subject is internal
    /// and this process is not on the service's whitelist; output is then
    /// unchanged. subject must not be null.
    static bool Read(const char* subject, const char* input, std::string& output);
    /// Queues a write of input to subject. Any process may write any subject.
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
    /// then the client mutex.
    static bool Subscribe(const char* subject, LumoraSubjectCb callback, void* user_data);
    /// Removes the triple, and asks the bus client to remove (subject,
    /// callback). The result is the bus client's: true when it removed the
    /// pair or the bus is not connected, false when it did not know the pair.
    /// False as Subscribe for an invalid or refused subject.
    static bool Unsubscribe(const char* subject, LumoraSubjectCb callback, void* user_data);

    /// Subscribes callback to the typed signal type (CONTEXT_SIGNAL_*). The
    /// first callback of a type registers the shared _SubscribeCallback with
    /// the bus client (one bus subscription per type), and its result is the
    /// bus client's; later callbacks of the type are only added (true). The
    /// callback runs on the main-loop thread with no library lock held, once
    /// per signal, with its type and user_data; data is valid during the call
    /// only. False for an unknown type, or a callback already subscribed to
    /// the type (whatever its user_data). Takes m_mutex, then the client mutex.
    static bool SubscribeSignal(ContextSignalType type, LumoraSignalCb callback, void* user_data);
    /// Drops every callback of type and the bus subscription; the bus
    /// client's result (false when it did not know it). False for an unknown
    /// type.
    static bool UnsubscribeSignal(ContextSignalType type);
    /// The subject of type, or "" (after an error line) for an unknown type.
    static std::string _ConvertSignalTypeToSubject(ContextSignalType type);

    /// Reads the channel list and filters it (_GetChannelListUsingSrcFilter)
    /// when the service says "Success"; otherwise list is the service's
    /// answer as it came and count 0. True whenever an answer was read, also
    /// when nothing was kept (its "Status" is then "Error"). False when the
    /// service gave no answer or the answer is not JSON.
    static bool GetChannelList(std::string& list, int& count);
    /// Sends channels as a candidate order for source and replaces them with
    /// the service's order. False, with channels unchanged, for an empty
    /// vector, no answer or an answer that is not JSON.
    static bool ReorderChannelList(std::vector<LMF_CHANNEL_ELEM>& channels, int source);
    /// Withdrawn: always false, ids untouched. Use ReorderChannelList.
    static bool ReorderChannelListFromSourceID(std::vector<std::string>& ids);
    /// Asks the service to remove a channel (a one-way write). False when the
    /// write could not be sent.
    static bool RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type);
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
    /// False only when exactly three of the four subscriptions failed.
    static bool RegisterChannelCallback(LumoraChannelCb callback, void* userData);
    /// Unsubscribes the list, programme and set-top-box subjects; the current
    /// list stays subscribed and the callback stored. False without a client.
    static bool UnRegisterChannelCallback();
    /// The bus callback of RegisterChannelCallback: hands one signal to
    /// m_fnChannelCb under m_mutex.
    static void _SubscribeCb(const char* subject, char* data, void* user_data);

    /// Writes {"componentId","jsonData"} (jsonData as a string) to
    /// "Raw/Firstscreen/Action". False for a null or empty argument or when
    /// the write could not be sent.
    static bool SetFirstscreenAction(const char* componentId, const char* jsonData);
    /// Writes {"ruleId"} to "Raw/Voice/Orvi/SetAction"; failures are only logged.
    static void SetVoiceActionRuleId(std::string ruleId);
    /// Writes {"category","cmd_name","param":[{"value"}...],"ext_param":[...]}
    /// to "Raw/Voice/Parlo/SetAction"; an empty vector leaves its key out.
    /// Failures are only logged.
    static void SetVoiceAction(std::string category, std::string cmdName, std::vector<std::string>& values,
                               std::vector<std::string>& extParams);

    /// The hint list of type ("source", "setting" or "channel"; any other
    /// non-empty type reads the general list) from the settings store, or
    /// null. The caller frees the result with free(). requester is only logged.
    static char* ReadHintList(const char* requester, const char* type);
    /// Leaves {"uri","data"} for the agent in the settings store. A null uri
    /// is taken as "". False when data is null or the store refuses.
    static bool STAction(const char* uri, const char* data);
    /// Stores one group's item list ({"group":..., "list":...}) in the
    /// settings store's item lists. Group "AccessibilityShortCut" (with "mode"
    /// "default" or "edit") replaces the whole stored value with that one
    /// group; any other group replaces only its own entry.
    static bool WriteItemList(const char* json);
    /// Asks the service for the recommended list of json's "group"
    /// ("HomeAppReordering" or "AccessibilityShortCut"). A copy of the answer,
    /// or of "{error}", for the caller to free(); null for a null or empty json.
    static char* ReadRecommendedList(const char* json);

    /// This process's short program name, cached on first use.
    static const char* _GetProcessName();
    /// Whether subject is internal: at least two characters, the first 'I'.
    /// A null subject is not internal.
    static bool _CheckInternalSubject(const char* subject);
    /// The shared signal callback: hands data to every typed record of subject,
    /// then to every untyped one, each in insertion order. The third argument
    /// is ignored. Calls the callbacks with no lock held.
    static void _SubscribeCallback(const char* subject, char* data, void* ignored);

    // The untyped list, used with m_mutex held. Insert is false only when the
    // record cannot be allocated; Check counts the records of subject.
    static bool _InsertSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data);
    static SubscribeDataNonType* _FindSubscribeDataNonType(std::string subject, LumoraSubjectCb callback,
                                                           void* user_data);
    static void _RemoveSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data);
    static void _RemoveAllSubscribeDataNonType();
    static unsigned int _CheckSubscribeDataNonType(std::string subject);
    // The typed list, used with m_mutex held. A record is known by its
    // subject and callback; Remove drops every record of subject.
    static bool _InsertSubscribeData(std::string subject, ContextSignalType type, LumoraSignalCb callback,
                                     void* user_data);
    static SubscribeData* _FindSubscribeData(std::string subject, LumoraSignalCb callback);
    static void _RemoveSubscribeData(std::string subject);
    static unsigned int _CheckSubscribeData(std::string subject);
    /// Frees every typed record and empties the list. Called with m_mutex held.
    static void _RemoveAllSubscribeData();

    static std::string m_strProgName;
    static LumoraChannelCb m_fnChannelCb;
    static DBusClient* m_pDbusClient;
    static int m_nRefCnt;
    static GMutex m_mutex;
    static std::vector<SubscribeDataNonType*> g_vSubscribeNonTypeList;
    static std::vector<SubscribeData*> g_vSubscribeList;
};

#endif  // LUMORA_LMFSERVICEAPI_H
