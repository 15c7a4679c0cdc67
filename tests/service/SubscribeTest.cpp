// Subscriptions through the exported functions against lumora-sim: what the
// service is told and when, what reaches which callback in which order, the
// refusals, and the log lines.
#include <dlfcn.h>
#include <json/json.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "MisbehavingService.h"
#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

class SubscribeTest : public EventTest {};

// ---- every fixed-subject function ------------------------------------------------

struct SubscribePair {
    const char* suffix;
    bool (*subscribe)(LumoraSubjectCb, void*);
    bool (*unsubscribe)(LumoraSubjectCb, void*);
    const char* subject;
};

#define PAIR(suffix, subject) \
    { #suffix, Lumora_Subscribe##suffix, Lumora_Unsubscribe##suffix, subject }
const SubscribePair kSubscribePairs[] = {
    PAIR(PrefChannelList, "Pref/Channel/List"),
    PAIR(PrefChannelListByCurrentSource, "Pref/Channel/List/CurrentSource"),
    PAIR(PrefChannelListWeekTimeTable, "Pref/Channel/List/WeekTimeTable"),
    PAIR(BroadcastProgram, "Ctx/Media/Broadcast/Program/Changed"),
    PAIR(BroadcastStatus, "Ctx/Media/Broadcast/Status/Changed"),
    PAIR(SourceInfo, "Ctx/Media/Source/Changed"),
    PAIR(AppInfo, "Ctx/App/Info/Changed"),
    PAIR(VolumeLevel, "Ctx/Sound/Volume/Level/Changed"),
    PAIR(LKFSValue, "Ctx/Sound/LKFS/Value"),
    PAIR(SoundOutputStatus, "Ctx/Sound/Output/Status/Changed"),
    PAIR(SourndOutputMode, "Ctx/Sound/Output/Mode/Changed"),
    PAIR(SourceStatus, "Data/Source/Status/Changed"),
    PAIR(StreamingEvent, "Data/Streaming/Event"),
    PAIR(BrightnessLevel, "Ctx/Env/Brightness/Level/Changed"),
};
#undef PAIR

TEST_F(SubscribeTest, EveryFixedSubjectPairSubscribesHearsAndUnsubscribesItsSubject) {
    Start();
    int n = 0;
    for (const SubscribePair& pair : kSubscribePairs) {
        SCOPED_TRACE(pair.suffix);
        m_monitor->Clear();
        Recorder().Clear();
        ASSERT_TRUE(pair.subscribe(Recorded<1>, &n));
        auto calls = LibraryCalls("RequestSync");
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ(3, calls[0].requestType);
        EXPECT_EQ(pair.subject, calls[0].subject);
        EXPECT_EQ((std::vector<std::string>{calls[0].sender}), SimSubscribers(pair.subject));
        ASSERT_TRUE(Emit(pair.subject, "{\"n\":1}"));
        ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
        EXPECT_EQ(pair.subject, Recorder().All()[0].subject);
        EXPECT_EQ("{\"n\":1}", Recorder().All()[0].data);
        EXPECT_EQ(&n, Recorder().All()[0].userData);
        ASSERT_TRUE(pair.unsubscribe(Recorded<1>, &n));
        calls = LibraryCalls("RequestSync");
        ASSERT_EQ(2u, calls.size());
        EXPECT_EQ(4, calls[1].requestType);
        EXPECT_EQ(pair.subject, calls[1].subject);
        EXPECT_TRUE(SimSubscribers(pair.subject).empty());
    }
}

struct RequestFunction {
    const char* name;
    bool (*request)(const char*, LumoraSubjectCb, void*);
    const char* subject;
};

#define REQUEST(name, subject) \
    { #name, Lumora_##name, subject }
const RequestFunction kRequestFunctions[] = {
    REQUEST(RequestPrefChannelList, "Pref/Channel/List"),
    REQUEST(RequestPrefChannelListByCurrentSource, "Pref/Channel/List/CurrentSource"),
    REQUEST(RequestPrefChannelListByCurrentSourceMRU, "Pref/Channel/List/CurrentSource/MRU"),
    REQUEST(RequestPrefChannelListWeekTimeTable, "Pref/Channel/List/WeekTimeTable"),
    REQUEST(RequestPrefChannelListByServiceProvider, "Pref/Channel/List/ServiceProvider"),
    REQUEST(RequestCurrentBroadcastProgram, "Ctx/Media/Broadcast/Program/Current"),
    REQUEST(RequestCurrentBroadcastStatus, "Ctx/Media/Broadcast/Status/Current"),
    REQUEST(RequestSTBStatus, "Ctx/Media/Broadcast/Status/STB"),
    REQUEST(RequestCurrentSourceInfo, "Ctx/Media/Source/Info/Current"),
    REQUEST(RequestCurrentAppInfo, "Ctx/App/Info/Current"),
    REQUEST(RequestCurrentVolumeLevel, "Ctx/Sound/Volume/Level/Current"),
    REQUEST(RequestCurrentSoundOutputStatus, "Ctx/Sound/Output/Status/Current"),
    REQUEST(RequestCurrentSoundOutputMode, "Ctx/Sound/Output/Mode/Current"),
    REQUEST(RequestCurrentSourceStatus, "Data/Source/Status/Current"),
    REQUEST(RequestCurrentStreamingStatus, "Data/Streaming/Status/Current"),
    REQUEST(RequestCurrentBrightnessLevel, "Ctx/Env/Brightness/Level/Current"),
    REQUEST(RequestStatisticApp, "Data/Statistic/App"),
    REQUEST(RequestWeatherInfo, "Data/Weather/Forecast"),
};
#undef REQUEST

TEST_F(SubscribeTest, EveryFixedSubjectRequestAsksItsSubjectAndPassesItsInput) {
    Start();
    int n = 0;
    for (const RequestFunction& function : kRequestFunctions) {
        SCOPED_TRACE(function.name);
        m_monitor->Clear();
        Recorder().Clear();
        ASSERT_TRUE(function.request("{\"q\":2}", Recorded<1>, &n));
        ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
        auto calls = LibraryCalls("RequestAsync");
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ(5, calls[0].requestType);
        EXPECT_EQ(function.subject, calls[0].subject);
        EXPECT_EQ("{\"q\":2}", calls[0].input);
        auto delivery = Recorder().All()[0];
        EXPECT_EQ(function.subject, delivery.subject);
        EXPECT_EQ(SimValue(function.subject), delivery.data);
        EXPECT_EQ(&n, delivery.userData);
    }
}

TEST_F(SubscribeTest, TheMisspeltSoundOutputModeNameIsTheOnlyOneExported) {
    void* self = dlopen(nullptr, RTLD_NOW);
    ASSERT_NE(nullptr, self);
    EXPECT_NE(nullptr, dlsym(self, "Lumora_SubscribeSourndOutputMode"));
    EXPECT_NE(nullptr, dlsym(self, "Lumora_UnsubscribeSourndOutputMode"));
    EXPECT_EQ(nullptr, dlsym(self, "Lumora_SubscribeSoundOutputMode"));
    EXPECT_EQ(nullptr, dlsym(self, "Lumora_UnsubscribeSoundOutputMode"));
    dlclose(self);
}

// ---- one subject, several callbacks ----------------------------------------------

TEST_F(SubscribeTest, OnlyTheFirstCallbackOfASubjectSubscribesAndOnlyTheLastUnsubscribes) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("It is first callbacks for subject[Ctx/App/Info/Changed]", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("It is first subscribing to LMF, call dbus to subscribe", 'I')) << m_log.Dump();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<2>, nullptr));
    EXPECT_TRUE(m_log.Has("Already registered subject, but it has different callback", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("There is another request previously, need not to call dbus", 'I')) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed"}), SubscriptionTraffic());
    m_log.Mark();
    ASSERT_TRUE(Lumora_UnsubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("There are another callbacks for subject[Ctx/App/Info/Changed]", 'I')) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed"}), SubscriptionTraffic());
    ASSERT_TRUE(Lumora_UnsubscribeAppInfo(Recorded<2>, nullptr));
    EXPECT_TRUE(m_log.Has("It was last callbacks for subject[Ctx/App/Info/Changed]", 'I')) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "4 Ctx/App/Info/Changed"}), SubscriptionTraffic());
}

TEST_F(SubscribeTest, OneSignalReachesEveryCallbackInInsertionOrderWithItsOwnUserData) {
    Start();
    int a = 0, b = 0, c = 0;
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Order", Recorded<3>, &c));
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Order", Recorded<1>, &a));
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Order", Recorded<2>, &b));
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Other", Recorded<4>, &a));
    ASSERT_TRUE(Emit("Ctx/Test/Order", "plain text"));
    ASSERT_TRUE(Recorder().WaitForCount(3, 5000));
    g_usleep(200 * 1000);
    auto deliveries = Recorder().All();
    ASSERT_EQ(3u, deliveries.size());
    EXPECT_EQ(3, deliveries[0].callback);
    EXPECT_EQ(&c, deliveries[0].userData);
    EXPECT_EQ(1, deliveries[1].callback);
    EXPECT_EQ(&a, deliveries[1].userData);
    EXPECT_EQ(2, deliveries[2].callback);
    EXPECT_EQ(&b, deliveries[2].userData);
    for (const Delivery& delivery : deliveries) {
        EXPECT_EQ("Ctx/Test/Order", delivery.subject);
        EXPECT_EQ("plain text", delivery.data);
        EXPECT_NE(std::this_thread::get_id(), delivery.thread);
    }
    auto fanOut = m_log.Find("Subscribes size[3]", 'D');
    ASSERT_EQ(1u, fanOut.size()) << m_log.Dump();
    EXPECT_EQ("DBusClient.cpp", fanOut[0].file);
    EXPECT_EQ("OnSubscribe", fanOut[0].function);
}

TEST_F(SubscribeTest, TheSameCallbackWithOtherUserDataIsKeptHereButRefusedByTheBusClient) {
    Start();
    int first = 0, second = 0;
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, &first));
    m_log.Mark();
    EXPECT_FALSE(Lumora_SubscribeAppInfo(Recorded<1>, &second));
    EXPECT_TRUE(m_log.Has("Already registered subject, but it has different callback", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Error! Ctx/App/Info/Changed is already registered", 'E')) << m_log.Dump();
    EXPECT_EQ(2u, LMFServiceAPI::g_vSubscribeNonTypeList.size());
    EXPECT_EQ(1u, SubscriptionTraffic().size());
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{}"));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    g_usleep(200 * 1000);
    ASSERT_EQ(1u, Recorder().Count());
    EXPECT_EQ(&first, Recorder().All()[0].userData);
}

TEST_F(SubscribeTest, TheSameTripleTwiceIsRefusedWithoutAskingTheBusClient) {
    Start();
    int n = 0;
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, &n));
    m_log.Mark();
    EXPECT_FALSE(Lumora_SubscribeAppInfo(Recorded<1>, &n));
    EXPECT_TRUE(m_log.Has(AlreadySubscribed("Ctx/App/Info/Changed", Recorded<1>), 'E')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("Error! Ctx/App/Info/Changed is already registered")) << m_log.Dump();
    EXPECT_EQ(1u, LMFServiceAPI::g_vSubscribeNonTypeList.size());
}

TEST_F(SubscribeTest, SubjectsOfTwoCharactersOrFewerAreRefusedAndThreePass) {
    Start();
    EXPECT_FALSE(Lumora_Subscribe("", Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_Subscribe("ab", Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_Subscribe(nullptr, Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_Unsubscribe("ab", Recorded<1>, nullptr));
    EXPECT_EQ(4u, m_log.Count("Invalid subject .. ", 'E')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EXPECT_TRUE(Lumora_Subscribe("abc", Recorded<1>, nullptr));
    EXPECT_EQ((std::vector<std::string>{"3 abc"}), SubscriptionTraffic());
}

TEST_F(SubscribeTest, ASubjectThatIsNotUtf8IsRefusedWithoutAGLibCritical) {
    Start();
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    EXPECT_FALSE(Lumora_Subscribe("Ctx/\xfe/Changed", Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From("Invalid subject .. ", "LMFServiceAPI.cpp", "Subscribe")) << m_log.Dump();
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
    // The bus client refuses it too, and stores nothing.
    EXPECT_FALSE(Client()->Subscribe("Ctx/\xfe/Changed", Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From("[myapp] szSubject is not valid UTF-8", "DBusClient.cpp", "__InsertSubscribe"))
        << m_log.Dump();
    EXPECT_EQ(nullptr, Client()->FindSubscribe("Ctx/\xfe/Changed"));
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(SubscribeTest, ANullSubjectIsAProgrammingErrorThatTheBusClientThrowsBeforeSendingAnything) {
    Start();
    EXPECT_THROW(Client()->Subscribe(nullptr, Recorded<1>, nullptr), std::logic_error);
    EXPECT_TRUE(m_log.From("[myapp] szSubject is null", "DBusClient.cpp", "__InsertSubscribe")) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls().empty());
    // Nothing stored: the same pair is taken afterwards.
    EXPECT_TRUE(Client()->Subscribe("Ctx/App/Info/Changed", Recorded<1>, nullptr));
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed"}), SubscriptionTraffic());
    EXPECT_TRUE(Client()->Unsubscribe("Ctx/App/Info/Changed", Recorded<1>));
}

TEST_F(SubscribeTest, UnsubscribingATripleNeverSubscribedStillAsksTheBusClient) {
    Start();
    EXPECT_FALSE(Lumora_UnsubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("It was last callbacks for subject[Ctx/App/Info/Changed]", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Fail to delete subscribe(Ctx/App/Info/Changed), not found", 'I')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
}

TEST_F(SubscribeTest, AnInternalSubjectIsRefusedToAProcessOffTheWhiteList) {
    Start();
    EXPECT_FALSE(Lumora_Subscribe("I/Raw/Streaming/Event", Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_Unsubscribe("I/Raw/Streaming/Event", Recorded<1>, nullptr));
    EXPECT_EQ(2u, m_log.Count("This subject is not for external apps .. ", 'E')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
}

TEST_F(SubscribeTest, ASubscriptionBeforeAnyStartIsRefused) {
    EXPECT_FALSE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_UnsubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_EQ(2u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();
}

TEST_F(SubscribeTest, ANullCallbackIsStoredAndSkippedWithALineWhenItsSignalComes) {
    Start();
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Null", nullptr, nullptr));
    ASSERT_TRUE(Lumora_Subscribe("Ctx/Test/Null", Recorded<1>, nullptr));
    ASSERT_TRUE(Emit("Ctx/Test/Null", "x"));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_TRUE(WaitUntil([&] { return m_log.Has("null callback for subject Ctx/Test/Null skipped", 'E'); }, 2000))
        << m_log.Dump();
}

// ---- the bus-side signal subscription ------------------------------------------

TEST_F(SubscribeTest, TheLastRemovalStopsListeningAndTheNextSubscriptionListensAgain) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_TRUE(m_monitor->MatchRuleCalls().empty());  // listening since the start
    ASSERT_TRUE(Lumora_UnsubscribeAppInfo(Recorded<1>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return m_monitor->MatchRuleCalls().size() >= 1; }, 5000));
    auto rules = m_monitor->MatchRuleCalls();
    EXPECT_EQ("RemoveMatch", rules[0].member);
    EXPECT_NE(std::string::npos, rules[0].body.find("member='Response'")) << rules[0].body;
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<1>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return m_monitor->MatchRuleCalls().size() >= 2; }, 5000));
    rules = m_monitor->MatchRuleCalls();
    EXPECT_EQ("AddMatch", rules[1].member);
    EXPECT_NE(std::string::npos, rules[1].body.find("member='Response'")) << rules[1].body;
    ASSERT_TRUE(Emit("Ctx/Media/Source/Changed", "{\"Source\":\"HDMI1\"}"));
    EXPECT_TRUE(Recorder().WaitForCount(1, 5000));
}

// ---- the service leaving and coming back ---------------------------------------

TEST_F(SubscribeTest, AfterByeASubscriptionIsStoredAndSentOnlyWithTheNextHello) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    std::thread restart([this] { EXPECT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 1500u)).Ok()); });
    ASSERT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 3000));
    m_monitor->Clear();
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<2>, nullptr));
    EXPECT_TRUE(m_log.Has("Success to InsertSubscribe(Ctx/Media/Source/Changed)", 'I')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
    restart.join();
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() >= 2; }, 5000)) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "3 Ctx/Media/Source/Changed"}),
              SubscriptionTraffic());
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    ASSERT_TRUE(Emit("Ctx/Media/Source/Changed", "{}"));
    EXPECT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_EQ(2, Recorder().All()[0].callback);
}

TEST_F(SubscribeTest, HelloSendsEverySubscriptionRecordAgainAndItsLinesNameTheHandler) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<2>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<1>, nullptr));
    m_monitor->Clear();
    m_log.Mark();
    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 200u)).Ok());
    // One type-3 message per record: the subject with two callbacks twice.
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() >= 3; }, 5000)) << m_log.Dump();
    EXPECT_EQ(
        (std::vector<std::string>{"3 Ctx/App/Info/Changed", "3 Ctx/App/Info/Changed", "3 Ctx/Media/Source/Changed"}),
        SubscriptionTraffic());
    auto hello = m_log.Find("[myapp] HELLO, {\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}", 'I');
    ASSERT_EQ(1u, hello.size()) << m_log.Dump();
    EXPECT_EQ("DBusClient.cpp", hello[0].file);
    EXPECT_EQ("__GetReqIdFromServerMessage", hello[0].function);
    auto bye = m_log.Find("[myapp] BYE, ", 'I');
    ASSERT_EQ(1u, bye.size());
    auto size = m_log.Find("Subscribes size[0]", 'D');
    ASSERT_EQ(2u, size.size()) << m_log.Dump();
    EXPECT_EQ("OnSubscribe", size[0].function);
    EXPECT_EQ("DBusClient.cpp", size[0].file);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
}

// ---- brightness, deprecation, the CS_ forms ---------------------------------------

TEST_F(SubscribeTest, BrightnessExSubscribesThePlainSubjectForNoRequesterAndTheExOneForThePrivilegedClient) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeBrightnessLevelEx(Recorded<1>, nullptr, nullptr));
    ASSERT_TRUE(Lumora_SubscribeBrightnessLevelEx(Recorded<2>, "NeStOrY", nullptr));
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/Env/Brightness/Level/Changed", "3 Ctx/Env/Brightness/EX/Level/Changed"}),
              SubscriptionTraffic());
    ASSERT_TRUE(Lumora_UnsubscribeBrightnessLevelEx(Recorded<2>, "NESTORY", nullptr));
    ASSERT_TRUE(Lumora_UnsubscribeBrightnessLevelEx(Recorded<1>, nullptr, nullptr));
    EXPECT_EQ(4u, SubscriptionTraffic().size());
    EXPECT_EQ("4 Ctx/Env/Brightness/EX/Level/Changed", SubscriptionTraffic()[2]);
    EXPECT_EQ("4 Ctx/Env/Brightness/Level/Changed", SubscriptionTraffic()[3]);
}

TEST_F(SubscribeTest, BrightnessExRefusesAnyOtherRequesterWithItsOwnLine) {
    Start();
    EXPECT_FALSE(Lumora_SubscribeBrightnessLevelEx(Recorded<1>, "tv-launcher", nullptr));
    EXPECT_FALSE(Lumora_SubscribeBrightnessLevelEx(Recorded<1>, "", nullptr));
    EXPECT_EQ(2u, m_log.Count("Invalid requester", 'E')) << m_log.Dump();
    EXPECT_FALSE(Lumora_UnsubscribeBrightnessLevelEx(Recorded<1>, "nestor", nullptr));
    EXPECT_EQ(1u, m_log.Count("Invalid szRequester", 'E')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
}

TEST_F(SubscribeTest, TheVolumeSubscriptionWarnsOnEveryCallAndTheSecondIsRefused) {
    Start();
    const char* warning =
        "DEPRECATION WARNING: Lumora_SubscribeVolumeLevel() is deprecated and will be removed since API version 6.0";
    EXPECT_TRUE(Lumora_SubscribeVolumeLevel(Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_SubscribeVolumeLevel(Recorded<1>, nullptr));
    EXPECT_EQ(2u, m_log.Count(warning, 'W')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(AlreadySubscribed("Ctx/Sound/Volume/Level/Changed", Recorded<1>), 'E')) << m_log.Dump();
    EXPECT_TRUE(Lumora_UnsubscribeVolumeLevel(Recorded<1>, nullptr));
    EXPECT_EQ(1u, m_log.Count("DEPRECATION WARNING: Lumora_UnsubscribeVolumeLevel() is deprecated and will be removed "
                              "since API version 6.0",
                              'W'));
}

TEST_F(SubscribeTest, CsSubscribeLogsItsSuccessOnceAndNothingOnFailure) {
    Start();
    EXPECT_TRUE(CS_Lumora_Subscribe("Ctx/App/Info/Changed", Recorded<1>, nullptr));
    EXPECT_EQ(1u, m_log.Count("call CS_Lumora_Subscribe!", 'E')) << m_log.Dump();
    m_log.Mark();
    EXPECT_FALSE(CS_Lumora_Subscribe("Ctx/App/Info/Changed", Recorded<1>, nullptr));
    EXPECT_FALSE(CS_Lumora_Subscribe("ab", Recorded<1>, nullptr));
    EXPECT_EQ(0u, m_log.Count("call CS_Lumora_Subscribe!")) << m_log.Dump();
    EXPECT_TRUE(CS_Lumora_Unsubscribe("Ctx/App/Info/Changed", Recorded<1>, nullptr));
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "4 Ctx/App/Info/Changed"}), SubscriptionTraffic());
}

// ---- the service's lists at the last stop -------------------------------------------

void OnTyped(ContextSignalType type, char* data, void* userData) {
    CallbackRecorder::Instance().Add(100 + static_cast<int>(type), "typed", data, userData);
}

TEST_F(SubscribeTest, TheLastStopEmptiesBothSubscriptionLists) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<1>, nullptr));
    {
        ContextAutoLock lock(&LMFServiceAPI::m_mutex);
        LMFServiceAPI::g_vSubscribeList.push_back(
            new SubscribeData{"Pref/Channel/List", CONTEXT_SIGNAL_MOST_WATCHED, OnTyped, nullptr});
    }
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_FiniService());
    EXPECT_EQ(2u, LMFServiceAPI::g_vSubscribeNonTypeList.size());  // still in use
    ASSERT_TRUE(Lumora_FiniService());
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeList.empty());
    // The bus client dropped its records too, telling the service.
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "3 Ctx/Media/Source/Changed",
                                        "4 Ctx/App/Info/Changed", "4 Ctx/Media/Source/Changed"}),
              SubscriptionTraffic());
}

TEST_F(SubscribeTest, TheSharedCallbackCallsTypedRecordsFirstThenUntypedOnesInInsertionOrder) {
    int t1 = 1, t2 = 2, u1 = 3, u2 = 4;
    {
        ContextAutoLock lock(&LMFServiceAPI::m_mutex);
        LMFServiceAPI::_InsertSubscribeDataNonType("Pref/Channel/List", Recorded<1>, &u1);
        LMFServiceAPI::g_vSubscribeList.push_back(
            new SubscribeData{"Pref/Channel/List", CONTEXT_SIGNAL_MOST_WATCHED, OnTyped, &t1});
        LMFServiceAPI::_InsertSubscribeDataNonType("Ctx/Other", Recorded<9>, &u1);
        LMFServiceAPI::_InsertSubscribeDataNonType("Pref/Channel/List", Recorded<2>, &u2);
        LMFServiceAPI::g_vSubscribeList.push_back(
            new SubscribeData{"Pref/Channel/List", CONTEXT_SIGNAL_STB_STATUS, OnTyped, &t2});
    }
    char data[] = "{\"Status\":\"Success\"}";
    LMFServiceAPI::_SubscribeCallback("Pref/Channel/List", data, reinterpret_cast<void*>(0x1));
    auto deliveries = Recorder().All();
    ASSERT_EQ(4u, deliveries.size());
    EXPECT_EQ(100 + CONTEXT_SIGNAL_MOST_WATCHED, deliveries[0].callback);
    EXPECT_EQ(&t1, deliveries[0].userData);
    EXPECT_EQ(100 + CONTEXT_SIGNAL_STB_STATUS, deliveries[1].callback);
    EXPECT_EQ(&t2, deliveries[1].userData);
    EXPECT_EQ(1, deliveries[2].callback);
    EXPECT_EQ(&u1, deliveries[2].userData);
    EXPECT_EQ("Pref/Channel/List", deliveries[2].subject);
    EXPECT_EQ(2, deliveries[3].callback);
    EXPECT_EQ(&u2, deliveries[3].userData);
    for (const Delivery& delivery : deliveries) EXPECT_EQ(data, delivery.data);
    ContextAutoLock lock(&LMFServiceAPI::m_mutex);
    LMFServiceAPI::_RemoveAllSubscribeData();
    LMFServiceAPI::_RemoveAllSubscribeDataNonType();
}

TEST_F(SubscribeTest, TheUntypedListHelpersFindCountAndRemoveByTheWholeTriple) {
    int a = 0, b = 0;
    ContextAutoLock lock(&LMFServiceAPI::m_mutex);
    ASSERT_TRUE(LMFServiceAPI::_InsertSubscribeDataNonType("Ctx/X", Recorded<1>, &a));
    ASSERT_TRUE(LMFServiceAPI::_InsertSubscribeDataNonType("Ctx/X", Recorded<1>, &b));
    ASSERT_TRUE(LMFServiceAPI::_InsertSubscribeDataNonType("Ctx/X", Recorded<2>, &a));
    ASSERT_TRUE(LMFServiceAPI::_InsertSubscribeDataNonType("Ctx/Y", Recorded<1>, &a));
    EXPECT_EQ(3u, LMFServiceAPI::_CheckSubscribeDataNonType("Ctx/X"));
    EXPECT_EQ(0u, LMFServiceAPI::_CheckSubscribeDataNonType("Ctx/x"));
    SubscribeDataNonType* found = LMFServiceAPI::_FindSubscribeDataNonType("Ctx/X", Recorded<1>, &b);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(&b, found->user_data);
    EXPECT_EQ(nullptr, LMFServiceAPI::_FindSubscribeDataNonType("Ctx/Y", Recorded<2>, &a));
    LMFServiceAPI::_RemoveSubscribeDataNonType("Ctx/X", Recorded<1>, &a);
    ASSERT_EQ(3u, LMFServiceAPI::g_vSubscribeNonTypeList.size());
    EXPECT_EQ(&b, LMFServiceAPI::g_vSubscribeNonTypeList[0]->user_data);
    EXPECT_EQ(Recorded<2>, LMFServiceAPI::g_vSubscribeNonTypeList[1]->callback);
    EXPECT_EQ("Ctx/Y", LMFServiceAPI::g_vSubscribeNonTypeList[2]->subject);
    LMFServiceAPI::_RemoveAllSubscribeDataNonType();
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
}

// ---- callbacks that use the library ----------------------------------------------

void UnsubscribesItself(const char* subject, char* data, void* userData) {
    bool removed = Lumora_Unsubscribe(subject, UnsubscribesItself, userData);
    CallbackRecorder::Instance().Add(1, subject, removed ? "removed" : data, userData);
}

TEST_F(SubscribeTest, ASubscriptionCallbackMayUnsubscribeItself) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(UnsubscribesItself, nullptr));
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{}"));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_EQ("removed", Recorder().All()[0].data);
    EXPECT_TRUE(LMFServiceAPI::g_vSubscribeNonTypeList.empty());
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/App/Info/Changed", "4 Ctx/App/Info/Changed"}), SubscriptionTraffic());
}

// ---- a peer that sends what it likes ----------------------------------------------

TEST(SubscribeSignalTest, ASignalForASubjectNobodyHoldsIsAnUnknownMessageAndReachesNoCallback) {
    program_invocation_short_name = const_cast<char*>("myapp");
    CallbackRecorder::Instance().Clear();
    LogCapture log;
    MisbehavingServiceBus peer;
    ASSERT_TRUE(peer.Start());
    MisbehavingService& service = peer.Service();
    service.SetReply("RequestSync", "(0, '{}')");
    MainLoopThread loop;
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    log.Mark();
    ASSERT_TRUE(service.EmitResponse("(0, 'Ctx/Nobody/Holds', 'x')"));
    ASSERT_TRUE(service.EmitResponse("(0, 'Ctx/App/Info/Changed', 'y')"));
    ASSERT_TRUE(CallbackRecorder::Instance().WaitForCount(1, 5000));
    ASSERT_TRUE(WaitUntil([&] { return log.Has("Unknown Message: Ctx/Nobody/Holds", 'E'); }, 2000)) << log.Dump();
    auto unknown = log.Find("Unknown Message: Ctx/Nobody/Holds");
    EXPECT_EQ("SubscribeStateCheck", unknown[0].function);
    EXPECT_EQ("DBusClient.cpp", unknown[0].file);
    auto deliveries = CallbackRecorder::Instance().All();
    ASSERT_EQ(1u, deliveries.size());
    EXPECT_EQ("y", deliveries[0].data);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    Lumora_FiniService();
}

// ---- no bus ---------------------------------------------------------------------

TEST(SubscribeWithoutBusTest, SubscribeAndUnsubscribeWithoutABusReturnTrueAndLeaveTheTableAlone) {
    program_invocation_short_name = const_cast<char*>("myapp");
    TempDir dir;
    LogCapture log;
    ScopedEnv address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir.File("no-bus"));
    EXPECT_EQ(LMF_INIT_CONNECTION_FAILED, Lumora_InitServiceWithResponse(nullptr, nullptr));
    log.Mark();
    EXPECT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, nullptr));
    EXPECT_TRUE(Lumora_UnsubscribeSourceInfo(Recorded<1>, nullptr));
    EXPECT_EQ(2u, log.Count("[myapp] Dbus is not connected", 'E')) << log.Dump();
    EXPECT_EQ(nullptr, LMFServiceAPI::m_pDbusClient->FindSubscribe("Ctx/App/Info/Changed"));
    // The service API's own list keeps the triple.
    EXPECT_EQ(1u, LMFServiceAPI::g_vSubscribeNonTypeList.size());
    EXPECT_FALSE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(log.Has("error -5", 'E')) << log.Dump();
    Lumora_FiniService();
}

}  // namespace
}  // namespace lumora::test
