// The library against lumora-sim on a private bus, watched by a bus monitor
// and a log capture.
#ifndef LUMORA_TESTS_SERVICE_SERVICEFIXTURE_H
#define LUMORA_TESTS_SERVICE_SERVICEFIXTURE_H

#include <errno.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "BusMonitor.h"
#include "CallbackRecorder.h"
#include "ControlContract.h"
#include "LogCapture.h"
#include "MainLoopThread.h"
#include "SimProcess.h"
#include "SimStatus.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

using Clock = std::chrono::steady_clock;

/// Milliseconds since start, for the timings the tests print.
inline double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// The line with which the service API refuses a subscription it already
/// holds: "already subscribed subject[%s]cb[%p], ".
template <typename Callback>
std::string AlreadySubscribed(const char* subject, Callback callback) {
    char pointer[32];
    snprintf(pointer, sizeof pointer, "%p", reinterpret_cast<const void*>(callback));
    return std::string("already subscribed subject[") + subject + "]cb[" + pointer + "], ";
}

/// Writes into dir the sample scenario with subject's value replaced by
/// value (JSON text), and returns its path.
inline std::string ScenarioWithValue(const TempDir& dir, const std::string& subject, const std::string& value) {
    std::ifstream in(SampleScenario());
    Json::Value root;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr));
    std::istringstream text(value);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &root["values"][subject], nullptr));
    return dir.Write("changed.json", Json::writeString(Json::StreamWriterBuilder(), root));
}

class ServiceTest : public testing::Test {
protected:
    void SetUp() override {
        // Not on the sample scenario's whitelist.
        program_invocation_short_name = const_cast<char*>("myapp");
        ASSERT_TRUE(m_bus.Start());
        m_monitor = std::make_unique<BusMonitor>(m_bus.Address());
        ASSERT_TRUE(m_monitor->Ok());
        ASSERT_TRUE(m_sim.Start(Scenario()));
        m_control = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_control);
    }

    void TearDown() override {
        while (LMFServiceAPI::m_nRefCnt > 0) Lumora_FiniService();
        m_sim.Stop();
        if (m_control != nullptr) g_object_unref(m_control);
    }

    virtual std::string Scenario() { return SampleScenario(); }

    CallResult Control(const char* method, GVariant* parameters = nullptr) {
        return CallControl(m_control, method, parameters);
    }

    DBusClient* Client() { return LMFServiceAPI::m_pDbusClient; }

    /// What the library sent to the service (not the test's own calls), up
    /// to now: every call of the library that has returned is included.
    std::vector<BusMessage> LibraryCalls(const std::string& member = "") {
        m_monitor->Settle(m_control);
        std::vector<BusMessage> calls;
        std::string own = g_dbus_connection_get_unique_name(m_control);
        for (const BusMessage& call : m_monitor->Calls(member)) {
            if (call.sender != own) calls.push_back(call);
        }
        return calls;
    }

    /// The subject's value as the simulator answers a plain GIO client.
    std::string SimValue(const std::string& subject) { return ServiceValue(m_control, subject); }

    /// The library's writes, once count of them reached the bus: a write is
    /// only queued, so the library's call returns before its message leaves.
    std::vector<BusMessage> LibraryWrites(size_t count) {
        EXPECT_TRUE(m_monitor->WaitForCalls(count, 5000, "Write"));
        return LibraryCalls("Write");
    }

    /// The simulator's state as "lumora-sim ctl status" shows it; null when
    /// it could not be had.
    Json::Value SimStatus() { return SimStatusOver(m_control); }

    /// The clients the simulator holds as subscribers of subject.
    std::vector<std::string> SimSubscribers(const std::string& subject) {
        std::vector<std::string> clients;
        const Json::Value status = SimStatus();
        for (const Json::Value& client : status["subscriptions"][subject]) clients.push_back(client.asString());
        return clients;
    }

    /// Sends the service's "Response" signal for subject to its subscribers.
    bool Emit(const std::string& subject, const std::string& data) {
        return Control(lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
    }

    /// The log records of this process since the mark: the simulator writes
    /// to the same log.
    std::vector<LogRecord> OwnRecords() const {
        std::vector<LogRecord> own;
        for (const LogRecord& record : m_log.Records())
            if (record.pid == getpid()) own.push_back(record);
        return own;
    }

    /// Gives subject a new value in the simulator.
    bool SetSimValue(const std::string& subject, const std::string& data) {
        return Control(lumora::sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
    }

    TempDir m_dir;
    LogCapture m_log;
    TestBus m_bus;
    std::unique_ptr<BusMonitor> m_monitor;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
};

/// For requests and subscriptions: Start() starts the library against the
/// simulator; the default main context runs on m_loop's thread, and the
/// callbacks record what they get in CallbackRecorder.
class EventTest : public ServiceTest {
protected:
    void SetUp() override {
        CallbackRecorder::Instance().Clear();
        ServiceTest::SetUp();
    }

    /// Starts the library; the log and the monitor then begin afresh.
    void Start() {
        ASSERT_TRUE(Lumora_InitService());
        ASSERT_TRUE(LMFServiceAPI::IsAvailable());
        // The start's "ServiceEnable" has been answered, but the monitor may
        // not have recorded it yet: cleared before that, it would show up
        // among the calls of the test. The log is marked after the settling
        // call, which the simulator logs too: once it has served it, which
        // may be after the monitor saw the call go by (on a slow machine, or
        // under an emulator).
        m_monitor->Settle(m_control);
        const std::string served = " subject:" + m_monitor->LastSettleSubject() + " ";
        EXPECT_TRUE(WaitUntil(
            [&] {
                for (const std::string& line : m_log.Lines())
                    if (line.find(served) != std::string::npos) return true;
                return false;
            },
            5000))
            << "the simulator did not log the settling call" << m_log.Dump();
        m_log.Mark();
        m_monitor->Clear();
    }

    static CallbackRecorder& Recorder() { return CallbackRecorder::Instance(); }

    /// Subscribe (3) and unsubscribe (4) messages the library sent, as "3 subject".
    std::vector<std::string> SubscriptionTraffic() {
        std::vector<std::string> traffic;
        for (const BusMessage& call : LibraryCalls("RequestSync")) {
            if (call.requestType == 3 || call.requestType == 4) {
                EXPECT_EQ("{}", call.input);
                traffic.push_back(std::to_string(call.requestType) + " " + call.subject);
            }
        }
        return traffic;
    }

    MainLoopThread m_loop;
};

}  // namespace lumora::test

#endif
