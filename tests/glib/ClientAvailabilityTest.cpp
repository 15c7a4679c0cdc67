// The client of the process: one instance, one counted start of the service
// API for its life, and the service's availability as the "available"
// property, notified once per change and followed by "availability-changed".
#include <signal.h>

#include "GlibFixture.h"

namespace lumora::test {
namespace {

struct AvailabilityRecorder {
    std::vector<std::string> events;  // "notify 0", "changed 0 bye", ...

    void Connect(LumoraClient* client) {
        g_signal_connect(client, "notify::available", G_CALLBACK(OnNotify), this);
        g_signal_connect(client, "availability-changed", G_CALLBACK(OnChanged), this);
    }
    static void OnNotify(GObject* client, GParamSpec*, gpointer self) {
        gboolean available = FALSE;
        g_object_get(client, "available", &available, nullptr);
        static_cast<AvailabilityRecorder*>(self)->events.push_back("notify " + std::to_string(available));
    }
    static void OnChanged(LumoraClient*, gboolean available, const char* reason, gpointer self) {
        static_cast<AvailabilityRecorder*>(self)->events.push_back("changed " + std::to_string(available) + " " +
                                                                   reason);
    }
};

class GlibAvailabilityTest : public GlibTest {};

TEST_F(GlibAvailabilityTest, OneClientPerProcessHoldsOneStartOfTheServiceApiForItsLife) {
    EXPECT_EQ(0, LMFServiceAPI::m_nRefCnt);
    Start();
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    LumoraClient* again = lumora_client_get_default();
    EXPECT_EQ(m_client, again);
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    g_object_unref(again);
    // What a binding's constructor calls gives the same one.
    GObject* constructed = static_cast<GObject*>(g_object_new(LUMORA_TYPE_CLIENT, nullptr));
    EXPECT_EQ(G_OBJECT(m_client), constructed);
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    g_object_unref(constructed);
    g_clear_object(&m_client);
    EXPECT_EQ(0, LMFServiceAPI::m_nRefCnt);
    // A new one starts it again.
    m_client = lumora_client_get_default();
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(lumora_client_get_available(m_client));
    // The application's own starts are its own.
    ASSERT_TRUE(Lumora_InitService());
    g_clear_object(&m_client);
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(Lumora_FiniService());
}

TEST_F(GlibAvailabilityTest, TheServiceLeavingAndComingBackIsNotifiedOncePerChangeWithItsReason) {
    Start();
    AvailabilityRecorder recorder;
    recorder.Connect(m_client);
    IterateFor(300);  // the library's first report repeats the state: nothing to notify
    EXPECT_TRUE(recorder.events.empty());

    EXPECT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(WaitForAvailable(false));
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitForAvailable(true));
    IterateFor(300);
    EXPECT_EQ((std::vector<std::string>{"notify 0", "changed 0 bye", "notify 1", "changed 1 hello"}), recorder.events);
}

TEST_F(GlibAvailabilityTest, AKilledServiceIsNameLost) {
    Start();
    AvailabilityRecorder recorder;
    recorder.Connect(m_client);
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    ASSERT_TRUE(WaitForAvailable(false));
    IterateFor(300);
    EXPECT_EQ((std::vector<std::string>{"notify 0", "changed 0 name-lost"}), recorder.events);
}

TEST_F(GlibAvailabilityTest, AClientMadeWhileTheServiceIsAwayBecomesAvailableWhenItComes) {
    EXPECT_EQ(0, m_sim.Stop());
    m_client = lumora_client_get_default();
    EXPECT_FALSE(lumora_client_get_available(m_client));
    AvailabilityRecorder recorder;
    recorder.Connect(m_client);
    GError* error = nullptr;
    EXPECT_EQ(nullptr, lumora_client_read_sync(m_client, "Ctx/Media/Source/Info/Current", nullptr, nullptr, &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_AVAILABLE, ClientErrorCode(error));
    g_clear_error(&error);
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitForAvailable(true));
    EXPECT_EQ((std::vector<std::string>{"notify 1", "changed 1 hello"}), recorder.events);
    char* value = lumora_client_read_sync(m_client, "Ctx/Media/Source/Info/Current", nullptr, nullptr, &error);
    EXPECT_NE(nullptr, value);
    g_free(value);
}

// The process ends with the client (and a subscription) still referenced:
// the client's start is given back at exit, as the last unref would.
TEST_F(GlibAvailabilityTest, AProcessThatEndsWithItsClientAliveStopsTheServiceApi) {
    Start();  // this process's own client: the monitor is clear from here on
    RunResult run = RunProgram(LUMORA_GLIB_LEAVING, {"Ctx/App/Info/Changed"}, 15000);
    ASSERT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("subscribed\n", run.out);
    std::vector<std::string> traffic = SubscriptionTraffic();
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "4 Ctx/App/Info/Changed"}), traffic);
    EXPECT_TRUE(m_log.Has("the process ends with the client alive: the service API is stopped", 'I'))
        << m_log.Dump();
}

}  // namespace
}  // namespace lumora::test
