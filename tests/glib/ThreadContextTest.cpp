// Where the GObject API delivers: a thread that pushed a main context of its
// own hears its subscriptions' changes and its asynchronous reads' answers
// there, on itself, while the C library hears the bus on the global default
// context, iterated by another thread.
#include <atomic>

#include "GlibFixture.h"
#include "MainLoopThread.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kSource = "Ctx/Media/Source/Info/Current";

class GlibThreadContextTest : public GlibTest {};

TEST_F(GlibThreadContextTest, AThreadWithItsOwnContextHearsItsChangesAndAnswersThere) {
    Start();
    MainLoopThread library;  // iterates the global default context
    std::atomic<bool> subscribed{false};
    std::atomic<bool> emitted{false};
    std::thread::id workerId;
    ChangeRecorder recorder;
    AsyncOutcome outcome;
    GMainContext* workerContext = nullptr;
    std::thread worker([&] {
        workerId = std::this_thread::get_id();
        GMainContext* own = g_main_context_new();
        workerContext = own;
        g_main_context_push_thread_default(own);
        GError* error = nullptr;
        LumoraSubscription* subscription =
            lumora_client_subscribe(m_client, kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE, &error);
        EXPECT_NE(nullptr, subscription);
        recorder.Connect(subscription);
        lumora_client_read(m_client, kSource, nullptr, nullptr, AsyncOutcome::OnRead, &outcome);
        subscribed = true;
        EXPECT_TRUE(IterateUntil([&] { return emitted && !recorder.data.empty() && outcome.Done(); }, 8000));
        g_object_unref(subscription);
        g_main_context_pop_thread_default(own);
        g_main_context_unref(own);
    });
    ASSERT_TRUE(WaitUntil([&] { return subscribed.load(); }, 5000));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":33}"));
    emitted = true;
    worker.join();
    ASSERT_EQ(std::vector<std::string>{"{\"Level\":33}"}, recorder.data);
    EXPECT_EQ(workerId, recorder.thread);
    EXPECT_EQ(workerContext, recorder.context);
    ASSERT_EQ(1, outcome.calls);
    EXPECT_EQ(workerId, outcome.thread);
    EXPECT_EQ(workerContext, outcome.context);
    EXPECT_EQ(SimValue(kSource), outcome.text);
}

// The client's own signals go to the context of the thread that made it.
TEST_F(GlibThreadContextTest, TheClientsAvailabilityIsNotifiedInTheContextOfTheThreadThatMadeIt) {
    MainLoopThread library;
    GMainContext* own = g_main_context_new();
    std::thread::id notifiedOn;
    GMainContext* notifiedIn = nullptr;
    std::atomic<bool> notified{false};
    std::thread maker([&] {
        g_main_context_push_thread_default(own);
        m_client = lumora_client_get_default();
        g_main_context_pop_thread_default(own);
    });
    maker.join();
    ASSERT_NE(nullptr, m_client);
    ASSERT_TRUE(lumora_client_get_available(m_client));
    struct Seen {
        std::thread::id* thread;
        GMainContext** context;
        std::atomic<bool>* flag;
    } seen{&notifiedOn, &notifiedIn, &notified};
    g_signal_connect(m_client, "notify::available", G_CALLBACK(+[](GObject*, GParamSpec*, gpointer data) {
                         auto* s = static_cast<Seen*>(data);
                         *s->thread = std::this_thread::get_id();
                         *s->context = g_main_context_get_thread_default();
                         *s->flag = true;
                     }),
                     &seen);
    EXPECT_EQ(0, m_sim.Stop());
    std::thread::id iteratorId;
    std::thread iterating([&] {
        iteratorId = std::this_thread::get_id();
        g_main_context_push_thread_default(own);
        EXPECT_TRUE(IterateUntil([&] { return notified.load(); }, 8000));
        g_main_context_pop_thread_default(own);
    });
    iterating.join();
    EXPECT_EQ(iteratorId, notifiedOn);
    EXPECT_EQ(own, notifiedIn);
    EXPECT_FALSE(lumora_client_get_available(m_client));
    g_clear_object(&m_client);
    g_main_context_unref(own);
}

}  // namespace
}  // namespace lumora::test
