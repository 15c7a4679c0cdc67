// A service peer that answers the library with whatever the test says,
// wrong signatures included: faults the simulator is built never to make.
#ifndef LUMORA_TESTS_MISBEHAVINGSERVICE_H
#define LUMORA_TESTS_MISBEHAVINGSERVICE_H

#include <gio/gio.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "TestBus.h"

namespace lumora::test {

/**
 * Owns "org.verdin.tv.lumora2" on the bus at address and answers every method
 * call with the reply body set for its member (GVariant text format, e.g.
 * "(true, '{}')" or "(5,)"); a member without a reply set is never answered.
 * Replies are sent below GIO's object layer, so nothing checks their types.
 */
class MisbehavingService {
public:
    explicit MisbehavingService(const std::string& address);
    ~MisbehavingService();
    MisbehavingService(const MisbehavingService&) = delete;
    MisbehavingService& operator=(const MisbehavingService&) = delete;

    bool Ok() const { return m_connection != nullptr; }
    void SetReply(const std::string& member, const std::string& body);
    /// Emits the service's "Response" signal with any body.
    bool EmitResponse(const std::string& body);

private:
    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming, gpointer self);

    GDBusConnection* m_connection = nullptr;
    std::mutex m_mutex;
    std::map<std::string, std::string> m_replies;
};

/// Creates the service's readiness marker for the life of the object (tests
/// that use it carry RESOURCE_LOCK lmf_service_ready).
class ReadyMarker {
public:
    ReadyMarker();
    ~ReadyMarker();
    ReadyMarker(const ReadyMarker&) = delete;
    ReadyMarker& operator=(const ReadyMarker&) = delete;
};

/// A private bus (named by DBUS_SYSTEM_BUS_ADDRESS) with a MisbehavingService
/// on it that answers "ServiceEnable" as enabled with an empty whitelist, and
/// the readiness marker, for the life of the object.
class MisbehavingServiceBus {
public:
    /// False (with a message on stderr) when the bus or the peer did not come up.
    bool Start();
    MisbehavingService& Service() { return *m_service; }

private:
    TestBus m_bus;
    std::unique_ptr<ReadyMarker> m_marker;
    std::unique_ptr<MisbehavingService> m_service;
};

}  // namespace lumora::test

#endif
