// A private bus, a log file and a plain GIO client for the simulator's tests;
// each test starts lumora-sim itself, with the scenario it needs.
#ifndef LUMORA_TESTS_SIM_SIMFIXTURE_H
#define LUMORA_TESTS_SIM_SIMFIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

#include "BusCalls.h"
#include "ControlContract.h"
#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"
#include "internal/ServiceContract.h"

namespace lumora::test {

namespace contract = lumora::contract;

class SimTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Start());
        m_client = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_client);
    }
    void TearDown() override {
        m_sim.Stop();
        if (m_client != nullptr) g_object_unref(m_client);
    }

    /// Writes a scenario file into the test's folder and returns its path.
    std::string ScenarioFile(const std::string& json) { return m_dir.Write("scenario.json", json); }

    CallResult Service(const char* method, GVariant* parameters, int timeoutMs = 5000) {
        return CallMethod(m_client, contract::kBusName, contract::kObjectPath, contract::kInterface, method, parameters,
                          timeoutMs);
    }
    CallResult ServiceEnable() { return Service(contract::kMethodServiceEnable, nullptr); }
    CallResult RequestSync(int type, const std::string& subject, const std::string& input = "", int timeoutMs = 5000) {
        return Service(contract::kMethodRequestSync, Request(type, subject, input), timeoutMs);
    }
    CallResult Read(const std::string& subject, const std::string& input = "") {
        return RequestSync(contract::kRequestRead, subject, input);
    }
    CallResult RequestAsync(const std::string& subject, const std::string& input = "") {
        return Service(contract::kMethodRequestAsync, Request(contract::kRequestAsync, subject, input));
    }
    CallResult Write(const std::string& subject, const std::string& data) {
        return Service(contract::kMethodWrite, Request(contract::kRequestWrite, subject, data));
    }
    CallResult Control(const char* method, GVariant* parameters = nullptr, int timeoutMs = 10000) {
        return CallControl(m_client, method, parameters, timeoutMs);
    }
    /// The control object's status JSON, or the printed error.
    std::string Status() {
        CallResult result = Control(lumora::sim::kCtlGetStatus);
        if (!result.Ok()) return result.Print();
        const gchar* text = nullptr;
        g_variant_get(result.reply.get(), "(&s)", &text);
        return text;
    }
    bool StatusContains(const std::string& part) { return Status().find(part) != std::string::npos; }
    bool WaitForStatus(const std::string& part) {
        return WaitUntil([&] { return StatusContains(part); }, 10000);
    }
    /// Subscribes connection (a listener's own) to subject, as the library does.
    CallResult SubscribeFrom(GDBusConnection* connection, int type, const std::string& subject) {
        return CallMethod(connection, contract::kBusName, contract::kObjectPath, contract::kInterface,
                          contract::kMethodRequestSync, Request(type, subject, contract::kEmptyJson));
    }
    /// A listener for the service's "Response" signal from any sender.
    std::unique_ptr<SignalRecorder> Listener() {
        return std::make_unique<SignalRecorder>(m_bus.Address(), nullptr, contract::kInterface,
                                                contract::kSignalResponse, contract::kObjectPath);
    }

    /// Reads subject on a connection of its own, off the test's thread, so that
    /// the test can go on while the answer is late or held.
    std::future<CallResult> ReadInBackground(const std::string& subject, int timeoutMs) {
        std::string address = m_bus.Address();
        return std::async(std::launch::async, [address, subject, timeoutMs] {
            GDBusConnection* connection = ConnectToBus(address);
            CallResult result =
                CallMethod(connection, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodRequestSync, Request(contract::kRequestRead, subject, ""), timeoutMs);
            g_object_unref(connection);
            return result;
        });
    }

    static GVariant* Request(int type, const std::string& subject, const std::string& input) {
        static std::atomic<int> reqId{0};  // background reads build requests too
        return g_variant_new(contract::kRequestTuple, static_cast<gint32>(getpid()), type, ++reqId, subject.c_str(),
                             input.c_str());
    }
    /// The "(is)" reply's text, or the printed error.
    static std::string Text(const CallResult& result) {
        if (!result.Ok()) return result.Print();
        const gchar* text = nullptr;
        g_variant_get_child(result.reply.get(), 1, "&s", &text);
        return text;
    }
    static std::string Printed(GVariant* value) { return PrintVariant(value); }

    LogCapture m_log;
    TempDir m_dir;
    TestBus m_bus;
    SimProcess m_sim;
    GDBusConnection* m_client = nullptr;
};

}  // namespace lumora::test

#endif
