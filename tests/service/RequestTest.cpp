// Asynchronous requests through the exported functions against lumora-sim:
// results, the callback's arguments and thread, what went on the bus, and
// the log lines.
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "MisbehavingService.h"
#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

constexpr const char* kErrorText = "{\"Status\":\"Error\"}";

class RequestTest : public EventTest {};

TEST_F(RequestTest, ARequestCallsBackOnceWithTheValueOnTheMainLoopThread) {
    Start();
    int userData = 7;
    ASSERT_TRUE(Lumora_RequestCurrentSourceInfo(nullptr, Recorded<1>, &userData));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    g_usleep(300 * 1000);
    auto deliveries = Recorder().All();
    ASSERT_EQ(1u, deliveries.size());
    EXPECT_EQ("Ctx/Media/Source/Info/Current", deliveries[0].subject);
    EXPECT_EQ(SimValue("Ctx/Media/Source/Info/Current"), deliveries[0].data);
    EXPECT_EQ(&userData, deliveries[0].userData);
    EXPECT_NE(std::this_thread::get_id(), deliveries[0].thread);
    EXPECT_TRUE(m_log.Has("Calling cb success : RequestID(1) Subject(Ctx/Media/Source/Info/Current)", 'I'))
        << m_log.Dump();
}

TEST_F(RequestTest, ARequestIsSentAsTypeFiveWithAFreshIdAndANullInputAsEmpty) {
    Start();
    ASSERT_TRUE(Lumora_Request("Ctx/App/Info/Current", nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_Request("Pref/Channel/List", "{\"list\":13}", Recorded<1>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(2, 5000));
    auto calls = LibraryCalls("RequestAsync");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("iiiss", calls[0].signature);
    EXPECT_EQ(getpid(), calls[0].pid);
    EXPECT_EQ(5, calls[0].requestType);
    EXPECT_EQ(1, calls[0].requestId);
    EXPECT_EQ("Ctx/App/Info/Current", calls[0].subject);
    EXPECT_EQ("", calls[0].input);
    EXPECT_EQ(2, calls[1].requestId);
    EXPECT_EQ("{\"list\":13}", calls[1].input);
    // The trace carries the record's address, which changes from run to run.
    bool traced = false;
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind("[myapp] type:5, reqId:1, szSubject:Ctx/App/Info/Current, input:, pRequest:0x", 0) == 0 &&
            record.level == 'E')
            traced = true;
    }
    EXPECT_TRUE(traced) << m_log.Dump();
}

TEST_F(RequestTest, AnAcceptedRequestLeavesThePendingTableEmpty) {
    Start();
    EXPECT_EQ(0, Client()->Request("Ctx/App/Info/Current", nullptr, Recorded<1>, nullptr));
    EXPECT_EQ(nullptr, Client()->FindRequest(1));
    EXPECT_TRUE(m_log.Has("EraseRequest success(1)", 'I')) << m_log.Dump();
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
}

TEST_F(RequestTest, ARequestWhileTheServiceIsDisabledIsRefusedAndNeverCallsBack) {
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_FALSE(LMFServiceAPI::IsAvailable());
    m_log.Mark();
    m_monitor->Clear();
    EXPECT_FALSE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Service is not available yet, you can get result after starting LMF", 'E'))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has("error -5", 'E')) << m_log.Dump();
    g_usleep(1500 * 1000);
    EXPECT_EQ(0u, Recorder().Count());
    EXPECT_TRUE(LibraryCalls("RequestAsync").empty());
}

TEST_F(RequestTest, ARequestAfterByeIsRefusedAndNeverCallsBack) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<9>, nullptr));  // listens for BYE and HELLO
    std::thread restart([this] { EXPECT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 2000u)).Ok()); });
    ASSERT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 3000));
    m_monitor->Clear();
    EXPECT_FALSE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Service is not available yet, you can get result after starting LMF", 'E'))
        << m_log.Dump();
    restart.join();
    ASSERT_TRUE(WaitUntil([] { return LMFServiceAPI::IsAvailable(); }, 5000));
    g_usleep(500 * 1000);
    EXPECT_EQ(0u, Recorder().Count());
    EXPECT_TRUE(LibraryCalls("RequestAsync").empty());
}

TEST_F(RequestTest, AServiceCodeGivesTheErrorTextAndTheSubjectOfTheReply) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/App/Info/Current", 3)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    auto deliveries = Recorder().All();
    EXPECT_EQ(kErrorText, deliveries[0].data);
    EXPECT_EQ("Ctx/App/Info/Current", deliveries[0].subject);
    EXPECT_TRUE(m_log.Has("ERROR!!! : Subejct=Ctx/App/Info/Current ret=3", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Calling cb with error json : RequestID(1) Subject(Ctx/App/Info/Current)", 'I'))
        << m_log.Dump();
}

TEST_F(RequestTest, AnEmptyValueIsHandedOnAsTheEmptyStringNotTheErrorText) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/Test/Empty", "")).Ok());
    ASSERT_TRUE(Lumora_Request("Ctx/Test/Empty", nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    EXPECT_EQ("", Recorder().All()[0].data);
}

TEST_F(RequestTest, AReplyOfAnEarlierStartIsDroppedWithoutCallingBack) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 1500u)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_FiniService());
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("Callback of previous init encountered hence returned", 'E'); }, 5000))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has("DbusClient AccessCnt is [2] and pRequest AccessCnt is [1]", 'I')) << m_log.Dump();
    g_usleep(300 * 1000);
    EXPECT_EQ(0u, Recorder().Count());
}

TEST_F(RequestTest, AServiceThatNeverAnswersGivesTheErrorTextAfterTheBusTimeOut) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlStopAnswering).Ok());
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    // GIO's default time-out is 25 s.
    ASSERT_TRUE(Recorder().WaitForCount(1, 45000)) << m_log.Dump();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 20.0);
    EXPECT_LT(seconds, 40.0);
    auto deliveries = Recorder().All();
    EXPECT_EQ(kErrorText, deliveries[0].data);
    EXPECT_EQ("Ctx/App/Info/Current", deliveries[0].subject);
    EXPECT_TRUE(m_log.Has("g_dbus_connection_call_finish failed ..[message:Timeout was reached code:24] ", 'E'))
        << m_log.Dump();
}

TEST_F(RequestTest, ANullSubjectIsRefusedWithMinusThree) {
    Start();
    EXPECT_FALSE(Lumora_Request(nullptr, nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] szSubject is null", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("error -3", 'E')) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls("RequestAsync").empty());
}

TEST_F(RequestTest, TextThatIsNotUtf8IsRefusedAsABadArgumentWithoutAGLibCritical) {
    Start();
    // A GLib critical or warning would end the test with a crash.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    // Refused where the application's call enters, with that one line: the
    // bus client is never asked (it would refuse too, with "error -3").
    m_log.Mark();
    EXPECT_FALSE(Lumora_Request("Ctx/\xff/Current", nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From("[myapp] szSubject is not valid UTF-8", "LMFServiceAPI.cpp", "Request")) << m_log.Dump();
    EXPECT_FALSE(Lumora_RequestCurrentAppInfo("{\"a\":\"\xc3\x28\"}", Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From("[myapp] input is not valid UTF-8", "LMFServiceAPI.cpp", "Request")) << m_log.Dump();
    EXPECT_EQ(nullptr, Lumora_Read("Ctx/App/Info/\xe2\x82", nullptr));
    EXPECT_TRUE(m_log.From("[myapp] szSubject is not valid UTF-8", "LMFServiceAPI.cpp", "Read"));
    EXPECT_FALSE(CS_Lumora_Write("Raw/Setting/Selected/Item", "\xff"));
    EXPECT_TRUE(m_log.From("[myapp] input is not valid UTF-8", "LMFServiceAPI.cpp", "Write"));
    size_t libraryLines = 0;
    for (const LogRecord& record : m_log.Records()) libraryLines += record.tag == "LMF_API";
    EXPECT_EQ(4u, libraryLines) << m_log.Dump();
    EXPECT_EQ(0u, m_log.Count("error -3"));
    g_usleep(300 * 1000);
    EXPECT_TRUE(LibraryCalls().empty());
    EXPECT_EQ(0u, Recorder().Count());
    EXPECT_EQ(nullptr, Client()->FindRequest(1));
    // The library goes on working.
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(Recorder().WaitForCount(1, 5000));
}

TEST_F(RequestTest, AnInternalSubjectIsRefusedToAProcessOffTheWhiteListWithoutBusTraffic) {
    Start();
    EXPECT_FALSE(Lumora_Request("I/TallyDB/App/Duration", nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("This subject is not for external apps .. ", 'E')) << m_log.Dump();
    g_usleep(300 * 1000);
    EXPECT_TRUE(LibraryCalls("RequestAsync").empty());
    EXPECT_EQ(0u, Recorder().Count());
}

TEST_F(RequestTest, ARequestBeforeAnyStartIsRefused) {
    EXPECT_FALSE(Lumora_RequestWeatherInfo(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("dbus not created!", 'E')) << m_log.Dump();
}

TEST_F(RequestTest, CsRequestLogsItsSuccessAtErrorPriorityAndNothingOnFailure) {
    Start();
    EXPECT_TRUE(CS_Lumora_Request("Ctx/App/Info/Current", nullptr, Recorded<1>, nullptr));
    EXPECT_EQ(1u, m_log.Count("call CS_Lumora_Request!", 'E')) << m_log.Dump();
    m_log.Mark();
    EXPECT_FALSE(CS_Lumora_Request("I/TallyDB/App/Duration", nullptr, Recorded<1>, nullptr));
    EXPECT_EQ(0u, m_log.Count("call CS_Lumora_Request!")) << m_log.Dump();
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
}

TEST_F(RequestTest, TheVolumeRequestWarnsOnEveryCall) {
    Start();
    const char* warning =
        "DEPRECATION WARNING: Lumora_RequestCurrentVolumeLevel() is deprecated and will be removed since API version "
        "6.0";
    EXPECT_TRUE(Lumora_RequestCurrentVolumeLevel(nullptr, Recorded<1>, nullptr));
    EXPECT_TRUE(Lumora_RequestCurrentVolumeLevel(nullptr, Recorded<1>, nullptr));
    EXPECT_EQ(2u, m_log.Count(warning, 'W')) << m_log.Dump();
    ASSERT_TRUE(Recorder().WaitForCount(2, 5000));
    EXPECT_EQ("Ctx/Sound/Volume/Level/Current", LibraryCalls("RequestAsync")[0].subject);
}

// Lines written from the reply handler's helpers belong to the handler.
TEST_F(RequestTest, ReplyLinesNameTheBusClientUnitAndTheReplyHandler) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/App/Info/Current", 3)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_RequestCurrentSourceInfo(nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(2, 5000));
    const char* handlerLines[] = {"DbusClient AccessCnt is [1] and pRequest AccessCnt is [1]",
                                  "ERROR!!! : Subejct=Ctx/App/Info/Current ret=3",
                                  "Calling cb with error json : RequestID(1) Subject(Ctx/App/Info/Current)",
                                  "Calling cb success : RequestID(2) Subject(Ctx/Media/Source/Info/Current)"};
    for (const char* text : handlerLines) {
        auto found = m_log.Find(text);
        ASSERT_FALSE(found.empty()) << text << "\n" << m_log.Dump();
        EXPECT_EQ("DBusClient.cpp", found[0].file) << text;
        EXPECT_EQ("OnResponseAsync", found[0].function) << text;
    }
    auto erased = m_log.Find("EraseRequest success(1)");
    ASSERT_FALSE(erased.empty());
    EXPECT_EQ("DBusClient.cpp", erased[0].file);
    EXPECT_EQ("EraseRequest", erased[0].function);
}

// ---- statistics ------------------------------------------------------------------

struct AppRecord {
    int64_t field1, field2;
    std::string field3, field4;
    int32_t field5;
    std::string field6;
};

std::mutex g_statisticsMutex;
std::vector<AppRecord> g_appRecords;
int g_statisticsCount = -1;

void OnAppStatistics(const char* subject, char* data, void*) {
    auto* result = reinterpret_cast<StatisticsResult*>(data);
    std::lock_guard<std::mutex> lock(g_statisticsMutex);
    g_statisticsCount = result->count;
    auto* items = static_cast<AppDurationItem*>(result->items);
    for (int i = 0; items != nullptr && i < result->count; ++i) {
        g_appRecords.push_back(
            {items[i].field1, items[i].field2, items[i].field3, items[i].field4, items[i].field5, items[i].field6});
    }
    CallbackRecorder::Instance().Add(1, subject, "", nullptr);
}

class WhitelistedRequestTest : public RequestTest {
protected:
    void SetUp() override {
        RequestTest::SetUp();
        program_invocation_short_name = const_cast<char*>("tv-launcher");  // on the sample whitelist
    }
};

TEST_F(WhitelistedRequestTest, AStatisticsRequestHandsTheDecodedRecordsToTheCallback) {
    Start();
    ASSERT_TRUE(Control(sim::kCtlSetStatistics,
                        g_variant_new("(ss)", "I/TallyDB/App/Duration",
                                      "[[1, 4294967295, \"A\", \"B\", \"C\", 7], [3, 4, \"D\", \"E\", \"F\", -2]]"))
                    .Ok());
    ASSERT_TRUE(Lumora_Request("I/TallyDB/App/Duration", nullptr, OnAppStatistics, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    std::lock_guard<std::mutex> lock(g_statisticsMutex);
    ASSERT_EQ(2, g_statisticsCount);
    ASSERT_EQ(2u, g_appRecords.size());
    EXPECT_EQ(1, g_appRecords[0].field1);
    EXPECT_EQ(-1, g_appRecords[0].field2);
    EXPECT_EQ("B", g_appRecords[0].field3);
    EXPECT_EQ("A", g_appRecords[0].field4);
    EXPECT_EQ(7, g_appRecords[0].field5);
    EXPECT_EQ("C", g_appRecords[0].field6);
    EXPECT_EQ("E", g_appRecords[1].field3);
    EXPECT_EQ(-2, g_appRecords[1].field5);
    EXPECT_TRUE(m_log.Has("[R] NUM =2", 'E')) << m_log.Dump();
    auto calls = LibraryCalls("RequestAsync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("I/TallyDB/App/Duration", calls[0].subject);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// One malloc arena for every thread, so that mallinfo2 sees what the library
// allocates on the main-loop thread. Set before any thread starts.
const int g_oneArena = mallopt(M_ARENA_MAX, 1);

std::atomic<int> g_bigAnswers{0};

void OnBigAppStatistics(const char* subject, char* data, void*) {
    auto* result = reinterpret_cast<StatisticsResult*>(data);
    auto* items = static_cast<AppDurationItem*>(result->items);
    if (result->count == 200 && items != nullptr && strlen(items[199].field6) == 200) ++g_bigAnswers;
    CallbackRecorder::Instance().Add(1, subject, "", nullptr);
}

// The records and their strings are released when the callback returns: many
// large answers leave the heap where it was. (Under the sanitizers, their
// leak checker watches the same thing at exit.)
TEST_F(WhitelistedRequestTest, StatisticsRecordsAreFreedOnceTheCallbackReturns) {
    Start();
    std::string tuples = "[";
    std::string text(200, 'x');
    for (int i = 0; i < 200; ++i) {
        if (i > 0) tuples += ",";
        tuples += "[1, 2, \"" + text + "\", \"" + text + "\", \"" + text + "\", 3]";
    }
    tuples += "]";
    ASSERT_TRUE(Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/App/Duration", tuples.c_str())).Ok());
    ASSERT_EQ(1, g_oneArena);
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    // One answer in flight at a time, so that GIO's own buffers stay at the
    // size of one answer.
    auto runBatch = [&](int requests) {
        for (int i = 0; i < requests; ++i) {
            size_t before = Recorder().Count();
            ASSERT_TRUE(Lumora_Request("I/TallyDB/App/Duration", nullptr, OnBigAppStatistics, nullptr));
            ASSERT_TRUE(Recorder().WaitForCount(before + 1, 10000));
        }
    };
    runBatch(100);  // warms GIO's and malloc's caches
    size_t before = mallinfo2().uordblks;
    runBatch(100);
    runBatch(100);
    size_t after = mallinfo2().uordblks;
    setenv("LUMORA_LOG_LEVEL", "debug", 1);
    EXPECT_EQ(300, g_bigAnswers.load());
    // 200 answers of 200 records would hold about 24 MB of strings if kept.
    EXPECT_LT(after, before + 1024 * 1024) << "before " << before << " after " << after;
}
#endif

TEST_F(WhitelistedRequestTest, AnInternalSubjectFromAWhitelistedProcessIsForwardedLikeAnyOther) {
    Start();
    ASSERT_TRUE(Lumora_Request("I/TallyDB/Onoff/Duration", "{\"days\":7}", Recorded<1>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    auto calls = LibraryCalls("RequestAsync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("I/TallyDB/Onoff/Duration", calls[0].subject);
    EXPECT_EQ("{\"days\":7}", calls[0].input);
    EXPECT_FALSE(m_log.Has("This subject is not for external apps .. ")) << m_log.Dump();
}

// ---- a callback that calls back into the library ------------------------------

struct Reentry {
    bool readRefused = false;
    bool requestRefused = false;
    bool subscribeRefused = false;
    bool finiRefused = false;
    bool writeSent = false;
    unsigned refusalsCounted = 0;  // Lumora_GetRefusedCallCount() across the callback's calls
};
Reentry g_reentry;

void CallsBackIntoTheLibrary(const char* subject, char* data, void*) {
    unsigned before = Lumora_GetRefusedCallCount();
    char* value = Lumora_ReadCurrentAppInfo(nullptr);
    g_reentry.readRefused = value == nullptr;
    free(value);
    g_reentry.requestRefused = !Lumora_RequestCurrentAppInfo(nullptr, Recorded<2>, nullptr);
    g_reentry.subscribeRefused = !Lumora_SubscribeAppInfo(Recorded<3>, nullptr);
    g_reentry.finiRefused = !Lumora_FiniService();
    g_reentry.writeSent = CS_Lumora_Write("Raw/Setting/Selected/Item", "{\"item\":\"Sound\"}");
    g_reentry.refusalsCounted = Lumora_GetRefusedCallCount() - before;
    CallbackRecorder::Instance().Add(1, subject, data, nullptr);
}

TEST_F(RequestTest, ACallbackCallingALockedOperationIsRefusedInsteadOfHanging) {
    Start();
    ASSERT_TRUE(Lumora_RequestCurrentSourceInfo(nullptr, CallsBackIntoTheLibrary, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    EXPECT_TRUE(g_reentry.readRefused);
    EXPECT_TRUE(g_reentry.requestRefused);
    EXPECT_TRUE(g_reentry.subscribeRefused);
    EXPECT_TRUE(g_reentry.finiRefused);
    EXPECT_TRUE(g_reentry.writeSent);  // a write takes no lock
    // The four refused calls are counted on the callback's thread, the
    // allowed write is not.
    EXPECT_EQ(4u, g_reentry.refusalsCounted);
    const char* refusals[][2] = {
        {"Read", "refused: Read() was called from a callback that runs with the client mutex held, and would deadlock"},
        {"Request",
         "refused: Request() was called from a callback that runs with the client mutex held, and would deadlock"},
        {"Subscribe",
         "refused: Subscribe() was called from a callback that runs with the client mutex held, and would deadlock"},
        {"FiniService",
         "refused: FiniService() was called from a callback that runs with the client mutex held, and would "
         "deadlock"},
    };
    for (const auto& refusal : refusals) {
        auto found = m_log.Find(refusal[1], 'E');
        ASSERT_EQ(1u, found.size()) << refusal[1] << "\n" << m_log.Dump();
        EXPECT_EQ("LMFServiceAPI.cpp", found[0].file);
        EXPECT_EQ(refusal[0], found[0].function);
    }
    // One line per refused call: no "error %d" or other line after it.
    EXPECT_FALSE(m_log.Has("error -6")) << m_log.Dump();
    // Nothing but the write reached the bus from inside the callback, and the
    // library still works afterwards.
    EXPECT_EQ(1u, LibraryCalls("RequestAsync").size());
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
    EXPECT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    unsigned before = Lumora_GetRefusedCallCount();
    char* value = Lumora_ReadCurrentAppInfo(nullptr);
    EXPECT_NE(nullptr, value);
    free(value);
    // A call that goes through is not counted.
    EXPECT_EQ(before, Lumora_GetRefusedCallCount());
}

void CallsTheBusClientFromTheCallback(const char* subject, char*, void*) {
    DBusClient* client = LMFServiceAPI::m_pDbusClient;
    int code = client->Request("Ctx/App/Info/Current", nullptr, Recorded<2>, nullptr);
    bool subscribed = client->Subscribe("Ctx/App/Info/Changed", Recorded<3>, nullptr);
    std::string verdict = std::to_string(code) + (subscribed ? " subscribed" : " refused");
    CallbackRecorder::Instance().Add(1, subject, verdict.c_str(), nullptr);
}

TEST_F(RequestTest, TheBusClientItselfRefusesACallFromARequestCallback) {
    Start();
    ASSERT_TRUE(Lumora_RequestCurrentSourceInfo(nullptr, CallsTheBusClientFromTheCallback, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    EXPECT_EQ("-6 refused", Recorder().All()[0].data);
    auto found = m_log.Find(
        "refused: Request() was called from a callback that runs with the client mutex held, and would deadlock", 'E');
    ASSERT_EQ(1u, found.size()) << m_log.Dump();
    EXPECT_EQ("DBusClient.cpp", found[0].file);
}

// ---- a peer that answers with another subject ------------------------------------

TEST(RequestReplySubjectTest, TheCallbackGetsTheSubjectTheServiceNamedInItsReply) {
    program_invocation_short_name = const_cast<char*>("myapp");
    CallbackRecorder::Instance().Clear();
    LogCapture log;
    MisbehavingServiceBus peer;
    ASSERT_TRUE(peer.Start());
    peer.Service().SetReply("RequestAsync", "(3, 'Other/Subject', <('ignored',)>)");
    MainLoopThread loop;
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<1>, nullptr));
    ASSERT_TRUE(CallbackRecorder::Instance().WaitForCount(1, 5000)) << log.Dump();
    auto deliveries = CallbackRecorder::Instance().All();
    EXPECT_EQ("Other/Subject", deliveries[0].subject);
    EXPECT_EQ(kErrorText, deliveries[0].data);
    EXPECT_TRUE(log.Has("ERROR!!! : Subejct=Other/Subject ret=3", 'E')) << log.Dump();
    Lumora_FiniService();
}

}  // namespace
}  // namespace lumora::test
