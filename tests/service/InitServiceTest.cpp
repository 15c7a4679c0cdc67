// Starting and stopping the service connection against the simulator:
// results, callbacks, timers, counting and the log lines.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;
using Clock = std::chrono::steady_clock;

struct InitCallback {
    std::atomic<int> calls{0};
    std::atomic<bool> nullData{false};
    std::atomic<void*> userData{nullptr};
    std::atomic<long long> calledAtMs{0};
};

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

void OnInit(char* data, void* user) {
    auto* cb = static_cast<InitCallback*>(user);
    cb->nullData = data == nullptr;
    cb->userData = user;
    cb->calledAtMs = NowMs();
    ++cb->calls;
}

// Whether the library took note of a "HELLO" from the service.
bool HeardHello(const LogCapture& log) {
    for (const LogRecord& record : log.Records()) {
        if (record.text.rfind("[myapp] HELLO, ", 0) == 0) return true;
    }
    return false;
}

class InitServiceTest : public ServiceTest {};

TEST_F(InitServiceTest, InitServiceConnectsAsksTheServiceAndMakesItAvailable) {
    EXPECT_TRUE(Lumora_InitService());
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(m_log.Has("LMF is Supported in this device", 'E'));
    EXPECT_TRUE(m_log.Has("[myapp] Start LMF InitService", 'E'));
    EXPECT_TRUE(m_log.Has("Currernt Process Name[myapp]", 'E'));
    EXPECT_TRUE(m_log.Has("[myapp] Success to connect Dbus ", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("LMF is available", 'E'));
    EXPECT_TRUE(m_log.Has("[myapp] LMF service is available now ..", 'E'));
    EXPECT_EQ(1u, LibraryCalls("ServiceEnable").size());
    EXPECT_EQ("", LibraryCalls("ServiceEnable")[0].signature);
    // Lines of the steps that Initialize and InitService hand to helpers.
    EXPECT_TRUE(m_log.From("[myapp] Success to connect Dbus ", "DBusClient.cpp", "Initialize")) << m_log.Dump();
    EXPECT_TRUE(m_log.From("[myapp] LMF service is available now ..", "DBusClient.cpp", "Initialize"));
    EXPECT_TRUE(m_log.From("LMF is available", "DBusClient.cpp", "__IsServiceEnable"));
    EXPECT_TRUE(m_log.From("[myapp] Start LMF InitService", "LMFServiceAPI.cpp", "InitService"));
}

TEST_F(InitServiceTest, InitServiceWithResponseCallsBackAboutOneSecondLaterWithANullString) {
    MainLoopThread loop;
    InitCallback cb;
    long long start = NowMs();
    EXPECT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(OnInit, &cb));
    EXPECT_TRUE(m_log.Has("Initialize ret(1) InitResult(0)", 'I')) << m_log.Dump();
    ASSERT_TRUE(WaitUntil([&] { return cb.calls > 0; }, 5000));
    // GLib moves a one-second timer onto its per-process second tick, which
    // can make it fire up to a quarter second early or most of a second late;
    // the upper bound also leaves room for a loaded machine.
    long long elapsed = cb.calledAtMs - start;
    EXPECT_GE(elapsed, 700);
    EXPECT_LE(elapsed, 3500);
    EXPECT_TRUE(cb.nullData);
    EXPECT_EQ(&cb, cb.userData.load());
    g_usleep(2500 * 1000);
    EXPECT_EQ(1, cb.calls.load());  // once per stored callback
}

TEST_F(InitServiceTest, TwoStartsAndOneStopLeaveTheServiceInUse) {
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(CS_InitService());
    EXPECT_TRUE(m_log.Has("[myapp] Initialize LMFServiceAPI : There are already created threads ..RefCnt(2)", 'E'))
        << m_log.Dump();
    EXPECT_TRUE(m_log.From("[myapp] Initialize LMFServiceAPI : There are already created threads ..RefCnt(2)",
                           "LMFServiceAPI.cpp", "InitService"));
    EXPECT_TRUE(Lumora_FiniService());
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(m_log.Has("[myapp] Finalize LMFServiceAPI : Still remain another threads .. RefCnt(1)", 'E'))
        << m_log.Dump();
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    char* value = Lumora_ReadCurrentSourceInfo(nullptr);
    EXPECT_NE(nullptr, value);
    free(value);
    EXPECT_EQ(1u, LibraryCalls("ServiceEnable").size());  // the second start only counted
}

TEST_F(InitServiceTest, StartWithResponseWhileInUseReturnsZeroAndNeverCallsBack) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    InitCallback cb;
    EXPECT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(OnInit, &cb));
    EXPECT_EQ(2, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(m_log.From("[myapp] Initialize LMFServiceAPI : There are already created threads ..RefCnt(2)",
                           "LMFServiceAPI.cpp", "InitServiceWithResponse"))
        << m_log.Dump();
    g_usleep(3000 * 1000);
    EXPECT_EQ(0, cb.calls.load());
}

TEST_F(InitServiceTest, StopThenStartReusesTheClientAndItsConnection) {
    ASSERT_TRUE(Lumora_InitService());
    DBusClient* first = LMFServiceAPI::m_pDbusClient;
    EXPECT_TRUE(Lumora_FiniService());
    EXPECT_TRUE(m_log.Has("[myapp] End LMF FiniService", 'E'));
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    EXPECT_EQ(first, LMFServiceAPI::m_pDbusClient);
    m_log.Mark();
    ASSERT_TRUE(Lumora_InitService());
    EXPECT_EQ(first, LMFServiceAPI::m_pDbusClient);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    EXPECT_FALSE(m_log.Has("[myapp] Success to connect Dbus ")) << m_log.Dump();
    auto asks = LibraryCalls("ServiceEnable");
    ASSERT_EQ(2u, asks.size());
    EXPECT_EQ(asks[0].sender, asks[1].sender);  // the same connection
}

TEST_F(InitServiceTest, ADisabledServiceWithTheMarkerPresentIsRecheckedElevenTimesThenLeftAlone) {
    MainLoopThread loop;
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    EXPECT_EQ(LMF_INIT_SERVICE_NOT_READY, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("LMF isn't available yet ..", 'E'));
    EXPECT_TRUE(m_log.Has("[myapp] LMF service isn't ready or available yet ..", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("[myapp] Set Timer ..", 'E'));
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("[myapp] Stop Checking Service Availability"); }, 60000))
        << m_log.Dump();
    for (int i = 1; i <= 11; ++i) {
        EXPECT_EQ(1u, m_log.Count("[myapp] Check Service Availability... [" + std::to_string(i) + "/10]", 'E')) << i;
    }
    EXPECT_EQ(11u, m_log.Count("[myapp] LMF service isn't available yet ..", 'E'));
    g_usleep(4000 * 1000);
    EXPECT_FALSE(m_log.Has("[myapp] Check Service Availability... [12/10]"));
    EXPECT_EQ(12u, LibraryCalls("ServiceEnable").size());
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
}

TEST_F(InitServiceTest, ARecheckThatFindsTheServiceEnabledMakesItAvailableAndCallsBack) {
    MainLoopThread loop;
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    InitCallback cb;
    EXPECT_EQ(LMF_INIT_SERVICE_NOT_READY, Lumora_InitServiceWithResponse(OnInit, &cb));
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", TRUE)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return cb.calls > 0; }, 10000)) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("[myapp] Check Service Availability... [1/10]", 'E'));
    EXPECT_TRUE(m_log.Has("[myapp] LMF service is available now ..", 'E'));
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    EXPECT_TRUE(cb.nullData);
    g_usleep(3500 * 1000);
    EXPECT_FALSE(m_log.Has("[myapp] Check Service Availability... [2/10]"));  // the timer stopped
}

TEST_F(InitServiceTest, WithoutTheMarkerTheRechecksGoOnWithoutCounting) {
    MainLoopThread loop;
    ASSERT_EQ(0, unlink("/tmp/lmf_service_ready"));
    EXPECT_EQ(LMF_INIT_SERVICE_NOT_READY, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_TRUE(LibraryCalls("ServiceEnable").empty());  // the marker is tested first
    ASSERT_TRUE(WaitUntil([&] { return m_log.Count("LMF Service Not Ready...") >= 2; }, 10000)) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("[myapp] Check Service Availability... [1/10]"));
}

TEST_F(InitServiceTest, InitializeWithANullResultStillConnectsAndSchedulesTheRecheck) {
    MainLoopThread loop;
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    DBusClient* client = DBusClient::GetInstance();
    client->SetProcessName("myapp");
    EXPECT_TRUE(client->Initialize(nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Success to connect Dbus ", 'E'));
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("[myapp] Check Service Availability... [1/10]"); }, 6000))
        << m_log.Dump();
    client->Finalize();
}

// Which of the two pending timers hands the callback over cannot be seen from
// outside (GLib fires seconds-timers on the same ticks); what can be seen is
// that the pair stored last is called once and the first one never.
TEST_F(InitServiceTest, ASecondInitializeWithACallbackReplacesTheStoredOneWhichIsCalledOnce) {
    MainLoopThread loop;
    DBusClient* client = DBusClient::GetInstance();
    client->SetProcessName("myapp");
    InitCallback first;
    InitCallback second;
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    ASSERT_TRUE(client->Initialize(&result, OnInit, &first));
    EXPECT_EQ(LMF_INIT_OK, result);
    long long start = NowMs();
    g_usleep(300 * 1000);
    ASSERT_TRUE(client->Initialize(&result, OnInit, &second));
    EXPECT_EQ(LMF_INIT_OK, result);
    ASSERT_TRUE(WaitUntil([&] { return second.calls > 0; }, 5000));
    EXPECT_LE(second.calledAtMs - start, 3500);
    g_usleep(2500 * 1000);
    EXPECT_EQ(1, second.calls.load());
    EXPECT_EQ(0, first.calls.load());
    client->Finalize();
}

// The stored callback is called first and cleared after it returns: a
// callback that initialises again, with a callback of its own, has that one
// cleared on return, so it is never called.
InitCallback g_reinitialised;
std::atomic<bool> g_reinitialiseResult{false};
std::atomic<int> g_reinitialiseCode{-1};
std::atomic<bool> g_reinitialiseDone{false};

void InitialisesAgain(char* data, void* user) {
    OnInit(data, user);
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    g_reinitialiseResult = LMFServiceAPI::m_pDbusClient->Initialize(&result, OnInit, &g_reinitialised);
    g_reinitialiseCode = result;
    g_reinitialiseDone = true;
}

TEST_F(InitServiceTest, ACallbackThatInitializesAgainHasItsOwnCallbackClearedAndNeverCalled) {
    MainLoopThread loop;
    InitCallback first;
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(InitialisesAgain, &first));
    ASSERT_TRUE(WaitUntil([] { return g_reinitialiseDone.load(); }, 5000));
    // The inner Initialize ran without the client mutex held, so it neither
    // hung nor was refused, and scheduled a callback of its own.
    EXPECT_TRUE(g_reinitialiseResult.load());
    EXPECT_EQ(LMF_INIT_OK, g_reinitialiseCode.load());
    g_usleep(2500 * 1000);
    EXPECT_EQ(1, first.calls.load());
    EXPECT_EQ(0, g_reinitialised.calls.load());
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
}

TEST_F(InitServiceTest, FinalizeStopsListeningToTheService) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_FiniService());
    m_monitor->Clear();
    m_log.Mark();
    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return m_monitor->Signals().size() >= 2; }, 5000));  // BYE, HELLO
    g_usleep(500 * 1000);
    EXPECT_FALSE(HeardHello(m_log)) << m_log.Dump();
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
}

TEST(ReconnectTest, AReconnectionWithoutSubscriptionsDoesNotListenToTheService) {
    program_invocation_short_name = const_cast<char*>("myapp");
    TempDir dir;
    LogCapture log;
    std::string address = "unix:path=" + dir.File("bus");
    ScopedEnv busAddress("DBUS_SYSTEM_BUS_ADDRESS", address);
    MainLoopThread loop;
    EXPECT_EQ(LMF_INIT_CONNECTION_FAILED, Lumora_InitServiceWithResponse(nullptr, nullptr));
    TestBus bus;
    ASSERT_TRUE(bus.StartAt(address));
    SimProcess sim;
    ASSERT_TRUE(sim.Start());
    // The 2-second timer connects; it neither listens nor asks the service.
    g_usleep(3500 * 1000);
    GDBusConnection* control = ConnectToBus(address);
    ASSERT_NE(nullptr, control);
    log.Mark();
    ASSERT_TRUE(CallControl(control, sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    g_usleep(1500 * 1000);
    EXPECT_FALSE(HeardHello(log)) << log.Dump();
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    // The connection the timer made is the one the next start uses.
    Lumora_FiniService();
    log.Mark();
    EXPECT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_FALSE(log.Has("[myapp] Success to connect Dbus ")) << log.Dump();
    g_object_unref(control);
    Lumora_FiniService();
}

}  // namespace
}  // namespace lumora::test
