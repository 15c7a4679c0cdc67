// Records what goes over the private bus to and from the context service.
#ifndef LUMORA_TESTS_BUSMONITOR_H
#define LUMORA_TESTS_BUSMONITOR_H

#include <gio/gio.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace lumora::test {

/// One message seen on the bus.
struct BusMessage {
    std::string type;  // "method_call", "signal", "method_return", "error"
    std::string sender;
    std::string destination;
    std::string member;
    std::string signature;
    std::string body;       // g_variant_print of the body, "" when empty
    std::string errorName;  // of an error reply
    // The request tuple of "RequestSync", "RequestAsync" and "Write".
    int pid = 0;
    int requestType = 0;
    int requestId = 0;
    std::string subject;
    std::string input;
};

/**
 * A monitor connection (org.freedesktop.DBus.Monitoring.BecomeMonitor) on the
 * bus at address: every method call to "org.verdin.tv.lumora2", every signal
 * of its interface, every error reply and every AddMatch and RemoveMatch call
 * to the bus is recorded, in bus order.
 */
class BusMonitor {
public:
    explicit BusMonitor(const std::string& address);
    ~BusMonitor();
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    bool Ok() const { return m_connection != nullptr; }
    /// Method calls to the service, optionally only of one member.
    std::vector<BusMessage> Calls(const std::string& member = "") const;
    /// AddMatch and RemoveMatch calls to the bus (body: the rule).
    std::vector<BusMessage> MatchRuleCalls() const;
    /// Signals of the service's interface.
    std::vector<BusMessage> Signals() const;
    /// Everything recorded, in bus order.
    std::vector<BusMessage> Messages() const;
    /// Waits until at least count calls (of member, if given) were seen.
    bool WaitForCalls(size_t count, int timeoutMs, const std::string& member = "") const;
    /// Sends a call of its own to the service on client and waits until the
    /// monitor saw it: the bus passed on before it everything it had taken
    /// from any connection, so every call that has been answered by now is
    /// recorded. The call itself is left out of Calls(). False when it was
    /// not seen (no service owns the name, for one).
    bool Settle(GDBusConnection* client, int timeoutMs = 2000);
    /// The subject of the last settling call.
    std::string LastSettleSubject() const;
    /// Forgets what was seen so far.
    void Clear();

private:
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer self);

    GDBusConnection* m_connection = nullptr;
    std::atomic<bool> m_monitoring{false};
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<BusMessage> m_messages;
    int m_settles = 0;
};

}  // namespace lumora::test

#endif
