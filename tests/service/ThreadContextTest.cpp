// API calls from any thread: a subscription made on one thread while another
// removes the last one still leaves the library listening; a thread with a
// main context of its own still gets its callbacks on the default main
// context; and deleting the bus client leaves no timer or signal behind that
// would reach the deleted object.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kProgramChanged = "Ctx/Media/Broadcast/Program/Changed";

std::atomic<int> g_channelEvents{0};

void OnChannelEvent(LMF_EVENT_TYPE, char* data, int, void*) {
    free(data);
    ++g_channelEvents;
}

class ThreadContextTest : public EventTest {};

// The removal of the last plain subscription holds the client mutex while
// its unsubscribe message waits for the service (held 300 ms here); the
// channel callback registers its subjects meanwhile, from another thread.
TEST_F(ThreadContextTest, TheChannelCallbackRegisteredWhileAnotherThreadRemovesTheLastSubscriptionHearsItsEvents) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(Lumora_InitService());
        ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
        ASSERT_TRUE(Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", kVolume, 300u)).Ok());
        std::thread removing([&] { EXPECT_TRUE(Lumora_Unsubscribe(kVolume, Recorded<1>, nullptr)); });
        g_usleep(100 * 1000);  // the unsubscribe message is out
        EXPECT_TRUE(CS_RegisterChannelCallback(OnChannelEvent, nullptr));
        removing.join();
        int before = g_channelEvents.load();
        ASSERT_TRUE(Emit(kProgramChanged, "{\"Program\":\"News\"}"));
        ASSERT_TRUE(WaitUntil([&] { return g_channelEvents.load() > before; }, 3000))
            << "round " << round << ": the library holds subscriptions but does not listen\n"
            << m_log.Dump();
        CS_UnRegisterChannelCallback();
        ASSERT_TRUE(Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", kVolume, 0u)).Ok());
        ASSERT_TRUE(Lumora_FiniService());
    }
}

TEST_F(ThreadContextTest, CallsFromAThreadWithItsOwnMainContextAreAnsweredOnTheDefaultOne) {
    std::thread::id loopThread;
    m_loop.Invoke([&] { loopThread = std::this_thread::get_id(); });
    std::thread worker([] {
        GMainContext* own = g_main_context_new();
        g_main_context_push_thread_default(own);
        EXPECT_TRUE(Lumora_InitService());
        EXPECT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
        EXPECT_TRUE(Lumora_Request("Ctx/Media/Source/Info/Current", nullptr, Recorded<2>, nullptr));
        EXPECT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<3>, nullptr));
        g_main_context_pop_thread_default(own);
        g_main_context_unref(own);  // never iterated
    });
    worker.join();
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":12}"));
    ASSERT_TRUE(Recorder().WaitForCount(3, 5000)) << m_log.Dump();
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    ASSERT_TRUE(Recorder().WaitForCount(5, 5000)) << m_log.Dump();  // bye, hello
    for (const Delivery& delivery : Recorder().All()) {
        EXPECT_EQ(loopThread, delivery.thread) << "callback " << delivery.callback;
    }
}

// ---- deleting the bus client -------------------------------------------------------

std::atomic<int> g_initCalls{0};

void OnInit(char*, void*) { ++g_initCalls; }

TEST_F(ThreadContextTest, DeleteInstanceRemovesTheTimersAndTheSignalThatPointAtTheInstance) {
    g_initCalls = 0;
    m_log.Mark();
    DBusClient* client = DBusClient::GetInstance();
    client->SetProcessName("myapp");
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    ASSERT_TRUE(client->Initialize(&result, OnInit, nullptr));
    ASSERT_EQ(LMF_INIT_OK, result);
    // A second start keeps the first start's timer and adds one of its own;
    // the client listens for the service's signal since the first. (No
    // subscription: DeleteInstance does not free the table's records.)
    ASSERT_TRUE(client->Initialize(&result, OnInit, nullptr));
    DBusClient::DeleteInstance();
    EXPECT_EQ(nullptr, DBusClient::m_pInstance);
    // The timers' second passes, and the service says "BYE" and "HELLO".
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    g_usleep(1600 * 1000);
    EXPECT_EQ(0, g_initCalls.load());
    // Nothing handled the service's signals on the deleted object.
    for (const LogRecord& record : OwnRecords()) {
        EXPECT_EQ(std::string::npos, record.text.find("BYE, ")) << record.raw;
        EXPECT_EQ(std::string::npos, record.text.find("HELLO, ")) << record.raw;
    }
}

}  // namespace
}  // namespace lumora::test
