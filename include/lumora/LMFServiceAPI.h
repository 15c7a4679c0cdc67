// LMFServiceAPI: the process-wide façade over the bus client.
#ifndef LUMORA_LMFSERVICEAPI_H
#define LUMORA_LMFSERVICEAPI_H

#include <glib.h>
#include <lumora/DBusClient.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <string>
#include <vector>

/// One subscription of an application callback to a subject.
struct SubscribeDataNonType {
    std::string subject;
    LumoraSubjectCb callback = nullptr;
    void* user_data = nullptr;
};

/// One subscription of an application callback to a typed context signal.
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
 * Locks: InitService, InitServiceWithResponse and FiniService hold m_mutex for
 * their whole run and take the client mutex inside it; m_mutex is always
 * taken first. Read and Write take no lock of their own (the bus client
 * serialises reads). Results are true on success; failures are logged.
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
    /// Free every typed (resp. untyped) subscription record and empty the list.
    /// Called with m_mutex held.
    static void _RemoveAllSubscribeData();
    static void _RemoveAllSubscribeDataNonType();

    static std::string m_strProgName;
    static LumoraChannelCb m_fnChannelCb;
    static DBusClient* m_pDbusClient;
    static int m_nRefCnt;
    static GMutex m_mutex;
    static std::vector<SubscribeDataNonType*> g_vSubscribeNonTypeList;
    static std::vector<SubscribeData*> g_vSubscribeList;
};

#endif  // LUMORA_LMFSERVICEAPI_H
