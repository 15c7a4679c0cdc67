// The service says "BYE" and "HELLO" around a restart: the library marks it
// unavailable, then available again, and registers every subscription anew.
#include <atomic>
#include <thread>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

std::atomic<int> g_notifications{0};

void OnChange(const char*, char*, void*) { ++g_notifications; }

class ServiceRestartTest : public ServiceTest {};

TEST_F(ServiceRestartTest, AfterHelloEverySubscriptionIsSentAgainWithAFreshId) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    DBusClient* client = Client();
    ASSERT_TRUE(client->Subscribe("Ctx/App/Info/Changed", OnChange, nullptr));
    ASSERT_TRUE(client->Subscribe("Ctx/Sound/Volume/Level/Changed", OnChange, nullptr));
    auto first = LibraryCalls("RequestSync");
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ(3, first[0].requestType);
    EXPECT_EQ("{}", first[0].input);
    m_monitor->Clear();
    m_log.Mark();

    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 300u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return LibraryCalls("RequestSync").size() >= 2; }, 5000)) << m_log.Dump();
    auto again = LibraryCalls("RequestSync");
    ASSERT_EQ(2u, again.size());
    EXPECT_EQ("Ctx/App/Info/Changed", again[0].subject);
    EXPECT_EQ("Ctx/Sound/Volume/Level/Changed", again[1].subject);
    for (const BusMessage& call : again) {
        EXPECT_EQ(3, call.requestType);
        EXPECT_EQ("{}", call.input);
        EXPECT_GT(call.requestId, first[1].requestId);  // fresh ids
    }
    EXPECT_NE(again[0].requestId, again[1].requestId);
    EXPECT_TRUE(m_log.Has("[myapp] BYE, ", 'I')) << m_log.Dump();
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());

    // The service now sends the subscribed subject's changes again.
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed", "{\"AppId\":\"x\"}")).Ok());
    EXPECT_TRUE(WaitUntil([] { return g_notifications.load() > 0; }, 5000));
}

TEST_F(ServiceRestartTest, ByeMakesTheServiceUnavailableUntilHello) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Client()->Subscribe("Ctx/App/Info/Changed", OnChange, nullptr));  // listens for the service
    // The simulator answers Restart only once it said HELLO again.
    std::thread restart([this] { EXPECT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 2000u)).Ok()); });
    EXPECT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 3000));
    m_log.Mark();
    EXPECT_EQ(nullptr, Lumora_ReadCurrentAppInfo(nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Service is not available", 'E')) << m_log.Dump();
    restart.join();
    // HELLO was sent before the answer, but reaches the library through its
    // main loop.
    EXPECT_TRUE(WaitUntil([] { return LMFServiceAPI::IsAvailable(); }, 5000));
    char* value = Lumora_ReadCurrentAppInfo(nullptr);
    EXPECT_NE(nullptr, value);
    free(value);
}

}  // namespace
}  // namespace lumora::test
