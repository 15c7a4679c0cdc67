// DBusClient: the process's one connection to the context service.
#ifndef LUMORA_DBUSCLIENT_H
#define LUMORA_DBUSCLIENT_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <string>
#include <vector>

struct DBusClientSubscribe;
struct DBusClientRequest;

/**
 * The process-wide bus client. Obtain it with GetInstance(); the service API
 * and the object interface share it.
 *
 * Threads: operations may be called from any thread; timers, replies and
 * signals run on the thread that iterates the default GLib main context.
 * Operations that say so hold the client mutex, which is not recursive: never
 * call them from code that already holds it (for example from an
 * asynchronous-request callback).
 */
class LUMORA_EXPORT DBusClient {
public:
    /// The instance, created on first use (double-checked under the client mutex).
    static DBusClient* GetInstance();
    /// Destroys the instance, if any. The connection is not closed; the
    /// subscription and request records are not freed (Finalize does that).
    static void DeleteInstance();

    /// Copies name as this process's name, used in log lines and by the whitelist.
    void SetProcessName(const char* name);

    /// Adds the names of a whitelist text {"WhiteList":[...]} to the list.
    /// False (and the list unchanged) when the text is not JSON. The list is
    /// not cleared first. Called with the client mutex held.
    bool __SetWhiteList(const char* json);
    /// Whether this process may use internal subjects: "lumora-agent" always,
    /// otherwise only a process named in the whitelist. Takes no lock.
    bool CheckWhiteListProcess();

    static DBusClient* m_pInstance;

private:
    DBusClient();
    ~DBusClient();
    DBusClient(const DBusClient&) = delete;
    DBusClient& operator=(const DBusClient&) = delete;

    int m_nInitCnt = 0;
    GDBusConnection* m_connection = nullptr;
    guint m_subscriberID = 0;
    std::vector<DBusClientSubscribe*> m_vSubscribeList;
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
