// Runs the plain-C program of tests/c/exports.c against the simulator and
// checks what it sent and logged.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BusMonitor.h"
#include "LogCapture.h"
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

TEST(CExportsTest, EveryReadAndWriteExportWorksFromC) {
    TempDir dir;
    ScopedEnv db("LUMORA_SETTINGS_DB", dir.File("settings.db"));
    LogCapture log;
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    BusMonitor monitor(bus.Address());
    ASSERT_TRUE(monitor.Ok());
    SimProcess sim;
    ASSERT_TRUE(sim.Start());
    log.Mark();

    RunResult run = RunProgram(LUMORA_C_EXPORTS_EXECUTABLE, {});
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
              Subjects(monitor.Calls("RequestSync"), ""));
    ASSERT_TRUE(monitor.WaitForCalls(4, 5000, "Write"));
    auto writes = monitor.Calls("Write");
    ASSERT_EQ(4u, writes.size());
    EXPECT_EQ("Ctx/Test/FromC", writes[0].subject);
    EXPECT_EQ("{\"c\":1}", writes[0].input);
    EXPECT_EQ("I/Raw/Streaming/Event", writes[1].subject);
    EXPECT_EQ("Raw/Setting/Selected/Item", writes[2].subject);
    EXPECT_EQ("{\"item\":\"Picture\"}", writes[2].input);
    EXPECT_EQ("Ctx/Test/FromC/CS", writes[3].subject);
    auto reads = monitor.Calls("RequestSync");
    EXPECT_EQ("NeStOrY", reads[18].input);
    EXPECT_EQ("{}", reads[1].input);

    EXPECT_EQ(1u, log.Count("DEPRECATION WARNING: Lumora_ReadCurrentVolumeLevel() is deprecated and will be removed "
                            "since API version 6.0",
                            'W'))
        << log.Dump();
    for (const char* name : {"Lumora_ReadCurrentVideoStatus", "Lumora_RequestCurrentVideoStatus",
                             "Lumora_SubscribeVideoStatus", "Lumora_UnsubscribeVideoStatus"}) {
        EXPECT_EQ(1u, log.Count(std::string("DEPRECATION WARNING: ") + name +
                                    "() is deprecated and will be removed since API version 3.0",
                                'W'))
            << name;
    }
    EXPECT_EQ(1u, log.Count("Invalid requester", 'E'));
    EXPECT_EQ(1u, log.Count("error -4", 'E'));
    EXPECT_EQ(1u, log.Count("[c_exports] input is null", 'E'));
    EXPECT_TRUE(log.Has("Item List setbank set as ({\"HomeApps\":{\"group\":\"HomeApps\",\"list\":[\"a\"]}})", 'I'));
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

TEST(CExportsTest, RequestsAndSubscriptionsWorkFromCWithTheApplicationsOwnLoop) {
    LogCapture log;
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    BusMonitor monitor(bus.Address());
    ASSERT_TRUE(monitor.Ok());
    SimProcess sim;
    ASSERT_TRUE(sim.Start());
    log.Mark();

    RunResult run = RunProgram(LUMORA_C_EVENTS_EXECUTABLE, {});
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ("c events ok\n", run.out);

    EXPECT_EQ((std::vector<std::string>{"Ctx/App/Info/Current", "Ctx/Media/Source/Info/Current",
                                        "Ctx/Media/Broadcast/Program/Current"}),
              Subjects(monitor.Calls("RequestAsync"), ""));
    EXPECT_EQ(
        (std::vector<std::string>{"3 Ctx/Test/FromC/Changed", "4 Ctx/Test/FromC/Changed",
                                  "3 Ctx/Sound/Output/Mode/Changed", "4 Ctx/Sound/Output/Mode/Changed",
                                  "3 Ctx/Env/Brightness/EX/Level/Changed", "4 Ctx/Env/Brightness/EX/Level/Changed"}),
        SubscriptionTraffic(monitor.Calls("RequestSync")));
    EXPECT_EQ(1u, log.Count("call CS_Lumora_Request!", 'E')) << log.Dump();
    EXPECT_EQ(0u, log.Count("call CS_Lumora_Subscribe!"));
    EXPECT_EQ(1u, log.Count("Error! Ctx/Test/FromC/Changed is already registered", 'E'));
    EXPECT_EQ(1u, log.Count("Invalid requester", 'E'));
}

}  // namespace
}  // namespace lumora::test
