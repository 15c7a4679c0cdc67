// Typed context signals and the channel callback against lumora-sim: one bus
// subscription per typed subject, the fan-out with types and user data, the
// refusals with their two lines, and what the channel callback is handed for
// each subject.
#include <json/json.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "JsonText.h"
#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kList = "Pref/Channel/List";
constexpr const char* kCurrentList = "Pref/Channel/List/Current";
constexpr const char* kProgramCurrent = "Ctx/Media/Broadcast/Program/Current";
constexpr const char* kProgramChanged = "Ctx/Media/Broadcast/Program/Changed";
constexpr const char* kStb = "Ctx/Media/Broadcast/Status/STB";

class SignalTest : public EventTest {
protected:
    void SetUp() override {
        EventTest::SetUp();
        LMFServiceAPI::SetSourceAndModel(LMF_SRC_ALL, LMF_MODEL_DEFAULT);
    }

    /// How many typed records subject has.
    static size_t TypedRecords(const char* subject) { return LMFServiceAPI::_CheckSubscribeData(subject); }
};

// ---- typed signals ----------------------------------------------------------------

TEST_F(SignalTest, EachTypeNamesItsSubject) {
    EXPECT_EQ(kList, LMFServiceAPI::_ConvertSignalTypeToSubject(CONTEXT_SIGNAL_MOST_WATCHED));
    // The current programme, not the "Changed" subject.
    EXPECT_EQ(kProgramCurrent, LMFServiceAPI::_ConvertSignalTypeToSubject(CONTEXT_SIGNAL_BROADCAST_PROGRAM));
    EXPECT_EQ(kStb, LMFServiceAPI::_ConvertSignalTypeToSubject(CONTEXT_SIGNAL_STB_STATUS));
    EXPECT_EQ("", LMFServiceAPI::_ConvertSignalTypeToSubject(static_cast<ContextSignalType>(3)));
    EXPECT_TRUE(m_log.Has("Can't find type 3", 'E')) << m_log.Dump();
}

TEST_F(SignalTest, SameCallbackTwiceOnATypeIsRefusedWhateverItsUserData) {
    Start();
    int first = 0;
    int second = 0;
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, RecordedSignal<1>, &first));
    EXPECT_FALSE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, RecordedSignal<1>, &second));
    EXPECT_TRUE(m_log.From(AlreadySubscribed(kList, RecordedSignal<1>), "LMFServiceAPI.cpp", "SubscribeSignal"))
        << m_log.Dump();
    EXPECT_EQ(1u, TypedRecords(kList));
    EXPECT_EQ((std::vector<std::string>{"3 Pref/Channel/List"}), SubscriptionTraffic());
}

TEST_F(SignalTest, TwoCallbacksOnOneTypeShareOneBusSubscriptionAndEachHearsEverySignal) {
    Start();
    int first = 0;
    int second = 0;
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM, RecordedSignal<1>, &first));
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM, RecordedSignal<2>, &second));
    EXPECT_TRUE(m_log.Has("Already registered subject, but it has different callback", 'I')) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{std::string("3 ") + kProgramCurrent}), SubscriptionTraffic());
    EXPECT_EQ(1u, SimSubscribers(kProgramCurrent).size());

    ASSERT_TRUE(Emit(kProgramCurrent, "{\"ProgramTitle\":\"A\"}"));
    ASSERT_TRUE(Emit(kProgramCurrent, "{\"ProgramTitle\":\"B\"}"));
    ASSERT_TRUE(Recorder().WaitForCount(4, 5000));
    auto all = Recorder().All();
    ASSERT_EQ(4u, all.size());
    // Per signal, the records in the order they were made.
    EXPECT_EQ(1, all[0].callback);
    EXPECT_EQ(2, all[1].callback);
    EXPECT_EQ(1, all[2].callback);
    EXPECT_EQ(2, all[3].callback);
    for (const Delivery& delivery : all) {
        EXPECT_EQ("1", delivery.subject);
        EXPECT_EQ(delivery.callback == 1 ? static_cast<void*>(&first) : static_cast<void*>(&second), delivery.userData);
        EXPECT_NE(std::this_thread::get_id(), delivery.thread);
    }
    EXPECT_EQ("{\"ProgramTitle\":\"A\"}", all[0].data);
    EXPECT_EQ("{\"ProgramTitle\":\"B\"}", all[3].data);
}

TEST_F(SignalTest, UnsubscribingATypeDropsEveryCallbackOfItAndTheBusSubscription) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM, RecordedSignal<1>, nullptr));
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM, RecordedSignal<2>, nullptr));
    ASSERT_TRUE(LMFServiceAPI::UnsubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM));
    EXPECT_EQ(0u, TypedRecords(kProgramCurrent));
    EXPECT_EQ((std::vector<std::string>{std::string("3 ") + kProgramCurrent, std::string("4 ") + kProgramCurrent}),
              SubscriptionTraffic());
    EXPECT_TRUE(SimSubscribers(kProgramCurrent).empty());
    // Nothing is heard any more; a second unsubscription is the bus client's
    // refusal, as it no longer knows the subject.
    ASSERT_TRUE(Emit(kProgramCurrent, "{}"));
    EXPECT_FALSE(Recorder().WaitForCount(1, 300));
    EXPECT_FALSE(LMFServiceAPI::UnsubscribeSignal(CONTEXT_SIGNAL_BROADCAST_PROGRAM));
}

TEST_F(SignalTest, AnUnknownTypeIsRefusedWithBothLines) {
    Start();
    for (int type : {3, -1}) {
        SCOPED_TRACE(type);
        m_log.Mark();
        auto signalType = static_cast<ContextSignalType>(type);
        EXPECT_FALSE(LMFServiceAPI::SubscribeSignal(signalType, RecordedSignal<1>, nullptr));
        auto lines = m_log.Records();
        ASSERT_EQ(2u, lines.size()) << m_log.Dump();
        EXPECT_EQ("Can't find type " + std::to_string(type), lines[0].text);
        EXPECT_EQ("_ConvertSignalTypeToSubject", lines[0].function);
        EXPECT_EQ("can't find type " + std::to_string(type), lines[1].text);
        EXPECT_EQ("SubscribeSignal", lines[1].function);
        m_log.Mark();
        EXPECT_FALSE(LMFServiceAPI::UnsubscribeSignal(signalType));
        lines = m_log.Records();
        ASSERT_EQ(2u, lines.size()) << m_log.Dump();
        EXPECT_EQ("Can't find type " + std::to_string(type), lines[0].text);
        EXPECT_EQ("can't find type " + std::to_string(type), lines[1].text);
        EXPECT_EQ("UnsubscribeSignal", lines[1].function);
    }
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeList.empty());
    EXPECT_TRUE(SubscriptionTraffic().empty());
}

TEST_F(SignalTest, ARefusedFirstBusSubscriptionKeepsTheRecordAndIsNotRetried) {
    Start();
    // The shared callback already registered for the subject: the bus client
    // refuses it a second time.
    ASSERT_TRUE(Client()->Subscribe(kStb, LMFServiceAPI::_SubscribeCallback, nullptr));
    m_monitor->Clear();
    EXPECT_FALSE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_STB_STATUS, RecordedSignal<1>, nullptr));
    EXPECT_TRUE(m_log.Has(std::string("Error! ") + kStb + " is already registered", 'E')) << m_log.Dump();
    EXPECT_EQ(1u, TypedRecords(kStb));
    EXPECT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_STB_STATUS, RecordedSignal<2>, nullptr));
    EXPECT_EQ(2u, TypedRecords(kStb));
    EXPECT_TRUE(SubscriptionTraffic().empty());
    // Both records hear the subject through the shared callback.
    ASSERT_TRUE(Emit(kStb, "{\"Connected\":false}"));
    ASSERT_TRUE(Recorder().WaitForCount(2, 5000));
    EXPECT_EQ("2", Recorder().All()[0].subject);
}

TEST_F(SignalTest, TypedCallbacksHearASignalBeforeUntypedOnesOfTheSameSubject) {
    Start();
    ASSERT_TRUE(Lumora_Subscribe(kStb, Recorded<3>, nullptr));
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_STB_STATUS, RecordedSignal<1>, nullptr));
    // The untyped callback is also the bus client's own, so it hears the
    // signal twice: once from the bus client, once from the typed fan-out.
    ASSERT_TRUE(Emit(kStb, "{\"n\":1}"));
    ASSERT_TRUE(Recorder().WaitForCount(3, 5000));
    auto all = Recorder().All();
    ASSERT_EQ(3u, all.size());
    std::vector<int> order;
    for (const Delivery& delivery : all) order.push_back(delivery.callback);
    // The bus client's records in the order they were made: the untyped
    // callback first, then the shared one, which hands out typed then untyped.
    EXPECT_EQ((std::vector<int>{3, 1, 3}), order);
}

TEST_F(SignalTest, TheLastStopEmptiesTheTypedList) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, RecordedSignal<1>, nullptr));
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_STB_STATUS, RecordedSignal<1>, nullptr));
    EXPECT_EQ(2u, LMFServiceAPI::g_vSubscribeList.size());
    ASSERT_TRUE(Lumora_FiniService());
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeList.empty());
}

TEST_F(SignalTest, TypedSubscriptionsComeBackAfterTheServiceRestarts) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, RecordedSignal<1>, nullptr));
    // The simulator says "BYE", forgets its subscribers and says "HELLO".
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 200u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return SimSubscribers(kList).size() == 1; }, 10000));
    ASSERT_TRUE(Emit(kList, "{\"Status\":\"Success\",\"ChList\":[]}"));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_EQ("0", Recorder().All()[0].subject);
}

// ---- the channel callback's dispatcher ------------------------------------------

class ChannelCallbackTest : public SignalTest {
protected:
    // The main-loop thread reads the callback as the library stores it:
    // atomically.
    static void SetChannelCallback(LumoraChannelCb callback) {
        __atomic_store_n(&LMFServiceAPI::m_fnChannelCb, callback, __ATOMIC_RELEASE);
    }

    void SetUp() override {
        SignalTest::SetUp();
        SetChannelCallback(RecordedChannelEvent<1>);
    }
    void TearDown() override {
        SetChannelCallback(nullptr);
        SignalTest::TearDown();
    }

    void Dispatch(const char* subject, const char* data, void* userData = nullptr) {
        std::string copy = data != nullptr ? data : "";
        LMFServiceAPI::_SubscribeCb(subject, data != nullptr ? copy.data() : nullptr, userData);
    }
};

TEST_F(ChannelCallbackTest, TheThreeChecksRunInOrder) {
    Dispatch(nullptr, nullptr);
    Dispatch("", "{}");
    EXPECT_EQ(2u, m_log.Count("subject is null", 'E')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("data is null")) << m_log.Dump();
    Dispatch(kList, nullptr);
    // Empty, although not a null pointer.
    Dispatch(kList, "");
    EXPECT_EQ(2u, m_log.Count("data is null", 'E')) << m_log.Dump();
    SetChannelCallback(nullptr);
    Dispatch(kList, "{\"Status\":\"Success\"}");
    EXPECT_TRUE(m_log.From("m_fnChannelCb is null", "LMFServiceAPI.cpp", "_SubscribeCb")) << m_log.Dump();
    EXPECT_EQ(0u, Recorder().Count());
}

TEST_F(ChannelCallbackTest, AListMarkedSuccessIsFilteredAndCounted) {
    LMFServiceAPI::SetSourceAndModel(LMF_SRC_RF, LMF_MODEL_DEFAULT);
    int user = 0;
    Dispatch(kCurrentList,
             "{\"Status\":\"Success\",\"ChList\":[{\"SrcType\":\"RF\",\"ChType\":1,\"major\":7},"
             "{\"SrcType\":\"STB\",\"ChType\":1},{\"SrcType\":\"RF\",\"ChType\":9},{\"SrcType\":\"RF\"}]}",
             &user);
    ASSERT_EQ(1u, Recorder().Count());
    Delivery delivery = Recorder().All()[0];
    EXPECT_EQ("0:2", delivery.subject);
    EXPECT_EQ(&user, delivery.userData);
    Json::Value list = ParseJson(delivery.data);
    EXPECT_EQ("Success", list["Status"].asString());
    EXPECT_EQ(2, list["Size"].asInt());
    ASSERT_EQ(2u, list["ChList"].size());
    EXPECT_EQ(7, list["ChList"][0]["major"].asInt());
    EXPECT_FALSE(list["ChList"][1].isMember("ChType"));
}

TEST_F(ChannelCallbackTest, AListWithAnotherStatusIsPassedAsItCameWithCountZero) {
    const char* failed = "{\"Status\":\"Failed\",\"ChList\":[{\"SrcType\":\"RF\",\"ChType\":9}]}";
    Dispatch(kList, failed);
    ASSERT_EQ(1u, Recorder().Count());
    EXPECT_EQ("0:0", Recorder().All()[0].subject);
    EXPECT_EQ(failed, Recorder().All()[0].data);
}

TEST_F(ChannelCallbackTest, AListThatIsNotJsonIsDropped) {
    Dispatch(kList, "{\"Status\":");
    EXPECT_TRUE(m_log.From("Json Parsing Failed", "LMFServiceAPI.cpp", "_SubscribeCb")) << m_log.Dump();
    EXPECT_EQ(0u, Recorder().Count());
}

TEST_F(ChannelCallbackTest, ProgrammeAndSetTopBoxEventsCarryTheirDataAndCountOne) {
    Dispatch(kProgramChanged, "not even JSON");
    Dispatch(kStb, "{\"Connected\":true}");
    // The typed signal's subject is not one of the channel callback's.
    Dispatch(kProgramCurrent, "{}");
    auto all = Recorder().All();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ("2:1", all[0].subject);
    EXPECT_EQ("not even JSON", all[0].data);
    EXPECT_EQ("3:1", all[1].subject);
    EXPECT_EQ("{\"Connected\":true}", all[1].data);
    EXPECT_TRUE(m_log.Has(std::string("Unknown subject ") + kProgramCurrent, 'E')) << m_log.Dump();
}

// A channel callback that tries what the library must refuse while m_mutex
// is held, and what it may still do.
struct ReentryOutcome {
    bool subscribed = true;
    bool signalSubscribed = true;
    bool stopped = true;
    bool read = false;
    std::atomic<int> calls{0};  // counted last: the test reads the rest once it sees the count
};
ReentryOutcome g_reentry;

void ReenteringChannelCallback(LMF_EVENT_TYPE, std::string, int, void*) {
    g_reentry.subscribed = Lumora_Subscribe("Ctx/App/Info/Changed", Recorded<1>, nullptr);
    g_reentry.signalSubscribed = LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_STB_STATUS, RecordedSignal<1>, nullptr);
    g_reentry.stopped = Lumora_FiniService();
    std::string info;
    g_reentry.read = LMFServiceAPI::GetCurrentChannelInfo(info);
    ++g_reentry.calls;
}

TEST_F(ChannelCallbackTest, ACallbackThatTakesTheSameMutexIsRefusedNotHung) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::RegisterChannelCallback(ReenteringChannelCallback, nullptr));
    m_log.Mark();
    ASSERT_TRUE(Emit(kProgramChanged, "{\"ProgramTitle\":\"News\"}"));
    ASSERT_TRUE(WaitUntil([] { return g_reentry.calls == 1; }, 5000));
    // The main loop is still turning.
    ASSERT_TRUE(Emit(kProgramChanged, "{\"ProgramTitle\":\"Film\"}"));
    ASSERT_TRUE(WaitUntil([] { return g_reentry.calls == 2; }, 5000));
    EXPECT_FALSE(g_reentry.subscribed);
    EXPECT_FALSE(g_reentry.signalSubscribed);
    EXPECT_FALSE(g_reentry.stopped);
    EXPECT_TRUE(g_reentry.read);
    const char* held = "was called from a callback that runs with LMFServiceAPI::m_mutex held, and would deadlock";
    EXPECT_EQ(2u, m_log.Count(std::string("refused: Subscribe() ") + held, 'E')) << m_log.Dump();
    EXPECT_EQ(2u, m_log.Count(std::string("refused: SubscribeSignal() ") + held, 'E')) << m_log.Dump();
    EXPECT_EQ(2u, m_log.Count(std::string("refused: FiniService() ") + held, 'E')) << m_log.Dump();
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
}

// ---- registering the channel callback -------------------------------------------

TEST_F(ChannelCallbackTest, RegisteringSubscribesFourSubjectsAndUnregisteringThreeOfThem) {
    Start();
    SetChannelCallback(nullptr);
    int user = 0;
    ASSERT_TRUE(LMFServiceAPI::RegisterChannelCallback(RecordedChannelEvent<2>, &user));
    EXPECT_EQ(RecordedChannelEvent<2>, LMFServiceAPI::m_fnChannelCb);
    auto lines = m_log.Records();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ("*** this function will be removed soon, you should use SubscribeSignal function ***", lines[0].text);
    EXPECT_EQ("*** ex) LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, function, NULL); ***",
              lines[1].text);
    EXPECT_EQ('I', lines[1].level);
    EXPECT_EQ((std::vector<std::string>{std::string("3 ") + kCurrentList, std::string("3 ") + kList,
                                        std::string("3 ") + kProgramChanged, std::string("3 ") + kStb}),
              SubscriptionTraffic());

    ASSERT_TRUE(Emit(kList, SimValue(kList)));
    ASSERT_TRUE(Emit(kProgramChanged, "{\"ProgramTitle\":\"News\"}"));
    ASSERT_TRUE(Emit(kStb, "{\"Connected\":true}"));
    ASSERT_TRUE(Recorder().WaitForCount(3, 5000));
    auto all = Recorder().All();
    EXPECT_EQ("0:6", all[0].subject);
    EXPECT_EQ("2:1", all[1].subject);
    EXPECT_EQ("3:1", all[2].subject);
    for (const Delivery& delivery : all) EXPECT_EQ(&user, delivery.userData);

    m_monitor->Clear();
    ASSERT_TRUE(LMFServiceAPI::UnRegisterChannelCallback());
    EXPECT_EQ((std::vector<std::string>{std::string("4 ") + kList, std::string("4 ") + kProgramChanged,
                                        std::string("4 ") + kStb}),
              SubscriptionTraffic());
    // The current list stays subscribed, and the callback stays stored.
    EXPECT_EQ(1u, SimSubscribers(kCurrentList).size());
    EXPECT_EQ(RecordedChannelEvent<2>, LMFServiceAPI::m_fnChannelCb);
    Recorder().Clear();
    ASSERT_TRUE(Emit(kCurrentList, "{\"Status\":\"Failed\"}"));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_EQ("0:0", Recorder().All()[0].subject);
}

TEST_F(ChannelCallbackTest, ExactlyThreeFailedSubscriptionsRefuseTheCallbackFourDoNot) {
    Start();
    SetChannelCallback(nullptr);
    // The dispatcher already registered on three subjects: the bus client
    // refuses those three again.
    for (const char* subject : {kCurrentList, kList, kProgramChanged})
        ASSERT_TRUE(Client()->Subscribe(subject, LMFServiceAPI::_SubscribeCb, nullptr));
    m_log.Mark();
    EXPECT_FALSE(LMFServiceAPI::RegisterChannelCallback(RecordedChannelEvent<2>, nullptr));
    EXPECT_EQ(nullptr, LMFServiceAPI::m_fnChannelCb);
    for (const char* subject : {kCurrentList, kList, kProgramChanged})
        EXPECT_TRUE(
            m_log.From(std::string("Error Subscribe ") + subject, "LMFServiceAPI.cpp", "RegisterChannelCallback"))
            << m_log.Dump();
    // Now all four are there: four failures, and the callback is kept.
    m_log.Mark();
    EXPECT_TRUE(LMFServiceAPI::RegisterChannelCallback(RecordedChannelEvent<2>, nullptr));
    EXPECT_EQ(4u, m_log.Count(std::string("Error Subscribe ") + kStb, 'E') +
                      m_log.Count(std::string("Error Subscribe ") + kList, 'E') +
                      m_log.Count(std::string("Error Subscribe ") + kCurrentList, 'E') +
                      m_log.Count(std::string("Error Subscribe ") + kProgramChanged, 'E'))
        << m_log.Dump();
    EXPECT_EQ(RecordedChannelEvent<2>, LMFServiceAPI::m_fnChannelCb);
}

// ---- the C layer ------------------------------------------------------------------

struct CEvent {
    int event = -1;
    std::string data;
    int count = -1;
    void* userData = nullptr;
};
std::mutex g_cEventsMutex;
std::vector<CEvent> g_cEvents;

void RecordCEvent(LMF_EVENT_TYPE event, char* data, int count, void* userData) {
    std::lock_guard<std::mutex> lock(g_cEventsMutex);
    g_cEvents.push_back({static_cast<int>(event), data, count, userData});
    free(data);  // the application's copy
}

size_t CEventCount() {
    std::lock_guard<std::mutex> lock(g_cEventsMutex);
    return g_cEvents.size();
}

TEST_F(ChannelCallbackTest, TheCCallbackGetsItsOwnCopyAndStopsAtOnceWhenUnregistered) {
    Start();
    g_cEvents.clear();
    int user = 0;
    ASSERT_TRUE(CS_RegisterChannelCallback(RecordCEvent, &user));
    EXPECT_TRUE(m_log.From("call CS_RegisterChannelCallback!", "CS_LMFServiceAPI.cpp", "CS_RegisterChannelCallback"))
        << m_log.Dump();
    ASSERT_TRUE(Emit(kStb, "{\"Connected\":true}"));
    ASSERT_TRUE(WaitUntil([] { return CEventCount() == 1; }, 5000));
    {
        std::lock_guard<std::mutex> lock(g_cEventsMutex);
        EXPECT_EQ(3, g_cEvents[0].event);
        EXPECT_EQ("{\"Connected\":true}", g_cEvents[0].data);
        EXPECT_EQ(1, g_cEvents[0].count);
        EXPECT_EQ(&user, g_cEvents[0].userData);
    }
    EXPECT_TRUE(m_log.Has("call! _ChannelCallbackFunction : 3", 'E')) << m_log.Dump();

    ASSERT_TRUE(CS_UnRegisterChannelCallback());
    // The current list is still subscribed, but the C callback is gone.
    ASSERT_TRUE(Emit(kCurrentList, "{\"Status\":\"Failed\"}"));
    m_monitor->Settle(m_control);
    EXPECT_FALSE(WaitUntil([] { return CEventCount() > 1; }, 300));
}

}  // namespace
}  // namespace lumora::test
