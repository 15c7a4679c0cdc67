// Reads and writes of the library against the simulator: results, what went
// on the bus, and the log lines.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "MisbehavingService.h"
#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

std::string Take(char* text) {
    std::unique_ptr<char, decltype(&free)> owned(text, &free);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

class ReadWriteTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_TRUE(Lumora_InitService());
        ASSERT_TRUE(LMFServiceAPI::IsAvailable());
        m_log.Mark();
    }
};

TEST_F(ReadWriteTest, ReadReturnsTheValueTheServiceHolds) {
    std::string expected = SimValue("Ctx/Media/Source/Info/Current");
    ASSERT_NE("{}", expected);
    EXPECT_EQ(expected, Take(Lumora_ReadCurrentSourceInfo(nullptr)));
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("iiiss", calls[0].signature);
    EXPECT_EQ(getpid(), calls[0].pid);
    EXPECT_EQ(1, calls[0].requestType);
    EXPECT_EQ(1, calls[0].requestId);
    EXPECT_EQ("Ctx/Media/Source/Info/Current", calls[0].subject);
    EXPECT_TRUE(m_log.Has("[myapp] type:1, reqId:1, szSubject:Ctx/Media/Source/Info/Current, input:", 'E'))
        << m_log.Dump();
}

TEST_F(ReadWriteTest, ReadWithANullInputSendsAnEmptyString) {
    Take(Lumora_ReadCurrentAppInfo(nullptr));
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("", calls[0].input);
    EXPECT_NE(std::string::npos, calls[0].body.find("'Ctx/App/Info/Current', ''")) << calls[0].body;
}

TEST_F(ReadWriteTest, ReadSendsItsInputAsGiven) {
    Take(Lumora_ReadPrefChannelList("{\"list\":13}"));
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("{\"list\":13}", calls[0].input);
    EXPECT_EQ("Pref/Channel/List", calls[0].subject);
}

TEST_F(ReadWriteTest, RequestIdsCountUpFromOneOverReadsAndWrites) {
    Take(Lumora_Read("Ctx/App/Info/Current", nullptr));
    EXPECT_TRUE(CS_Lumora_Write("Raw/Setting/Selected/Item", "{\"item\":\"Picture\"}"));
    Take(Lumora_Read("Ctx/App/Info/Current", nullptr));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
    auto reads = LibraryCalls("RequestSync");
    auto writes = LibraryCalls("Write");
    ASSERT_EQ(2u, reads.size());
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ(1, reads[0].requestId);
    EXPECT_EQ(2, writes[0].requestId);
    EXPECT_EQ(3, reads[1].requestId);
}

TEST_F(ReadWriteTest, ReadOfASubjectWithoutDataIsMinusFourAndLeavesTheOutputAlone) {
    char sentinel[] = "untouched";
    char* output = sentinel;
    EXPECT_EQ(-4, Client()->Read("Ctx/No/Such/Subject", nullptr, &output));
    EXPECT_EQ(sentinel, output);
    m_log.Mark();
    EXPECT_EQ("<null>", Take(Lumora_Read("Ctx/No/Such/Subject", nullptr)));
    EXPECT_TRUE(m_log.Has("error -4", 'E')) << m_log.Dump();
}

TEST_F(ReadWriteTest, TheServicesOwnCodeIsPassedThroughWithItsText) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/App/Info/Current", 7)).Ok());
    std::string value = SimValue("Ctx/App/Info/Current");
    char* output = nullptr;
    EXPECT_EQ(7, Client()->Read("Ctx/App/Info/Current", nullptr, &output));
    EXPECT_EQ(value, Take(output));
    m_log.Mark();
    EXPECT_EQ("<null>", Take(Lumora_ReadCurrentAppInfo(nullptr)));
    EXPECT_TRUE(m_log.Has("error 7", 'E')) << m_log.Dump();
}

TEST_F(ReadWriteTest, ReadOfADelayedAnswerFailsWithMinusSixAfterAboutOneSecond) {
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 3000u)).Ok());
    auto start = std::chrono::steady_clock::now();
    char* output = nullptr;
    EXPECT_EQ(-6, Client()->Read("Ctx/App/Info/Current", nullptr, &output));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 0.8);
    EXPECT_LT(seconds, 2.5);
    EXPECT_EQ(nullptr, output);
    EXPECT_TRUE(m_log.Has("Timeout was reached, reqId:1", 'E')) << m_log.Dump();
}

TEST_F(ReadWriteTest, ReadFromAServiceThatStoppedAnsweringFailsAfterAboutOneSecond) {
    ASSERT_TRUE(Control(sim::kCtlStopAnswering).Ok());
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("<null>", Take(Lumora_ReadCurrentSourceInfo(nullptr)));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 0.8);
    EXPECT_LT(seconds, 2.5);
    EXPECT_TRUE(m_log.Has("error -6", 'E')) << m_log.Dump();
}

TEST_F(ReadWriteTest, WriteWithANullInputIsMinusThreeAndSendsNothing) {
    EXPECT_EQ(-3, Client()->Write("Raw/Setting/Selected/Item", nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] input is null", 'E')) << m_log.Dump();
    EXPECT_EQ(-3, Client()->Write(nullptr, "{}"));
    EXPECT_TRUE(m_log.Has("[myapp] szSubject is null", 'E')) << m_log.Dump();
    EXPECT_FALSE(Lumora_WriteSelectedItem(nullptr));
    // A later write is the first to reach the bus, with the next id.
    EXPECT_TRUE(Lumora_WriteSelectedItem("{\"item\":\"Sound\"}"));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
    auto writes = LibraryCalls("Write");
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ("{\"item\":\"Sound\"}", writes[0].input);
}

TEST_F(ReadWriteTest, WriteIsSentAsTypeTwoAndStoredByTheService) {
    EXPECT_TRUE(Lumora_Write("Ctx/Test/Written", "{\"v\":1}"));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
    auto writes = LibraryCalls("Write");
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ(2, writes[0].requestType);
    EXPECT_EQ("Ctx/Test/Written", writes[0].subject);
    EXPECT_EQ("{\"v\":1}", writes[0].input);
    EXPECT_TRUE(m_log.Has("[myapp] type:2, reqId:1, szSubject:Ctx/Test/Written, input:{\"v\":1}", 'E')) << m_log.Dump();
    EXPECT_TRUE(WaitUntil([&] { return SimValue("Ctx/Test/Written") == "{\"v\":1}"; }, 5000));
}

TEST_F(ReadWriteTest, InternalSubjectIsRefusedToAProcessOffTheWhiteListWithoutBusTraffic) {
    EXPECT_EQ("<null>", Take(Lumora_Read("I/TallyDB/App/Duration", nullptr)));
    EXPECT_TRUE(m_log.Has("This subject is not for external apps .. ", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Other process access denied for myapp (whitelist size: 3)", 'I')) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
}

TEST_F(ReadWriteTest, SubjectOfTheSingleLetterIIsNotInternal) {
    Take(Lumora_Read("I", nullptr));
    EXPECT_FALSE(m_log.Has("This subject is not for external apps .. ")) << m_log.Dump();
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("I", calls[0].subject);
}

TEST_F(ReadWriteTest, WriteToAnInternalSubjectIsSentWhateverTheWhiteList) {
    EXPECT_TRUE(Lumora_WriteRawStreamingEvent("{\"event\":\"play\"}"));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
    EXPECT_EQ("I/Raw/Streaming/Event", LibraryCalls("Write")[0].subject);
}

TEST_F(ReadWriteTest, EmptyValueReadsAsAnEmptyStringThatMustBeFreed) {
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/Test/Empty", "")).Ok());
    char* value = Lumora_Read("Ctx/Test/Empty", nullptr);
    ASSERT_NE(nullptr, value);
    EXPECT_STREQ("", value);
    free(value);
}

TEST_F(ReadWriteTest, EveryFixedSubjectReadNamesItsSubject) {
    struct Row {
        char* (*read)(const char*);
        const char* subject;
    };
    const Row rows[] = {
        {Lumora_ReadPrefChannelList, "Pref/Channel/List"},
        {Lumora_ReadPrefChannelListByCurrentSource, "Pref/Channel/List/CurrentSource"},
        {Lumora_ReadPrefChannelListByCurrentSourceMRU, "Pref/Channel/List/CurrentSource/MRU"},
        {Lumora_ReadPrefChannelListWeekTimeTable, "Pref/Channel/List/WeekTimeTable"},
        {Lumora_ReadPrefChannelListByServiceProvider, "Pref/Channel/List/ServiceProvider"},
        {Lumora_ReadCurrentBroadcastProgram, "Ctx/Media/Broadcast/Program/Current"},
        {Lumora_ReadCurrentBroadcastStatus, "Ctx/Media/Broadcast/Status/Current"},
        {Lumora_ReadSTBStatus, "Ctx/Media/Broadcast/Status/STB"},
        {Lumora_ReadCurrentSourceInfo, "Ctx/Media/Source/Info/Current"},
        {Lumora_ReadCurrentAppInfo, "Ctx/App/Info/Current"},
        {Lumora_ReadCurrentVolumeLevel, "Ctx/Sound/Volume/Level/Current"},
        {Lumora_ReadCurrentSoundOutputStatus, "Ctx/Sound/Output/Status/Current"},
        {Lumora_ReadCurrentSoundOutputMode, "Ctx/Sound/Output/Mode/Current"},
        {Lumora_ReadCurrentSourceStatus, "Data/Source/Status/Current"},
        {Lumora_ReadCurrentStreamingStatus, "Data/Streaming/Status/Current"},
        {Lumora_ReadCurrentBrightnessLevel, "Ctx/Env/Brightness/Level/Current"},
    };
    for (const Row& row : rows) {
        std::string expected = SimValue(row.subject);
        m_monitor->Clear();
        EXPECT_EQ(expected, Take(row.read(nullptr))) << row.subject;
        auto calls = LibraryCalls("RequestSync");
        ASSERT_EQ(1u, calls.size()) << row.subject;
        EXPECT_EQ(row.subject, calls[0].subject);
        EXPECT_EQ(1, calls[0].requestType);
    }
    EXPECT_EQ(1u, m_log.Count("DEPRECATION WARNING: Lumora_ReadCurrentVolumeLevel() is deprecated and will be removed "
                              "since API version 6.0",
                              'W'));
}

TEST_F(ReadWriteTest, BrightnessOfThePrivilegedRequesterInAnyCaseReadsTheExSubject) {
    for (const char* requester : {"nestory", "NESTORY", "NeStOrY"}) {
        m_monitor->Clear();
        Take(Lumora_ReadCurrentBrightnessLevel(requester));
        auto calls = LibraryCalls("RequestSync");
        ASSERT_EQ(1u, calls.size()) << requester;
        EXPECT_EQ("Ctx/Env/Brightness/EX/Level/Current", calls[0].subject);
        EXPECT_EQ(requester, calls[0].input);
    }
    m_monitor->Clear();
    EXPECT_EQ("<null>", Take(Lumora_ReadCurrentBrightnessLevel("nestory2")));
    EXPECT_TRUE(m_log.Has("Invalid requester", 'E'));
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
}

TEST_F(ReadWriteTest, CsReadAndWriteBehaveLikeThePlainForms) {
    EXPECT_EQ(SimValue("Ctx/App/Info/Current"), Take(CS_Lumora_Read("Ctx/App/Info/Current", nullptr)));
    EXPECT_TRUE(CS_Lumora_Write("Ctx/Test/Cs", "1"));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "Write"));
}

TEST_F(ReadWriteTest, RecommendedListsAreReadFromTheirSubjectsWithTheWholeInput) {
    const char* input = "{\"group\":\"HomeAppReordering\",\"apps\":[\"a\"]}";
    EXPECT_EQ(SimValue("Data/App/Recommended/List"), Take(Lumora_ReadRecommendedList(input)));
    const char* shortcut = "{\"group\":\"AccessibilityShortCut\"}";
    EXPECT_EQ(SimValue("Data/Setting/Recommended/List"), Take(CS_Lumora_ReadRecommendedList(shortcut)));
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("Data/App/Recommended/List", calls[0].subject);
    EXPECT_EQ(input, calls[0].input);
    EXPECT_EQ("Data/Setting/Recommended/List", calls[1].subject);
}

TEST_F(ReadWriteTest, ABusThatVanishesMidCallFailsTheCallWithoutACrash) {
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 5000u)).Ok());
    std::atomic<int> result{1};
    std::thread reader([&] {
        char* output = nullptr;
        result = Client()->Read("Ctx/App/Info/Current", nullptr, &output);
        free(output);
    });
    g_usleep(300 * 1000);
    m_bus.Stop();
    reader.join();
    EXPECT_EQ(-6, result.load());
    char* output = nullptr;
    EXPECT_EQ(-6, Client()->Read("Ctx/App/Info/Current", nullptr, &output));
    EXPECT_EQ(nullptr, output);
    m_sim.Stop();
}

TEST_F(ReadWriteTest, EightThreadsReadWhileTheMainLoopRuns) {
    MainLoopThread loop;
    std::string expected = SimValue("Ctx/Media/Source/Info/Current");
    constexpr int kThreads = 8;
    constexpr int kReads = 25;
    std::atomic<int> good{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < kThreads; ++t) {
        readers.emplace_back([&, t] {
            for (int i = 0; i < kReads; ++i) {
                if (Take(Lumora_ReadCurrentSourceInfo(nullptr)) == expected) ++good;
                if (i % 5 == 0) CS_Lumora_Write("Ctx/Test/Thread", std::to_string(t).c_str());
                LMFServiceAPI::IsAvailable();
            }
        });
    }
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(kThreads * kReads, good.load());
    auto reads = LibraryCalls("RequestSync");
    ASSERT_EQ(static_cast<size_t>(kThreads * kReads), reads.size());
    std::set<int> ids;
    for (const auto& call : reads) ids.insert(call.requestId);
    EXPECT_EQ(reads.size(), ids.size());
}

// A reply that only resembles the no-data marker is a value.
TEST(NoDataMarkerTest, OnlyExactlyTwoBracesMeanNoData) {
    program_invocation_short_name = const_cast<char*>("myapp");
    MisbehavingServiceBus peer;
    ASSERT_TRUE(peer.Start());
    MisbehavingService& service = peer.Service();
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));
    DBusClient* client = LMFServiceAPI::m_pDbusClient;
    for (const char* text : {"{ }", "{}\n", " {}", "{}"}) {
        service.SetReply("RequestSync", std::string("(0, '") + (strcmp(text, "{}\n") == 0 ? "{}\\n" : text) + "')");
        char* output = nullptr;
        int result = client->Read("Ctx/App/Info/Current", nullptr, &output);
        if (strcmp(text, "{}") == 0) {
            EXPECT_EQ(-4, result);
            EXPECT_EQ(nullptr, output);
        } else {
            EXPECT_EQ(0, result) << text;
            EXPECT_STREQ(text, output);
        }
        free(output);
    }
    service.SetReply("RequestSync", "(5, '{}')");
    char* output = nullptr;
    EXPECT_EQ(-4, client->Read("Ctx/App/Info/Current", nullptr, &output));
    Lumora_FiniService();
}

}  // namespace
}  // namespace lumora::test
