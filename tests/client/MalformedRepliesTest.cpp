// Replies and signals of an unexpected type are failures with a log line,
// never a crash or a GLib critical.
#include <errno.h>
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>

#include <atomic>
#include <mutex>
#include <string>

#include "LogCapture.h"
#include "MainLoopThread.h"
#include "MisbehavingService.h"
#include "TestBus.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::MainLoopThread;
using lumora::test::MisbehavingService;
using lumora::test::ReadyMarker;
using lumora::test::TestBus;
using lumora::test::WaitUntil;

constexpr const char* kEnabled = "(true, '{\"WhiteList\":[\"myapp\"]}')";

struct Received {
    std::mutex mutex;
    std::atomic<int> calls{0};
    std::string subject;
    std::string data;
    int statisticsCount = -1;
};

void Record(const char* subject, char* data, void* user) {
    auto* received = static_cast<Received*>(user);
    std::lock_guard<std::mutex> lock(received->mutex);
    ++received->calls;
    received->subject = subject;
    received->data = data;
}

void RecordStatistics(const char* subject, char* data, void* user) {
    auto* received = static_cast<Received*>(user);
    std::lock_guard<std::mutex> lock(received->mutex);
    ++received->calls;
    received->subject = subject;
    received->statisticsCount = reinterpret_cast<StatisticsResult*>(data)->count;
}

class MalformedRepliesTest : public testing::Test {
protected:
    void SetUp() override {
        // A critical or warning from GLib ends the test with a crash.
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
        program_invocation_short_name = const_cast<char*>("myapp");
        ASSERT_TRUE(m_bus.Start());
        m_service.reset(new MisbehavingService(m_bus.Address()));
        ASSERT_TRUE(m_service->Ok());
    }

    void TearDown() override {
        Lumora_FiniService();
        m_service.reset();
    }

    DBusClient* Client() { return LMFServiceAPI::m_pDbusClient; }

    // Starts the library against the service, which answers "RequestAsync"
    // with reply, and waits for the callback of one request for subject.
    void RequestAnsweredWith(const std::string& reply, const char* subject, LumoraSubjectCb callback,
                             Received& received) {
        m_service->SetReply("ServiceEnable", kEnabled);
        m_service->SetReply("RequestAsync", reply);
        ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
        ASSERT_EQ(0, Client()->Request(subject, nullptr, callback, &received));
        ASSERT_TRUE(WaitUntil([&] { return received.calls > 0; }, 5000));
    }

    TestBus m_bus;
    ReadyMarker m_marker;
    LogCapture m_log;
    std::unique_ptr<MisbehavingService> m_service;
};

TEST_F(MalformedRepliesTest, ReadAnsweredWithAnotherSignatureFailsWithMinusSix) {
    m_service->SetReply("ServiceEnable", kEnabled);
    m_service->SetReply("RequestSync", "('only text',)");
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    char* output = nullptr;
    EXPECT_EQ(-6, Client()->Read("Ctx/App/Info/Current", nullptr, &output));
    EXPECT_EQ(nullptr, output);
    EXPECT_TRUE(m_log.Has("unexpected reply (s), expected (is), reqId:1", 'E')) << m_log.Dump();
    EXPECT_EQ(nullptr, Lumora_Read("Ctx/App/Info/Current", nullptr));
    EXPECT_TRUE(m_log.Has("error -6", 'E')) << m_log.Dump();
}

TEST_F(MalformedRepliesTest, ReadAnsweredWithSwappedFieldsFailsWithMinusSix) {
    m_service->SetReply("ServiceEnable", kEnabled);
    m_service->SetReply("RequestSync", "('{}', 0)");
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    char* output = nullptr;
    EXPECT_EQ(-6, Client()->Read("Ctx/App/Info/Current", "{}", &output));
    EXPECT_TRUE(m_log.Has("unexpected reply (si), expected (is), reqId:1", 'E')) << m_log.Dump();
}

TEST_F(MalformedRepliesTest, ServiceEnableAnsweredWithAnotherSignatureMeansNotEnabled) {
    m_service->SetReply("ServiceEnable", "(1, 'x')");
    EXPECT_EQ(LMF_INIT_SERVICE_NOT_READY, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("Error : unexpected reply (is), expected (bs)", 'E')) << m_log.Dump();
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
}

TEST_F(MalformedRepliesTest, ServiceEnableWithAnInvalidWhiteListKeepsTheListEmpty) {
    m_service->SetReply("ServiceEnable", "(true, 'not json')");
    EXPECT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("Json Parsing Failed", 'E')) << m_log.Dump();
    EXPECT_FALSE(Client()->CheckWhiteListProcess());
}

TEST_F(MalformedRepliesTest, ResponseSignalOfAnotherSignatureIsDropped) {
    MainLoopThread loop;
    m_service->SetReply("ServiceEnable", kEnabled);
    m_service->SetReply("RequestSync", "(0, '{}')");
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    Received received;
    ASSERT_TRUE(Client()->Subscribe("Ctx/App/Info/Changed", Record, &received));
    ASSERT_TRUE(m_service->EmitResponse("('Ctx/App/Info/Changed', 'wrong')"));
    ASSERT_TRUE(m_service->EmitResponse("(0, 'Ctx/App/Info/Changed', 'right')"));
    ASSERT_TRUE(WaitUntil([&] { return received.calls > 0; }, 5000));
    EXPECT_TRUE(m_log.Has("unexpected signal (ss), expected (iss)", 'E')) << m_log.Dump();
    std::lock_guard<std::mutex> lock(received.mutex);
    EXPECT_EQ(1, received.calls);
    EXPECT_EQ("right", received.data);
}

TEST_F(MalformedRepliesTest, AsyncReplyOfAnotherSignatureGivesTheErrorText) {
    MainLoopThread loop;
    Received received;
    ASSERT_NO_FATAL_FAILURE(
        RequestAnsweredWith("(0, 'Ctx/App/Info/Current')", "Ctx/App/Info/Current", Record, received));
    std::lock_guard<std::mutex> lock(received.mutex);
    EXPECT_EQ("{\"Status\":\"Error\"}", received.data);
    EXPECT_EQ("Ctx/App/Info/Current", received.subject);
    EXPECT_TRUE(m_log.Has("unexpected reply (is), expected (isv), reqId:1", 'E')) << m_log.Dump();
}

TEST_F(MalformedRepliesTest, AsyncTextPayloadOfAnotherTypeGivesTheErrorText) {
    MainLoopThread loop;
    Received received;
    ASSERT_NO_FATAL_FAILURE(
        RequestAnsweredWith("(0, 'Ctx/App/Info/Current', <42>)", "Ctx/App/Info/Current", Record, received));
    std::lock_guard<std::mutex> lock(received.mutex);
    EXPECT_EQ("{\"Status\":\"Error\"}", received.data);
    EXPECT_TRUE(m_log.Has("unexpected payload i, expected (s)", 'E')) << m_log.Dump();
}

TEST_F(MalformedRepliesTest, StatisticsPayloadOfAnotherTypeGivesAnEmptyResult) {
    MainLoopThread loop;
    Received received;
    ASSERT_NO_FATAL_FAILURE(RequestAnsweredWith("(0, 'I/TallyDB/Genre/Duration', <[(uint32 1, uint32 2)]>)",
                                                "I/TallyDB/Genre/Duration", RecordStatistics, received));
    std::lock_guard<std::mutex> lock(received.mutex);
    EXPECT_EQ(0, received.statisticsCount);
}

}  // namespace
