// lumora channels and lumora action, run as processes against lumora-sim.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "BusMonitor.h"
#include "ChildProcess.h"
#include "CliFixture.h"
#include "JsonText.h"

namespace lumora::test {
namespace {

constexpr int kLineWaitMs = 10000;

constexpr const char* kListSubject = "Pref/Channel/List";
constexpr const char* kCurrentListSubject = "Pref/Channel/List/Current";
constexpr const char* kProgramChangedSubject = "Ctx/Media/Broadcast/Program/Changed";
constexpr const char* kStbSubject = "Ctx/Media/Broadcast/Status/STB";

size_t LineCount(const std::string& text) {
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

// The sample scenario's channel list, as the service holds it.
Json::Value SampleList() {
    std::ifstream file(SampleScenario());
    std::stringstream text;
    text << file.rdbuf();
    return ParseJson(text.str())["values"][kListSubject];
}

// The entries an application sees of list for srcType ("" for all): never
// one of channel type 9.
Json::Value Shown(const Json::Value& list, const std::string& srcType) {
    Json::Value entries(Json::arrayValue);
    for (const Json::Value& entry : list["ChList"]) {
        if (entry.isMember("ChType") && entry["ChType"].asInt() == 9) continue;
        if (!srcType.empty() && entry["SrcType"].asString() != srcType) continue;
        entries.append(entry);
    }
    return entries;
}

// What "lumora channels" prints for those entries.
Json::Value ListDocument(const Json::Value& entries) {
    Json::Value document(Json::objectValue);
    document["ChList"] = entries;
    document["Size"] = static_cast<int>(entries.size());
    document["Status"] = "Success";
    return document;
}

// ---- usage ---------------------------------------------------------------------

class CliChannelsUsageTest : public CliNoServiceFixture {};

TEST_F(CliChannelsUsageTest, TheCommandsAreListedAndHaveTheirHelp) {
    RunResult help = Lumora({"--help"});
    EXPECT_EQ(0, help.exitStatus);
    for (const char* command : {"channels", "action"}) {
        EXPECT_NE(std::string::npos, help.out.find(std::string("\n  ") + command + " ")) << command << help.out;
        RunResult own = Lumora({command, "--help"});
        EXPECT_EQ(0, own.exitStatus) << command;
        EXPECT_EQ(0u, own.out.find(std::string("usage: lumora ") + command + " ")) << own.out;
    }
    RunResult channels = Lumora({"channels", "--help"});
    for (const char* form :
         {"lumora channels [list] [--source rf|stb|all]\n", "lumora channels reorder JSON_ARRAY [--source N]\n",
          "lumora channels remove MAJOR MINOR TYPE [--service-id ID]\n",
          "lumora channels watch [--source rf|stb|all]\n", "Examples:\n"})
        EXPECT_NE(std::string::npos, channels.out.find(form)) << form;
    EXPECT_NE(std::string::npos, Lumora({"action", "--help"}).out.find("firstscreen COMPONENT JSON"));
}

TEST_F(CliChannelsUsageTest, SourceAndServiceIdTakeAValue) {
    RunResult source = Lumora({"channels", "--source"});
    EXPECT_EQ(2, source.exitStatus);
    EXPECT_EQ(0u, source.err.find("lumora: --source takes a source type\nusage: lumora ")) << source.err;
    RunResult serviceId = Lumora({"channels", "remove", "9", "1", "air", "--service-id"});
    EXPECT_EQ(2, serviceId.exitStatus);
    EXPECT_EQ(0u, serviceId.err.find("lumora: --service-id takes a service id\n")) << serviceId.err;
    RunResult empty = Lumora({"channels", "remove", "9", "1", "air", "--service-id", ""});
    EXPECT_EQ(2, empty.exitStatus);
    EXPECT_EQ(0u, empty.err.find("lumora: --service-id takes a service id\n")) << empty.err;
}

TEST_F(CliChannelsUsageTest, AnOptionOfAnotherCommandOrFormIsAUsageError) {
    RunResult read = Lumora({"read", "--source", "rf", "Pref/Channel/List"});
    EXPECT_EQ(2, read.exitStatus);
    EXPECT_EQ(0u, read.err.find("lumora: --source does not apply to read\nusage: lumora read ")) << read.err;
    RunResult action = Lumora({"action", "--service-id", "x", "firstscreen", "home", "{}"});
    EXPECT_EQ(2, action.exitStatus);
    EXPECT_EQ(0u, action.err.find("lumora: --service-id does not apply to action\n")) << action.err;
    RunResult channels = Lumora({"channels", "--timeout", "3"});
    EXPECT_EQ(2, channels.exitStatus);
    EXPECT_EQ(0u, channels.err.find("lumora: --timeout does not apply to channels\n")) << channels.err;

    RunResult list = Lumora({"channels", "--service-id", "0x0901"});
    EXPECT_EQ(2, list.exitStatus);
    EXPECT_EQ(
        "lumora: --service-id does not apply to channels list\n"
        "usage: lumora channels [list] [--source rf|stb|all]\n",
        list.err);
    RunResult watch = Lumora({"channels", "watch", "--service-id", "0x0901"});
    EXPECT_EQ(2, watch.exitStatus);
    EXPECT_EQ(0u, watch.err.find("lumora: --service-id does not apply to channels watch\n")) << watch.err;
    RunResult remove = Lumora({"channels", "remove", "9", "1", "air", "--source", "rf"});
    EXPECT_EQ(2, remove.exitStatus);
    EXPECT_EQ(
        "lumora: --source does not apply to channels remove\n"
        "usage: lumora channels remove MAJOR MINOR TYPE [--service-id ID]\n",
        remove.err);
}

TEST_F(CliChannelsUsageTest, BadSourcesAreUsageErrors) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"channels", "--source", "tv"},
                                               {"channels", "list", "--source", "2"},
                                               {"channels", "watch", "--source", "x"}}) {
        RunResult run = Lumora(args);
        EXPECT_EQ(2, run.exitStatus) << args[1];
        EXPECT_EQ(0u, run.err.find("lumora: --source takes rf, stb or all\nusage: lumora channels ")) << run.err;
        EXPECT_EQ("", run.out);
    }
    for (const char* source : {"x", "1.5", "99999999999", ""}) {
        RunResult reorder = Lumora({"channels", "reorder", "[{\"major\":7,\"minor\":1}]", "--source", source});
        EXPECT_EQ(2, reorder.exitStatus) << source;
    }
    RunResult reorder = Lumora({"channels", "reorder", "[{\"major\":7,\"minor\":1}]", "--source", "rf"});
    EXPECT_EQ(
        "lumora: --source takes an integer\n"
        "usage: lumora channels reorder JSON_ARRAY [--source N]\n",
        reorder.err);
}

TEST_F(CliChannelsUsageTest, ReorderTakesOneJsonArrayOfChannels) {
    RunResult bad = Lumora({"channels", "reorder", "[{\"major\":7,"});
    EXPECT_EQ(2, bad.exitStatus);
    EXPECT_EQ(
        "lumora: JSON_ARRAY is not JSON: [{\"major\":7,\n"
        "usage: lumora channels reorder JSON_ARRAY [--source N]\n",
        bad.err);
    RunResult object = Lumora({"channels", "reorder", "{\"major\":7,\"minor\":1}"});
    EXPECT_EQ(2, object.exitStatus);
    EXPECT_EQ(0u, object.err.find("lumora: JSON_ARRAY is not a JSON array of {\"major\":M,\"minor\":N}: "))
        << object.err;
    RunResult trailing = Lumora({"channels", "reorder", "[] []"});
    EXPECT_EQ(2, trailing.exitStatus);
    RunResult empty = Lumora({"channels", "reorder", "[]"});
    EXPECT_EQ(2, empty.exitStatus);
    EXPECT_EQ(0u, empty.err.find("lumora: JSON_ARRAY holds no channel\n")) << empty.err;
    RunResult missing = Lumora({"channels", "reorder"});
    EXPECT_EQ(2, missing.exitStatus);
    EXPECT_EQ("usage: lumora channels reorder JSON_ARRAY [--source N]\n", missing.err);
}

TEST_F(CliChannelsUsageTest, RemoveTakesNumbersAndAType) {
    const std::string usage = "usage: lumora channels remove MAJOR MINOR TYPE [--service-id ID]\n";
    RunResult type = Lumora({"channels", "remove", "9", "1", "hdmi7"});
    EXPECT_EQ(2, type.exitStatus);
    EXPECT_EQ("lumora: unknown TYPE hdmi7 (air, cable, satellite, hdmi1 to hdmi6, or 0 to 8)\n" + usage, type.err);
    for (const char* bad : {"9", "airwaves", "", "+", "3x"})
        EXPECT_EQ(2, Lumora({"channels", "remove", "9", "1", bad}).exitStatus) << bad;
    RunResult major = Lumora({"channels", "remove", "nine", "1", "air"});
    EXPECT_EQ(2, major.exitStatus);
    EXPECT_EQ("lumora: MAJOR is not an integer: nine\n" + usage, major.err);
    RunResult minor = Lumora({"channels", "remove", "9", "1.0", "air"});
    EXPECT_EQ("lumora: MINOR is not an integer: 1.0\n" + usage, minor.err);
    EXPECT_EQ(2, Lumora({"channels", "remove", "9", "4294967297", "air"}).exitStatus);
    RunResult short_ = Lumora({"channels", "remove", "9", "1"});
    EXPECT_EQ(2, short_.exitStatus);
    EXPECT_EQ(usage, short_.err);
}

TEST_F(CliChannelsUsageTest, AnUnknownFirstWordIsAUsageError) {
    RunResult unknown = Lumora({"channels", "sort"});
    EXPECT_EQ(2, unknown.exitStatus);
    EXPECT_EQ(0u, unknown.err.find("lumora: unknown channels action sort (list, reorder, remove or watch)\n"
                                   "usage: lumora channels [list] [--source rf|stb|all]\n"))
        << unknown.err;
    EXPECT_EQ(2, Lumora({"channels", "list", "extra"}).exitStatus);
    EXPECT_EQ(2, Lumora({"channels", "watch", "extra"}).exitStatus);
}

TEST_F(CliChannelsUsageTest, ActionTakesFirstscreenAComponentAndJson) {
    const std::string usage = "usage: lumora action firstscreen COMPONENT JSON\n";
    RunResult bad = Lumora({"action", "firstscreen", "home", "{a:1}"});
    EXPECT_EQ(2, bad.exitStatus);
    EXPECT_EQ("lumora: JSON is not JSON: {a:1}\n" + usage, bad.err);
    EXPECT_EQ(2, Lumora({"action", "firstscreen", "home", "{\"a\":1} x"}).exitStatus);
    RunResult component = Lumora({"action", "firstscreen", "", "{}"});
    EXPECT_EQ(2, component.exitStatus);
    EXPECT_EQ("lumora: COMPONENT is empty\n" + usage, component.err);
    RunResult other = Lumora({"action", "secondscreen", "home", "{}"});
    EXPECT_EQ(2, other.exitStatus);
    EXPECT_EQ("lumora: unknown action secondscreen (firstscreen)\n" + usage, other.err);
    RunResult missing = Lumora({"action", "firstscreen", "home"});
    EXPECT_EQ(2, missing.exitStatus);
    EXPECT_EQ(0u, missing.err.find("usage: lumora action firstscreen COMPONENT JSON")) << missing.err;
}

TEST_F(CliChannelsUsageTest, WithoutABusTheyFailWithOneLine) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"channels"},
                                               {"channels", "reorder", "[{\"major\":7,\"minor\":1}]"},
                                               {"channels", "remove", "9", "1", "air"},
                                               {"channels", "watch"},
                                               {"action", "firstscreen", "home", "{}"}}) {
        RunResult run = Lumora(args);
        EXPECT_EQ(1, run.exitStatus) << args.back();
        EXPECT_EQ("lumora: cannot connect to the system bus (DBUS_SYSTEM_BUS_ADDRESS)\n", run.err) << args.back();
        EXPECT_EQ("", run.out);
    }
}

// ---- against the simulator ---------------------------------------------------

class CliChannelsTest : public CliServiceFixture {
protected:
    // lumora-sim ctl on the test's bus.
    RunResult Ctl(std::vector<std::string> args) {
        args.insert(args.begin(), "ctl");
        RunResult ctl = SimProcess::Run(args);
        EXPECT_EQ(0, ctl.exitStatus) << ctl.err;
        return ctl;
    }
    Json::Value Status() { return ParseJson(Ctl({"status"}).out); }
    // The value the service holds for subject, parsed; null without one.
    Json::Value StoredValue(const std::string& subject) {
        Json::Value values = Status()["values"];
        return values.isMember(subject) ? ParseJson(values[subject].asString()) : Json::Value();
    }
    bool Emit(const std::string& subject, const std::string& data) {
        return Ctl({"emit", subject, data}).out == "sent 1\n";
    }

    bool WaitForWatch() {
        return WaitUntil(
            [&] {
                Json::Value subscriptions = Status()["subscriptions"];
                for (const char* subject : {kListSubject, kCurrentListSubject, kProgramChangedSubject, kStbSubject}) {
                    if (subscriptions[subject].size() != 1) return false;
                }
                return true;
            },
            kLineWaitMs);
    }
    bool StartWatch(const std::vector<std::string>& args = {}) {
        std::vector<std::string> command = {"channels", "watch"};
        command.insert(command.end(), args.begin(), args.end());
        return m_watch.Start(CliExecutable(), command) && WaitForWatch();
    }
    Json::Value NextEvent() {
        std::string line;
        if (!m_watch.ReadLine(line, kLineWaitMs)) {
            ADD_FAILURE() << "no line from lumora channels watch; stderr: " << m_watch.Err();
            return Json::Value();
        }
        return ParseJson(line);
    }

    ChildProcess m_watch;
};

// The line watch prints for one event, built independently.
Json::Value Event(const char* name, int code, int count, const Json::Value& data) {
    Json::Value event(Json::objectValue);
    event["event"] = name;
    event["code"] = code;
    event["count"] = count;
    event["data"] = data;
    return event;
}

// ---- list ----------------------------------------------------------------------

TEST_F(CliChannelsTest, ListShowsEveryEntryButTheHiddenChannelType) {
    Json::Value sample = SampleList();
    ASSERT_EQ(8u, sample["ChList"].size());
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"channels"}, {"channels", "list"}, {"channels", "--source", "all"}}) {
        RunResult list = Lumora(args);
        EXPECT_EQ(0, list.exitStatus) << list.err;
        EXPECT_EQ("6 channels\n", list.err);
        EXPECT_EQ(1u, LineCount(list.out)) << list.out;
        Json::Value document = ParseJson(list.out);
        EXPECT_EQ(ListDocument(Shown(sample, "")), document);
        size_t withoutType = 0;
        for (const Json::Value& entry : document["ChList"]) {
            EXPECT_NE(9, entry.get("ChType", 0).asInt()) << CompactJson(entry);
            if (!entry.isMember("ChType")) ++withoutType;
        }
        // The entry without a channel type comes without one.
        EXPECT_EQ(1u, withoutType) << list.out;
        EXPECT_EQ("Shopping Plus", document["ChList"][3]["ChName"].asString()) << list.out;
        EXPECT_FALSE(document["ChList"][3].isMember("ChType")) << list.out;
    }
}

TEST_F(CliChannelsTest, ListShowsTheEntriesOfTheSourceType) {
    Json::Value sample = SampleList();
    RunResult rf = Lumora({"channels", "--source", "rf"});
    EXPECT_EQ(0, rf.exitStatus) << rf.err;
    EXPECT_EQ("4 channels\n", rf.err);
    EXPECT_EQ(ListDocument(Shown(sample, "RF")), ParseJson(rf.out));
    EXPECT_EQ(4u, ParseJson(rf.out)["ChList"].size());

    RunResult stb = Lumora({"channels", "list", "--source", "STB"});
    EXPECT_EQ(0, stb.exitStatus) << stb.err;
    EXPECT_EQ("2 channels\n", stb.err);
    Json::Value document = ParseJson(stb.out);
    EXPECT_EQ(ListDocument(Shown(sample, "STB")), document);
    ASSERT_EQ(2u, document["ChList"].size());
    EXPECT_EQ(101, document["ChList"][0]["major"].asInt());
    EXPECT_EQ(202, document["ChList"][1]["major"].asInt());
}

TEST_F(CliChannelsTest, OneChannelIsCountedInTheSingular) {
    Ctl({"set", kListSubject,
         "{\"Status\":\"Success\",\"ChList\":[{\"major\":7,\"minor\":1,\"SrcType\":\"RF\",\"ChType\":1},"
         "{\"major\":8,\"minor\":1,\"SrcType\":\"STB\",\"ChType\":1}]}"});
    RunResult list = Lumora({"channels", "--source", "rf"});
    EXPECT_EQ(0, list.exitStatus);
    EXPECT_EQ("1 channel\n", list.err);
    EXPECT_EQ(1u, ParseJson(list.out)["ChList"].size());
}

TEST_F(CliChannelsTest, AListTheServiceDidNotMarkSuccessIsPrintedAsItCame) {
    const std::string failed = "{\"Status\":\"Failed\",\"Reason\":\"tuner busy\",\"ChList\":[{\"major\":7}]}";
    Ctl({"set", kListSubject, failed});
    RunResult list = Lumora({"channels"});
    EXPECT_EQ(0, list.exitStatus) << list.err;
    EXPECT_EQ(failed + "\n", list.out);
    EXPECT_EQ("0 channels\n", list.err);
}

TEST_F(CliChannelsTest, AListWithNothingOfTheSourceTypeSaysItIsEmpty) {
    Ctl({"set", kListSubject, "{\"Status\":\"Success\",\"ChList\":[{\"major\":7,\"minor\":1,\"SrcType\":\"RF\"}]}"});
    RunResult list = Lumora({"channels", "--source", "stb"});
    EXPECT_EQ(0, list.exitStatus) << list.err;
    EXPECT_EQ("0 channels\n", list.err);
    Json::Value document = ParseJson(list.out);
    EXPECT_EQ("Error", document["Status"].asString());
    EXPECT_EQ("The list is empty.", document["Reason"].asString());
    EXPECT_EQ(0, document["Size"].asInt());
}

TEST_F(CliChannelsTest, PrettyIndentsTheList) {
    RunResult pretty = Lumora({"--pretty", "channels", "--source", "stb"});
    EXPECT_EQ(0, pretty.exitStatus) << pretty.err;
    EXPECT_EQ(0u, pretty.out.find("{\n  \"")) << pretty.out;
    EXPECT_EQ(ParseJson(Lumora({"channels", "--source", "stb"}).out), ParseJson(pretty.out));
    EXPECT_EQ("2 channels\n", pretty.err);
}

TEST_F(CliChannelsTest, AListThatCannotBeReadFailsWithOneLine) {
    Ctl({"code", kListSubject, "-5"});
    RunResult list = Lumora({"channels"});
    EXPECT_EQ(1, list.exitStatus);
    EXPECT_EQ(1u, LineCount(list.err)) << list.err;
    EXPECT_EQ(0u, list.err.find("lumora: cannot read the channel list")) << list.err;
    EXPECT_EQ("", list.out);

    Ctl({"code", kListSubject, "0"});
    Ctl({"set", kListSubject, "not a list"});
    RunResult text = Lumora({"channels"});
    EXPECT_EQ(1, text.exitStatus);
    EXPECT_EQ(0u, text.err.find("lumora: cannot read the channel list")) << text.err;
}

// ---- reorder ---------------------------------------------------------------------

TEST_F(CliChannelsTest, ReorderPrintsTheServicesOrderOnOneLine) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    RunResult reorder = Lumora(
        {"channels", "reorder", "[{\"major\":9,\"minor\":1},\n {\"major\":7,\"minor\":2},{\"major\":7,\"minor\":1}]"});
    EXPECT_EQ(0, reorder.exitStatus) << reorder.err;
    EXPECT_EQ("[{\"major\":7,\"minor\":1},{\"major\":7,\"minor\":2},{\"major\":9,\"minor\":1}]\n", reorder.out);
    EXPECT_EQ("", reorder.err);
    ASSERT_TRUE(monitor.Settle(m_control));
    std::vector<BusMessage> calls = monitor.Calls("RequestSync");
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ("Pref/Channel/List/Reorder", calls.back().subject);
    EXPECT_EQ(0, ParseJson(calls.back().input)["source"].asInt()) << calls.back().input;
}

TEST_F(CliChannelsTest, ReorderSendsItsSource) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    RunResult reorder = Lumora({"--pretty", "channels", "reorder", "[{\"major\":9,\"minor\":1}]", "--source", "-3"});
    EXPECT_EQ(0, reorder.exitStatus) << reorder.err;
    EXPECT_EQ(ParseJson("[{\"major\":9,\"minor\":1}]"), ParseJson(reorder.out));
    EXPECT_EQ(0u, reorder.out.find("[\n  {\n")) << reorder.out;
    ASSERT_TRUE(monitor.Settle(m_control));
    std::vector<BusMessage> calls = monitor.Calls("RequestSync");
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(ParseJson("{\"reorder\":[{\"major\":9,\"minor\":1}],\"source\":-3}"), ParseJson(calls.back().input));
}

TEST_F(CliChannelsTest, ReorderThatTheServiceFailsFailsWithOneLine) {
    Ctl({"code", "Pref/Channel/List/Reorder", "3"});
    RunResult reorder = Lumora({"channels", "reorder", "[{\"major\":9,\"minor\":1}]"});
    EXPECT_EQ(1, reorder.exitStatus);
    EXPECT_EQ(1u, LineCount(reorder.err)) << reorder.err;
    EXPECT_EQ(0u, reorder.err.find("lumora: the context service did not reorder the channels")) << reorder.err;
    EXPECT_EQ("", reorder.out);
}

// ---- remove ----------------------------------------------------------------------

TEST_F(CliChannelsTest, RemoveSendsTheChannelAndItsType) {
    RunResult remove = Lumora({"channels", "remove", "9", "1", "air"});
    EXPECT_EQ(0, remove.exitStatus) << remove.err;
    EXPECT_EQ("", remove.out);
    EXPECT_EQ("", remove.err);
    const Json::Value expected = ParseJson("{\"major\":9,\"minor\":1,\"type\":\"AIR\"}");
    EXPECT_TRUE(WaitUntil([&] { return StoredValue("Pref/Channel/Remove") == expected; }, 5000))
        << CompactJson(StoredValue("Pref/Channel/Remove"));

    // Names in any case, or their numbers.
    for (const auto& [word, name] : std::vector<std::pair<std::string, std::string>>{
             {"Cable", "CABLE"}, {"SATELLITE", "SATELLITE"}, {"hdmi1", "HDMI1"}, {"4", "HDMI2"}, {"8", "HDMI6"}}) {
        ASSERT_EQ(0, Lumora({"channels", "remove", "501", "0", word}).exitStatus) << word;
        Json::Value sent = ParseJson("{\"major\":501,\"minor\":0}");
        sent["type"] = name;
        EXPECT_TRUE(WaitUntil([&] { return StoredValue("Pref/Channel/Remove") == sent; }, 5000)) << word;
    }
}

TEST_F(CliChannelsTest, RemoveWithAServiceIdSendsItToo) {
    RunResult remove = Lumora({"channels", "--service-id", "0x0901", "remove", "9", "1", "cable"});
    EXPECT_EQ(0, remove.exitStatus) << remove.err;
    EXPECT_EQ("", remove.err);
    const Json::Value expected = ParseJson("{\"major\":9,\"minor\":1,\"service_id\":\"0x0901\",\"type\":\"CABLE\"}");
    EXPECT_TRUE(WaitUntil([&] { return StoredValue("Pref/Channel/RemoveWithServiceID") == expected; }, 5000))
        << CompactJson(StoredValue("Pref/Channel/RemoveWithServiceID"));
    EXPECT_TRUE(StoredValue("Pref/Channel/Remove").isNull());
}

// ---- watch -----------------------------------------------------------------------

TEST_F(CliChannelsTest, WatchPrintsOneLinePerEvent) {
    ASSERT_TRUE(StartWatch()) << m_watch.Err();
    Json::Value sample = SampleList();
    ASSERT_TRUE(Emit(kListSubject, CompactJson(sample)));
    EXPECT_EQ(Event("list", 0, 6, ListDocument(Shown(sample, ""))), NextEvent());

    const std::string program = "{\"ChName\":\"MBC\",\"major\":9,\"minor\":1,\"ProgramTitle\":\"Evening Drama\"}";
    ASSERT_TRUE(Emit(kProgramChangedSubject, program));
    std::string line;
    ASSERT_TRUE(m_watch.ReadLine(line, kLineWaitMs)) << m_watch.Err();
    // Compact, the fields in this order, the service's text as it came.
    EXPECT_EQ("{\"event\":\"program\",\"code\":2,\"count\":1,\"data\":" + program + "}", line);

    ASSERT_TRUE(Emit(kStbSubject, "{\"Connected\": false,\n \"Port\": \"HDMI1\"}"));
    EXPECT_EQ(Event("stb", 3, 1, ParseJson("{\"Connected\":false,\"Port\":\"HDMI1\"}")), NextEvent());
    ASSERT_TRUE(Emit(kStbSubject, "set-top box gone"));
    EXPECT_EQ(Event("stb", 3, 1, "set-top box gone"), NextEvent());

    ASSERT_TRUE(Emit(kCurrentListSubject, CompactJson(SampleList())));
    EXPECT_EQ(Event("list", 0, 6, ListDocument(Shown(sample, ""))), NextEvent());

    EXPECT_FALSE(m_watch.LineWithin(300));
    ASSERT_TRUE(m_watch.Signal(SIGINT));
    EXPECT_EQ(0, m_watch.Wait(10000));
    EXPECT_EQ("", m_watch.Err());
}

TEST_F(CliChannelsTest, WatchShowsTheListEntriesOfTheSourceType) {
    ASSERT_TRUE(StartWatch({"--source", "stb"})) << m_watch.Err();
    Json::Value sample = SampleList();
    ASSERT_TRUE(Emit(kListSubject, CompactJson(sample)));
    Json::Value event = NextEvent();
    EXPECT_EQ(Event("list", 0, 2, ListDocument(Shown(sample, "STB"))), event);
    for (const Json::Value& entry : event["data"]["ChList"]) EXPECT_EQ("STB", entry["SrcType"].asString());

    const std::string failed = "{\"Status\":\"Failed\",\"Reason\":\"scan running\"}";
    ASSERT_TRUE(Emit(kListSubject, failed));
    EXPECT_EQ(Event("list", 0, 0, ParseJson(failed)), NextEvent());

    ASSERT_TRUE(m_watch.Signal(SIGTERM));
    EXPECT_EQ(0, m_watch.Wait(10000));
    EXPECT_EQ("", m_watch.Err());
}

TEST_F(CliChannelsTest, WatchKeepsGoingAfterARestartOfTheService) {
    ASSERT_TRUE(StartWatch({"--source", "rf"})) << m_watch.Err();
    // Answered once the service has said HELLO again, having forgotten every
    // subscription.
    Ctl({"restart", "300"});
    ASSERT_TRUE(WaitForWatch());
    Json::Value sample = SampleList();
    ASSERT_TRUE(Emit(kListSubject, CompactJson(sample)));
    EXPECT_EQ(Event("list", 0, 4, ListDocument(Shown(sample, "RF"))), NextEvent());
    ASSERT_TRUE(Emit(kProgramChangedSubject, "{\"after\":\"restart\"}"));
    EXPECT_EQ(Event("program", 2, 1, ParseJson("{\"after\":\"restart\"}")), NextEvent());
    ASSERT_TRUE(m_watch.Signal(SIGINT));
    EXPECT_EQ(0, m_watch.Wait(10000));
    EXPECT_EQ("", m_watch.Err());
}

// ---- action ----------------------------------------------------------------------

TEST_F(CliChannelsTest, FirstscreenActionCarriesTheJsonAsAString) {
    RunResult action = Lumora({"action", "firstscreen", "home", "{\"a\":1}"});
    EXPECT_EQ(0, action.exitStatus) << action.err;
    EXPECT_EQ("", action.out);
    EXPECT_EQ("", action.err);
    Json::Value expected(Json::objectValue);
    expected["componentId"] = "home";
    expected["jsonData"] = "{\"a\":1}";
    EXPECT_TRUE(WaitUntil([&] { return StoredValue("Raw/Firstscreen/Action") == expected; }, 5000))
        << CompactJson(StoredValue("Raw/Firstscreen/Action"));
    EXPECT_TRUE(StoredValue("Raw/Firstscreen/Action")["jsonData"].isString());
}

TEST_F(CliChannelsTest, FirstscreenActionWithBadJsonSendsNothing) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    RunResult action = Lumora({"action", "firstscreen", "home", "{\"a\":"});
    EXPECT_EQ(2, action.exitStatus);
    ASSERT_TRUE(monitor.Settle(m_control));
    EXPECT_TRUE(monitor.Calls().empty());
    EXPECT_TRUE(StoredValue("Raw/Firstscreen/Action").isNull());
}

}  // namespace
}  // namespace lumora::test
