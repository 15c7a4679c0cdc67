// LMFServiceAPI: the process-wide façade over the bus client.
#ifndef LUMORA_LMFSERVICEAPI_H
#define LUMORA_LMFSERVICEAPI_H

#include <glib.h>
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
 * Subscribe, Unsubscribe, InitService, InitServiceWithResponse, FiniService)
 * is refused at once with false and one error line instead of hanging the
 * thread. Subscription callbacks run with no library lock held.
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
