// The service API where no service is needed: the feature switch, counting
// without a client, the source and model, the internal-subject rule, and what
// happens when there is no bus at all (then one appears).
#include <errno.h>
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>

#include <cstdlib>
#include <string>

#include "BusCalls.h"
#include "LogCapture.h"
#include "MainLoopThread.h"
#include "TempDir.h"
#include "TestBus.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::LogRecord;
using lumora::test::MainLoopThread;
using lumora::test::ScopedEnv;
using lumora::test::TempDir;
using lumora::test::TestBus;

constexpr const char* kServiceKey = "com.kaldor/featureconf/lumora.service_enable";

class ServiceWithoutBusTest : public testing::Test {
protected:
    ServiceWithoutBusTest()
        : m_busAddress("unix:path=" + m_dir.File("bus")),
          m_bus("DBUS_SYSTEM_BUS_ADDRESS", m_busAddress),
          m_features("LUMORA_FEATURE_FILE", m_dir.File("absent.conf")) {
        program_invocation_short_name = const_cast<char*>("myapp");
    }

    void UseFeatureFile(const std::string& content) {
        m_dir.Write("features.conf", content);
        setenv("LUMORA_FEATURE_FILE", m_dir.File("features.conf").c_str(), 1);
    }

    TempDir m_dir;
    std::string m_busAddress;
    ScopedEnv m_bus;
    ScopedEnv m_features;
    LogCapture m_log;
};

TEST_F(ServiceWithoutBusTest, FiniServiceBeforeAnyInitFails) {
    EXPECT_FALSE(Lumora_FiniService());
    EXPECT_TRUE(m_log.Has("[myapp] FiniService with (m_pDbusClient == NULL) case", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("[myapp] End LMF FiniService", 'E')) << m_log.Dump();
    EXPECT_EQ(0, LMFServiceAPI::m_nRefCnt);
    EXPECT_FALSE(CS_FiniService());
}

TEST_F(ServiceWithoutBusTest, SourceAndModelAreTwoAndTwoUntilSet) {
    LMF_SRC_TYPE source = LMF_SRC_RF;
    LMF_MODEL_TYPE model = LMF_MODEL_0;
    EXPECT_TRUE(CS_GetSourceAndModel(&source, &model));
    EXPECT_EQ(2, source);
    EXPECT_EQ(2, model);
    EXPECT_TRUE(CS_SetSourceAndModel(LMF_SRC_RF, LMF_MODEL_1));
    EXPECT_TRUE(m_log.Has("SetSourceAndModel : Source[0] Model[1]", 'I')) << m_log.Dump();
    EXPECT_TRUE(CS_GetSourceAndModel(&source, &model));
    EXPECT_EQ(LMF_SRC_RF, source);
    EXPECT_EQ(LMF_MODEL_1, model);
}

TEST_F(ServiceWithoutBusTest, SupportFollowsTheFeatureSwitch) {
    EXPECT_TRUE(Is_LMFSupported());  // built-in default without a feature file
    EXPECT_TRUE(m_log.Has("LMF is Supported in this device", 'E')) << m_log.Dump();
    m_log.Mark();
    UseFeatureFile(std::string(kServiceKey) + "=false\n");
    EXPECT_FALSE(Is_LMFSupported());
    UseFeatureFile("other=true\n");
    EXPECT_FALSE(Is_LMFSupported());  // a failed query is a plain no, without a log line
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(ServiceWithoutBusTest, InitServiceIsRefusedWhenTheFeatureIsOff) {
    UseFeatureFile(std::string(kServiceKey) + "=false\n");
    EXPECT_FALSE(Lumora_InitService());
    EXPECT_FALSE(CS_InitService());
    EXPECT_EQ(2u, m_log.Count("LMF Not Supported in this Device", 'E')) << m_log.Dump();
    EXPECT_EQ(nullptr, LMFServiceAPI::m_pDbusClient);
    EXPECT_EQ(0, LMFServiceAPI::m_nRefCnt);
}

TEST_F(ServiceWithoutBusTest, InitServiceWithResponseDoesNotConsultTheFeatureSwitch) {
    UseFeatureFile(std::string(kServiceKey) + "=false\n");
    EXPECT_EQ(LMF_INIT_CONNECTION_FAILED, Lumora_InitServiceWithResponse(nullptr, nullptr));
    EXPECT_FALSE(m_log.Has("LMF Not Supported in this Device")) << m_log.Dump();
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    EXPECT_TRUE(Lumora_FiniService());
}

TEST_F(ServiceWithoutBusTest, InternalSubjectsAreThoseOfTwoOrMoreCharactersStartingWithCapitalI) {
    EXPECT_TRUE(LMFServiceAPI::_CheckInternalSubject("I/TallyDB/App/Duration"));
    EXPECT_TRUE(LMFServiceAPI::_CheckInternalSubject("Ix"));
    EXPECT_FALSE(LMFServiceAPI::_CheckInternalSubject("I"));
    EXPECT_FALSE(LMFServiceAPI::_CheckInternalSubject("i/x"));
    EXPECT_FALSE(LMFServiceAPI::_CheckInternalSubject("Ctx/I"));
    EXPECT_FALSE(LMFServiceAPI::_CheckInternalSubject(""));
    EXPECT_FALSE(LMFServiceAPI::_CheckInternalSubject(nullptr));
}

TEST_F(ServiceWithoutBusTest, ReadsAndWritesBeforeInitFailWithoutABusClient) {
    EXPECT_EQ(nullptr, Lumora_Read("Ctx/App/Info/Current", nullptr));
    EXPECT_FALSE(CS_Lumora_Write("Ctx/App/Info/Current", "{}"));
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    EXPECT_EQ(3u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();
    EXPECT_THROW(Lumora_Write("Ctx/App/Info/Current", "{}"), std::runtime_error);
}

TEST_F(ServiceWithoutBusTest, ChannelSignalAndActionOperationsBeforeInitFailWithoutABusClient) {
    ASSERT_EQ(nullptr, LMFServiceAPI::m_pDbusClient);
    std::string text;
    int count = 7;
    std::vector<LMF_CHANNEL_ELEM> channels = {{7, 1}};
    std::vector<std::string> values = {"v"};
    EXPECT_FALSE(LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, nullptr, nullptr));
    EXPECT_FALSE(LMFServiceAPI::UnsubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED));
    EXPECT_FALSE(LMFServiceAPI::GetChannelList(text, count));
    EXPECT_FALSE(LMFServiceAPI::ReorderChannelList(channels, 0));
    EXPECT_FALSE(LMFServiceAPI::RemoveChannelFromList(7, 1, LMF_SRC_EXT_AIR));
    EXPECT_FALSE(LMFServiceAPI::RemoveChannelFromList(7, 1, "id", LMF_SRC_EXT_AIR));
    EXPECT_FALSE(LMFServiceAPI::GetCurrentChannelInfo(text));
    EXPECT_FALSE(LMFServiceAPI::GetContentsRecognitionStatus(text));
    EXPECT_FALSE(LMFServiceAPI::RegisterChannelCallback(nullptr, nullptr));
    EXPECT_FALSE(LMFServiceAPI::UnRegisterChannelCallback());
    EXPECT_FALSE(LMFServiceAPI::SetFirstscreenAction("home", "{}"));
    LMFServiceAPI::SetVoiceActionRuleId("r");
    LMFServiceAPI::SetVoiceAction("c", "n", values, values);
    EXPECT_EQ(13u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();
    // The checks come first: nothing is looked at before them.
    EXPECT_FALSE(m_log.Has("ComponentId is null")) << m_log.Dump();
    EXPECT_EQ(1u, channels.size());
    EXPECT_EQ(nullptr, CS_GetChannelList(&count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, CS_GetCurrentChannelInfo());
    EXPECT_EQ(nullptr, CS_ReorderChannelList("[{\"major\":7,\"minor\":1}]", 0));
    EXPECT_FALSE(CS_RegisterChannelCallback(nullptr, nullptr));
    EXPECT_FALSE(m_log.Has("call CS_RegisterChannelCallback!")) << m_log.Dump();
    for (const LogRecord& record : m_log.Find("dbus not created!")) EXPECT_EQ("LMFServiceAPI.cpp", record.file);
}

TEST_F(ServiceWithoutBusTest, LumoraWriteFailureCarriesItsMessage) {
    try {
        Lumora_Write("Raw/Firstscreen/Action", "{}");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Lumora_Write Failed", e.what());
    }
    try {
        Lumora_WriteRawStreamingEvent("{}");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Lumora_WriteRawStreamingEvent Failed", e.what());
    }
    EXPECT_FALSE(Lumora_WriteSelectedItem("{}"));
}

TEST_F(ServiceWithoutBusTest, RetiredVideoStatusFunctionsOnlyWarn) {
    EXPECT_EQ(nullptr, Lumora_ReadCurrentVideoStatus());
    EXPECT_FALSE(Lumora_RequestCurrentVideoStatus());
    EXPECT_FALSE(Lumora_SubscribeVideoStatus());
    EXPECT_FALSE(Lumora_UnsubscribeVideoStatus());
    for (const char* name : {"Lumora_ReadCurrentVideoStatus", "Lumora_RequestCurrentVideoStatus",
                             "Lumora_SubscribeVideoStatus", "Lumora_UnsubscribeVideoStatus"}) {
        std::string text =
            std::string("DEPRECATION WARNING: ") + name + "() is deprecated and will be removed since API version 3.0";
        auto found = m_log.Find(text, 'W');
        ASSERT_EQ(1u, found.size()) << text << "\n" << m_log.Dump();
        EXPECT_EQ(name, found[0].function);
    }
    EXPECT_EQ(4u, m_log.Lines().size());
}

TEST_F(ServiceWithoutBusTest, BrightnessOfAnUnknownRequesterIsRefusedWithoutReading) {
    EXPECT_EQ(nullptr, Lumora_ReadCurrentBrightnessLevel("someone"));
    EXPECT_EQ(nullptr, Lumora_ReadCurrentBrightnessLevel(""));
    EXPECT_EQ(2u, m_log.Count("Invalid requester", 'E')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("dbus not created!")) << m_log.Dump();
}

TEST_F(ServiceWithoutBusTest, VolumeReadWarnsEvenWhenTheReadFails) {
    EXPECT_EQ(nullptr, Lumora_ReadCurrentVolumeLevel(nullptr));
    EXPECT_EQ(nullptr, Lumora_ReadCurrentVolumeLevel(nullptr));
    EXPECT_EQ(2u, m_log.Count("DEPRECATION WARNING: Lumora_ReadCurrentVolumeLevel() is deprecated and will be "
                              "removed since API version 6.0",
                              'W'))
        << m_log.Dump();
}

// Counts the bus's connections other than the one asking.
int OtherConnections(const std::string& address) {
    GDBusConnection* query = lumora::test::ConnectToBus(address);
    if (query == nullptr) return -1;
    lumora::test::CallResult names = lumora::test::CallMethod(query, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                              "org.freedesktop.DBus", "ListNames", nullptr, 2000);
    int count = 0;
    if (names.Ok()) {
        GVariantIter* iter = nullptr;
        const gchar* name = nullptr;
        g_variant_get(names.reply.get(), "(as)", &iter);
        while (g_variant_iter_next(iter, "&s", &name)) {
            if (name[0] == ':' && g_strcmp0(name, g_dbus_connection_get_unique_name(query)) != 0) ++count;
        }
        g_variant_iter_free(iter);
    }
    g_object_unref(query);
    return count;
}

TEST_F(ServiceWithoutBusTest, NoBusGivesConnectionFailedAndTheTwoSecondTimerConnectsOnceABusAppears) {
    MainLoopThread loop;
    EXPECT_EQ(LMF_INIT_CONNECTION_FAILED, Lumora_InitServiceWithResponse(nullptr, nullptr));
    auto failed = m_log.Records();
    bool reported = false;
    for (const auto& record : failed) reported |= record.text.rfind("[myapp] m_connection error msg[", 0) == 0;
    EXPECT_TRUE(reported) << m_log.Dump();

    // The timer retries every 2 s while there is no bus.
    EXPECT_TRUE(lumora::test::WaitUntil([&] { return m_log.Count("m_connection error") >= 2; }, 6000)) << m_log.Dump();
    gint64 retried = g_get_monotonic_time();
    TestBus bus;
    ASSERT_TRUE(bus.StartAt(m_busAddress));
    bool connected = false;
    while (!connected && g_get_monotonic_time() - retried < 6 * G_USEC_PER_SEC) {
        connected = OtherConnections(m_busAddress) >= 1;
        if (!connected) g_usleep(100 * 1000);
    }
    EXPECT_TRUE(connected) << "the library did not connect to the new bus";
    // A process without subscriptions keeps its flags as they were: it is
    // brought up by its next start, not by the timer.
    m_log.Mark();
    EXPECT_EQ(nullptr, Lumora_Read("Ctx/App/Info/Current", nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Dbus is not connected", 'E')) << m_log.Dump();
    EXPECT_TRUE(Lumora_FiniService());
}

TEST_F(ServiceWithoutBusTest, InitWithANullResultStillSchedulesTheReconnectTimer) {
    MainLoopThread loop;
    EXPECT_TRUE(Lumora_InitService());
    EXPECT_TRUE(lumora::test::WaitUntil([&] { return m_log.Has("m_connection error"); }, 5000)) << m_log.Dump();
    EXPECT_TRUE(Lumora_FiniService());
}

}  // namespace
