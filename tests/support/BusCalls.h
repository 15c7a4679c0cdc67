// Plain GIO helpers for tests that talk to a private bus as a client would.
#ifndef LUMORA_TESTS_BUSCALLS_H
#define LUMORA_TESTS_BUSCALLS_H

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MainLoopThread.h"

namespace lumora::test {

using VariantPtr = std::shared_ptr<GVariant>;

/// Takes ownership of value (sinking a floating one); null stays null.
VariantPtr AdoptVariant(GVariant* value);

/// value in GVariant text form (g_variant_print), with its types when typed.
std::string PrintVariant(GVariant* value, bool typed = false);

/// A private message-bus connection to address; null (message on stderr) on failure.
GDBusConnection* ConnectToBus(const std::string& address);

/// Makes GIO's shared system-bus connection survive the end of a test's
/// private daemon (by default GIO ends the process when it loses the bus).
/// Returns the connection, owned by the caller.
GDBusConnection* SharedSystemBusKeptAlive();

bool NameHasOwner(GDBusConnection* connection, const char* name);

/// The outcome of one synchronous method call.
struct CallResult {
    VariantPtr reply;
    std::string errorName;  // D-Bus error name, e.g. org.freedesktop.DBus.Error.InvalidArgs
    std::string errorMessage;
    bool Ok() const { return reply != nullptr; }
    std::string Print() const;  // the reply in GVariant text form, or the error
};

CallResult CallMethod(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
                      const char* method, GVariant* parameters, int timeoutMs = 5000);

/// One received signal.
struct ReceivedSignal {
    std::string sender;
    std::string path;
    std::string member;
    VariantPtr parameters;
};

/**
 * Subscribes a private connection of its own to a signal and records every
 * delivery, on a thread of its own. The match rule is in place when the
 * constructor returns.
 */
class SignalRecorder {
public:
    SignalRecorder(const std::string& address, const char* sender, const char* interface, const char* member,
                   const char* path);
    ~SignalRecorder();
    SignalRecorder(const SignalRecorder&) = delete;
    SignalRecorder& operator=(const SignalRecorder&) = delete;

    GDBusConnection* Connection() const { return m_connection; }
    std::string UniqueName() const;
    std::vector<ReceivedSignal> Signals() const;
    /// Waits until at least count signals arrived.
    bool WaitForCount(size_t count, int timeoutMs) const;

private:
    static void OnSignal(GDBusConnection*, const gchar* sender, const gchar* path, const gchar*, const gchar* member,
                         GVariant* parameters, gpointer self);

    GDBusConnection* m_connection = nullptr;
    guint m_subscription = 0;
    mutable std::mutex m_mutex;
    std::vector<ReceivedSignal> m_signals;
    // Last: the thread starts once the members it uses exist, and stops
    // (in the destructor) before they go.
    MainLoopThread m_thread{true};
};

}  // namespace lumora::test

#endif
