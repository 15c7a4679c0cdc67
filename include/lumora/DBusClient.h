// DBusClient: the process's one connection to the context service.
#ifndef LUMORA_DBUSCLIENT_H
#define LUMORA_DBUSCLIENT_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// One (subject, callback) subscription of the bus client; owned by its table.
struct DBusClientSubscribe {
    std::string subject;
    LumoraSubjectCb callback = nullptr;
    void* userData = nullptr;
};

/// One asynchronous request. Owned by the pending-request table until it is
/// put on the bus, then by the call in flight, whose reply handler frees it.
struct DBusClientRequest {
    std::string subject;
    std::string input;  // empty when the caller gave none
    int32_t reqId = 0;
    LumoraSubjectCb callback = nullptr;
    bool isStatistics = false;
    void* userData = nullptr;
    int32_t initCount = 0;  // the client's init count when the request was made
};

/**
 * The process-wide bus client. Obtain it with GetInstance(); the service API
 * and the object interface share it.
 *
 * Results of the int operations: 0 success; -2 a request record could not be
 * allocated; -3 a null subject (or write input); -4 the service answered "{}"
 * (no data); -5 the bus is not connected or the service is not available; -6
 * there is no connection or the bus call failed; other negative values are the
 * service's own codes, passed through.
 *
 * Threads: operations may be called from any thread; timers, replies and
 * signals run on the thread that iterates the default GLib main context, which
 * the application must run. Operations marked "client mutex" hold it for their
 * whole run, blocking bus calls included. The mutex is not recursive, and an
 * asynchronous-request callback runs with it held: called from such a
 * callback, Initialize, Finalize, Read, Request, Subscribe, Unsubscribe and
 * DeleteInstance are refused at once (false, or -6) with one error line
 * instead of waiting for ever.
 *
 * Texts: subjects and inputs must be valid UTF-8 (they travel as D-Bus
 * strings); any other text is refused as a bad argument (-3, or false).
 */
class LUMORA_EXPORT DBusClient {
public:
    /// The instance, created on first use (double-checked under the client mutex).
    static DBusClient* GetInstance();
    /// Destroys the instance, if any. The connection is not closed and the
    /// records of the two tables are not freed (Finalize does that).
    static void DeleteInstance();

    /// Connects, listens for the service's signal and asks whether the service
    /// is enabled (client mutex). Always true; the outcome goes to *result
    /// (when not null): LMF_INIT_OK, LMF_INIT_CONNECTION_FAILED (retried every
    /// 2 s) or LMF_INIT_SERVICE_NOT_READY (rechecked every 3 s on a fresh
    /// connection). A non-null callback is stored and called once, about 1 s
    /// after the service is found ready, with a null string and userData.
    bool Initialize(LMF_INIT_RESULT* result, LumoraInitCb callback, void* userData);
    /// Drops subscriptions, pending requests, the whitelist and the timers
    /// (client mutex). The connection stays open for a later Initialize.
    /// Always true.
    bool Finalize();
    /// Copies name as this process's name, used in log lines and by the whitelist.
    void SetProcessName(const char* name);
    /// Whether the service is available. Takes no lock.
    bool IsAvailable();

    /// Reads the current value of subject (client mutex; blocks up to 1 s).
    /// On 0, *output is a new string for the caller to free(); on failure, or
    /// when the service sent no text, *output is left untouched.
    int Read(const char* subject, const char* input, char** output);
    /// Queues a write of input to subject; does not wait. Takes no lock.
    int Write(const char* subject, const char* input);
    /// Asks for subject's value without blocking (client mutex). On 0 the
    /// callback is called once later, on the main-loop thread, with the client
    /// mutex held: with the value, with {"Status":"Error"} (a service error or
    /// the bus time-out of 25 s), or for the five statistics subjects with a
    /// StatisticsResult* whose records are freed when it returns. It is not
    /// called for an answer that arrives after the service's "BYE" or after a
    /// new Initialize; such an answer is dropped with a log line. -5 when the
    /// bus is not connected or the service not available (nothing is kept),
    /// -3 for a null or non-UTF-8 subject or input.
    int Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData);
    /// Adds (subject, callback); the service is told when the subject gets its
    /// first local subscriber, and again after each "HELLO". True when added,
    /// or when the bus is not connected (then nothing is stored); false for a
    /// duplicate pair, whatever its userData. The callback runs on the
    /// main-loop thread with no lock held, once per notification, in the
    /// order the pairs were added; a null callback is skipped with a line.
    bool Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
    /// Removes (subject, callback); the service is told when the subject loses
    /// its last local subscriber. True when removed or the bus is not
    /// connected; false when the pair is unknown.
    bool Unsubscribe(const char* subject, LumoraSubjectCb callback);

    /// Adds the names of a whitelist text {"WhiteList":[...]} to the list.
    /// False (and the list unchanged) when the text is not JSON. The list is
    /// not cleared first. Called with the client mutex held.
    bool __SetWhiteList(const char* json);
    /// Whether this process may use internal subjects: "lumora-agent" always,
    /// otherwise only a process named in the whitelist. Takes no lock.
    bool CheckWhiteListProcess();

    // Building blocks of the operations above. Those that the description
    // marks "caller's lock" expect the client mutex to be held.
    // __RequestAsync expects texts that Request has checked (UTF-8).
    bool __IsLMFServiceReady();
    bool __IsServiceEnable();
    int __GenerateSeqId();
    int __RequestSync(int type, int reqId, const char* subject, const char* input, char** output);
    int __WriteAsync(int type, int reqId, const char* subject, const char* input, char** output = nullptr);
    int __RequestAsync(int type, int reqId, const char* subject, const char* input, DBusClientRequest* pRequest);
    DBusClientRequest* FindRequest(int reqId);
    void EraseRequest(int reqId);
    void __DeleteAllRequests();
    bool __InsertSubscribe(const char* subject, LumoraSubjectCb callback, void* userData);
    bool __DeleteSubscribe(const char* subject, LumoraSubjectCb callback);
    DBusClientSubscribe* FindSubscribe(const char* subject);
    DBusClientSubscribe* FindSubscribe(const char* subject, LumoraSubjectCb callback);
    bool FindSubscribesVector(const char* subject, std::vector<DBusClientSubscribe*>& out);
    void __DeleteAllSubscribes();
    void SubscribeStateCheck(const char* subject, const char* data);
    bool __GetReqIdFromServerMessage(const char* subject, const char* data, int& reqType);
    void __ResponseDataParsing(const char* subject, GVariant* data, StatisticsResult& out);
    void __DataFree(const char* subject, StatisticsResult& out);

    // Timer bodies: true keeps the timer, false removes it.
    gboolean InitTimeoutCb();
    gboolean RecheckTimeoutCb();
    gboolean ReConnectTimeoutCb();

    /// Handler of the service's "Response" signal (user data: the client).
    static void OnSubscribe(GDBusConnection* connection, const gchar* sender, const gchar* objectPath,
                            const gchar* interfaceName, const gchar* signalName, GVariant* parameters,
                            gpointer userData);
    /// Completion handler of "RequestAsync" (user data: the DBusClientRequest).
    static void OnResponseAsync(GObject* source, GAsyncResult* result, gpointer userData);

    static DBusClient* m_pInstance;

private:
    friend class DBusClientInternal;  // the implementation's own helpers, not exported

    DBusClient();
    ~DBusClient();
    DBusClient(const DBusClient&) = delete;
    DBusClient& operator=(const DBusClient&) = delete;

    int m_nInitCnt = 0;
    GDBusConnection* m_connection = nullptr;
    guint m_subscriberID = 0;
    std::vector<DBusClientSubscribe*> m_vSubscribeList;
    // The records of m_vSubscribeList by subject, each subject's in their
    // order in the table, so that a signal finds its subject's records
    // without comparing it with every subscribed subject. Owns nothing; it
    // changes with the table, under the client mutex.
    std::map<std::string, std::vector<DBusClientSubscribe*>, std::less<>> m_subscribeIndex;
    std::vector<DBusClientRequest*> m_vRequestList;
    guint m_nReConnectTimerId = 0;
    bool m_bServiceAvailable = false;
    bool m_bBusConnected = false;
    std::string m_strProcessName;
    LumoraInitCb m_fnInitCb = nullptr;
    void* m_pInitUserData = nullptr;
    guint m_nInitCbTimerId = 0;
    guint m_nRecheckTimerId = 0;
    int m_nRecheckCnt = 0;
    std::vector<std::string> m_vWhiteList;

    static GMutex m_clientMutex;
};

#endif  // LUMORA_DBUSCLIENT_H
