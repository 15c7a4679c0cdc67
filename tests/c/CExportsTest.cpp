// Runs the plain-C programs of tests/c against the simulator and checks what
// they sent and logged.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "BusMonitor.h"
#include "LogCapture.h"
#include "ProgramFixture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {
namespace {

std::vector<std::string> Subjects(const std::vector<BusMessage>& calls, const std::string& own) {
    std::vector<std::string> subjects;
    for (const BusMessage& call : calls) {
        if (call.sender != own) subjects.push_back(call.subject);
    }
    return subjects;
}

// A private bus watched by a monitor, and lumora-sim; the C program is run by
// the test.
class CExportsTest : public ProgramFixture {
protected:
    // Runs the C program; afterwards the monitor holds all it sent.
    RunResult Run(const char* program) {
        RunResult run = RunProgram(program, {});
        EXPECT_TRUE(m_monitor->Settle(m_client));
        return run;
    }
};

TEST_F(CExportsTest, EveryReadAndWriteExportWorksFromC) {
    RunResult run = Run(LUMORA_C_EXPORTS_EXECUTABLE);
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("c exports ok\n", run.out);

    EXPECT_EQ((std::vector<std::string>{
                  "Ctx/Media/Source/Info/Current",
                  "Ctx/App/Info/Current",
                  "Pref/Channel/List",
                  "Pref/Channel/List/CurrentSource",
                  "Pref/Channel/List/CurrentSource/MRU",
                  "Pref/Channel/List/WeekTimeTable",
                  "Pref/Channel/List/ServiceProvider",
                  "Ctx/Media/Broadcast/Program/Current",
                  "Ctx/Media/Broadcast/Status/Current",
                  "Ctx/Media/Broadcast/Status/STB",
                  "Ctx/Media/Source/Info/Current",
                  "Ctx/App/Info/Current",
                  "Ctx/Sound/Volume/Level/Current",
                  "Ctx/Sound/Output/Status/Current",
                  "Ctx/Sound/Output/Mode/Current",
                  "Data/Source/Status/Current",
                  "Data/Streaming/Status/Current",
                  "Ctx/Env/Brightness/Level/Current",
                  "Ctx/Env/Brightness/EX/Level/Current",
                  "Ctx/No/Such/Subject",
                  "Data/App/Recommended/List",
                  "Data/Setting/Recommended/List",
              }),
              Subjects(m_monitor->Calls("RequestSync"), ""));
    ASSERT_TRUE(m_monitor->WaitForCalls(4, 5000, "Write"));
    auto writes = m_monitor->Calls("Write");
    ASSERT_EQ(4u, writes.size());
    EXPECT_EQ("Ctx/Test/FromC", writes[0].subject);
    EXPECT_EQ("{\"c\":1}", writes[0].input);
    EXPECT_EQ("I/Raw/Streaming/Event", writes[1].subject);
    EXPECT_EQ("Raw/Setting/Selected/Item", writes[2].subject);
    EXPECT_EQ("{\"item\":\"Picture\"}", writes[2].input);
    EXPECT_EQ("Ctx/Test/FromC/CS", writes[3].subject);
    auto reads = m_monitor->Calls("RequestSync");
    EXPECT_EQ("NeStOrY", reads[18].input);
    EXPECT_EQ("{}", reads[1].input);

    EXPECT_EQ(1u, m_log.Count("DEPRECATION WARNING: Lumora_ReadCurrentVolumeLevel() is deprecated and will be removed "
                              "since API version 6.0",
                              'W'))
        << m_log.Dump();
    for (const char* name : {"Lumora_ReadCurrentVideoStatus", "Lumora_RequestCurrentVideoStatus",
                             "Lumora_SubscribeVideoStatus", "Lumora_UnsubscribeVideoStatus"}) {
        EXPECT_EQ(1u, m_log.Count(std::string("DEPRECATION WARNING: ") + name +
                                      "() is deprecated and will be removed since API version 3.0",
                                  'W'))
            << name;
    }
    EXPECT_EQ(1u, m_log.Count("Invalid requester", 'E'));
    EXPECT_EQ(1u, m_log.Count("error -4", 'E'));
    EXPECT_EQ(1u, m_log.Count("[c_exports] input is null", 'E'));
    EXPECT_TRUE(m_log.Has("Item List setbank set as ({\"HomeApps\":{\"group\":\"HomeApps\",\"list\":[\"a\"]}})", 'I'));
}

// The type-3 and type-4 messages, as "3 subject".
std::vector<std::string> SubscriptionTraffic(const std::vector<BusMessage>& calls) {
    std::vector<std::string> traffic;
    for (const BusMessage& call : calls) {
        if (call.requestType == 3 || call.requestType == 4)
            traffic.push_back(std::to_string(call.requestType) + " " + call.subject);
    }
    return traffic;
}

TEST_F(CExportsTest, RequestsAndSubscriptionsWorkFromCWithTheApplicationsOwnLoop) {
    RunResult run = Run(LUMORA_C_EVENTS_EXECUTABLE);
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("c events ok\n", run.out);

    EXPECT_EQ((std::vector<std::string>{"Ctx/App/Info/Current", "Ctx/Media/Source/Info/Current",
                                        "Ctx/Media/Broadcast/Program/Current"}),
              Subjects(m_monitor->Calls("RequestAsync"), ""));
    EXPECT_EQ(
        (std::vector<std::string>{"3 Ctx/Test/FromC/Changed", "4 Ctx/Test/FromC/Changed",
                                  "3 Ctx/Sound/Output/Mode/Changed", "4 Ctx/Sound/Output/Mode/Changed",
                                  "3 Ctx/Env/Brightness/EX/Level/Changed", "4 Ctx/Env/Brightness/EX/Level/Changed"}),
        SubscriptionTraffic(m_monitor->Calls("RequestSync")));
    EXPECT_EQ(1u, m_log.Count("call CS_Lumora_Request!", 'E')) << m_log.Dump();
    EXPECT_EQ(0u, m_log.Count("call CS_Lumora_Subscribe!"));
    EXPECT_EQ(1u, m_log.Count("Error! Ctx/Test/FromC/Changed is already registered", 'E'));
    EXPECT_EQ(1u, m_log.Count("Invalid requester", 'E'));
}

TEST_F(CExportsTest, AvailabilityCallbacksAndSubscriptionsWithTheCurrentValueWorkFromC) {
    RunResult run = Run(LUMORA_C_AVAILABILITY_EXECUTABLE);
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("c availability ok\n", run.out);
    // Subscribed, asked, unsubscribed.
    EXPECT_EQ((std::vector<std::string>{"3 Ctx/Sound/Volume/Level/Current", "4 Ctx/Sound/Volume/Level/Current"}),
              SubscriptionTraffic(m_monitor->Calls("RequestSync")));
    EXPECT_EQ((std::vector<std::string>{"Ctx/Sound/Volume/Level/Current"}),
              Subjects(m_monitor->Calls("RequestAsync"), ""));
    EXPECT_EQ(2u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("callback is null", 'E')) << m_log.Dump();
}

TEST_F(CExportsTest, ChannelServicesAndTheChannelCallbackWorkFromC) {
    RunResult run = Run(LUMORA_C_CHANNELS_EXECUTABLE);
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("c channels ok\n", run.out);

    // Reads only: the subscriptions are checked below.
    std::vector<std::string> reads;
    for (const BusMessage& call : m_monitor->Calls("RequestSync"))
        if (call.requestType == 1) reads.push_back(call.subject);
    EXPECT_EQ((std::vector<std::string>{"Pref/Channel/List", "Pref/Channel/List/Reorder",
                                        "Ctx/Media/Broadcast/Program/Current"}),
              reads);
    EXPECT_EQ((std::vector<std::string>{"3 Pref/Channel/List/Current", "3 Pref/Channel/List",
                                        "3 Ctx/Media/Broadcast/Program/Changed", "3 Ctx/Media/Broadcast/Status/STB",
                                        "4 Pref/Channel/List", "4 Ctx/Media/Broadcast/Program/Changed",
                                        "4 Ctx/Media/Broadcast/Status/STB",
                                        // left by the unregistration, dropped by the last stop
                                        "4 Pref/Channel/List/Current"}),
              SubscriptionTraffic(m_monitor->Calls("RequestSync")));
    auto writes = m_monitor->Calls("Write");
    ASSERT_EQ(4u, writes.size());
    EXPECT_EQ("Pref/Channel/Remove", writes[0].subject);
    EXPECT_EQ("Pref/Channel/RemoveWithServiceID", writes[1].subject);
    EXPECT_EQ("Raw/Firstscreen/Action", writes[2].subject);
    EXPECT_EQ("Ctx/Media/Broadcast/Status/STB", writes[3].subject);
    EXPECT_EQ(1u, m_log.Count("call CS_RegisterChannelCallback!", 'E')) << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("call! _ChannelCallbackFunction : 3", 'E')) << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("ComponentId is null", 'E')) << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("Reorder Error ..", 'E')) << m_log.Dump();
}

}  // namespace
}  // namespace lumora::test
