// lumora-sim's service object, driven by a plain GIO client: the four methods
// of the wire protocol, the "Response" signal and malformed calls.
#include <json/json.h>

#include <memory>
#include <set>

#include "SimFixture.h"

namespace lumora::test {
namespace {

class SimServiceTest : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_TRUE(m_sim.Start());
    }

    static Json::Value Parse(const std::string& text) {
        Json::Value value;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text;
        return value;
    }
    // The payload variant of a "RequestAsync" reply.
    static VariantPtr Payload(const CallResult& result) {
        GVariant* payload = nullptr;
        g_variant_get_child(result.reply.get(), 2, "v", &payload);
        return AdoptVariant(payload);
    }
};

TEST_F(SimServiceTest, ServiceEnableAnswersTheEnabledFlagAndTheWhiteList) {
    CallResult result = ServiceEnable();
    ASSERT_TRUE(result.Ok()) << result.Print();
    EXPECT_EQ("(true, '{\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}')", result.Print());
}

TEST_F(SimServiceTest, ReadOfTheCurrentSourceAnswersTheScenarioValue) {
    CallResult result = Read("Ctx/Media/Source/Info/Current");
    ASSERT_TRUE(result.Ok()) << result.Print();
    EXPECT_EQ("(0, '{\"Connected\":true,\"Label\":\"TV\",\"Port\":\"ANT\",\"Source\":\"TV\",\"SrcType\":\"RF\"}')",
              result.Print());
}

TEST_F(SimServiceTest, ReadOfTheCurrentProgrammeAnswersTheScenarioValue) {
    Json::Value programme = Parse(Text(Read("Ctx/Media/Broadcast/Program/Current")));
    EXPECT_EQ("Nine O'Clock News", programme["ProgramTitle"].asString());
    EXPECT_EQ(7, programme["major"].asInt());
}

TEST_F(SimServiceTest, ReadOfAnUnknownSubjectAnswersEmptyObject) {
    CallResult result = Read("Ctx/No/Such/Subject");
    ASSERT_TRUE(result.Ok()) << result.Print();
    EXPECT_EQ("(0, '{}')", result.Print());
}

TEST_F(SimServiceTest, TheChannelListHoldsRfAndStbEntriesOfSeveralTypes) {
    Json::Value list = Parse(Text(Read("Pref/Channel/List", "{\"list\":13}")));
    EXPECT_EQ("Success", list["Status"].asString());
    std::set<std::string> sources;
    std::set<int> types;
    bool withoutType = false;
    for (const Json::Value& channel : list["ChList"]) {
        sources.insert(channel["SrcType"].asString());
        if (channel.isMember("ChType")) {
            types.insert(channel["ChType"].asInt());
        } else {
            withoutType = true;
        }
    }
    EXPECT_EQ((std::set<std::string>{"RF", "STB"}), sources);
    EXPECT_EQ(1u, types.count(9));
    EXPECT_GE(types.size(), 3u);
    EXPECT_TRUE(withoutType);
}

TEST_F(SimServiceTest, EverySubjectTheLibraryReadsHasASampleValue) {
    const char* subjects[] = {"Pref/Channel/List",
                              "Pref/Channel/List/Current",
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
                              "Data/Statistic/App",
                              "Data/Weather/Forecast",
                              "Data/App/Recommended/List",
                              "Data/Setting/Recommended/List"};
    for (const char* subject : subjects) {
        std::string text = Text(Read(subject));
        EXPECT_NE("{}", text) << subject;
        EXPECT_TRUE(Parse(text).isObject()) << subject << ": " << text;
    }
}

TEST_F(SimServiceTest, ReorderAnswersTheCandidatesOrderedByChannelNumber) {
    CallResult result = Read("Pref/Channel/List/Reorder",
                             "{\"reorder\":[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":2},"
                             "{\"major\":7,\"minor\":1}],\"source\":0}");
    EXPECT_EQ("{\"reorder\":[{\"major\":7,\"minor\":1},{\"major\":7,\"minor\":2},{\"major\":9,\"minor\":1}]}",
              Text(result));
}

TEST_F(SimServiceTest, WriteStoresTheValueForLaterReads) {
    ASSERT_TRUE(Write("Raw/Firstscreen/Action", "{\"componentId\":\"home\",\"jsonData\":\"{}\"}").Ok());
    EXPECT_EQ("(0, '{\"componentId\":\"home\",\"jsonData\":\"{}\"}')", Read("Raw/Firstscreen/Action").Print());
}

TEST_F(SimServiceTest, WriteEmitsResponseToTheSubscriberOfTheSubjectOnly) {
    auto subscriber = Listener();
    auto bystander = Listener();
    ASSERT_EQ("(0, '{}')",
              SubscribeFrom(subscriber->Connection(), contract::kRequestSubscribe, "Data/Streaming/Event").Print());
    ASSERT_TRUE(Write("Data/Streaming/Event", "{\"Event\":\"Play\"}").Ok());
    ASSERT_TRUE(subscriber->WaitForCount(1, 10000));
    std::vector<ReceivedSignal> signals = subscriber->Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ("(0, 'Data/Streaming/Event', '{\"Event\":\"Play\"}')", Printed(signals[0].parameters.get()));
    // A round trip through the simulator: anything sent to the bystander would have arrived by now.
    ASSERT_TRUE(ServiceEnable().Ok());
    NameHasOwner(bystander->Connection(), contract::kBusName);
    EXPECT_TRUE(bystander->Signals().empty());
}

TEST_F(SimServiceTest, UnsubscribeStopsTheSignalsOfThatSubjectOnly) {
    auto listener = Listener();
    GDBusConnection* connection = listener->Connection();
    ASSERT_TRUE(SubscribeFrom(connection, contract::kRequestSubscribe, "Ctx/App/Info/Changed").Ok());
    ASSERT_TRUE(SubscribeFrom(connection, contract::kRequestSubscribe, "Ctx/Sound/LKFS/Value").Ok());
    ASSERT_TRUE(SubscribeFrom(connection, contract::kRequestUnsubscribe, "Ctx/App/Info/Changed").Ok());
    ASSERT_TRUE(Write("Ctx/App/Info/Changed", "{\"AppId\":\"a\"}").Ok());
    ASSERT_TRUE(Write("Ctx/Sound/LKFS/Value", "{\"LKFS\":-24}").Ok());
    // Signals keep their order: had the first been sent, it would come first.
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    std::vector<ReceivedSignal> signals = listener->Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ("(0, 'Ctx/Sound/LKFS/Value', '{\"LKFS\":-24}')", Printed(signals[0].parameters.get()));
}

TEST_F(SimServiceTest, ARemovedChannelLeavesTheListAndTheListsSubscriberHearsIt) {
    auto subscriber = Listener();
    ASSERT_TRUE(SubscribeFrom(subscriber->Connection(), contract::kRequestSubscribe, "Pref/Channel/List").Ok());
    EXPECT_NE(std::string::npos, Status().find("\"channelRemovals\":[]")) << Status();
    const std::string request = "{\"major\":9,\"minor\":1,\"type\":\"AIR\"}";
    ASSERT_TRUE(Write("Pref/Channel/Remove", request).Ok());

    std::string listText = Text(Read("Pref/Channel/List"));
    Json::Value list = Parse(listText);
    EXPECT_EQ("Success", list["Status"].asString());
    ASSERT_EQ(7u, list["ChList"].size()) << listText;
    for (const Json::Value& channel : list["ChList"]) EXPECT_NE("MBC", channel["ChName"].asString());
    EXPECT_EQ("(0, '" + request + "')", Read("Pref/Channel/Remove").Print());

    Json::Value removals = Parse(Status())["channelRemovals"];
    ASSERT_EQ(1u, removals.size()) << Status();
    EXPECT_EQ("Pref/Channel/Remove", removals[0]["subject"].asString());
    EXPECT_EQ(Parse(request), removals[0]["request"]);
    EXPECT_EQ(1u, removals[0]["removed"].asUInt());
    RunResult ctlStatus = SimProcess::Run({"ctl", "status"});
    EXPECT_EQ(0, ctlStatus.exitStatus) << ctlStatus.err;
    EXPECT_EQ(removals, Parse(ctlStatus.out)["channelRemovals"]) << ctlStatus.out;

    ASSERT_TRUE(subscriber->WaitForCount(1, 10000));
    std::vector<ReceivedSignal> signals = subscriber->Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ("(0, 'Pref/Channel/List', '" + listText + "')", Printed(signals[0].parameters.get()));
    EXPECT_TRUE(m_log.Has("Pref/Channel/Remove " + request + ": 1 channel(s) removed from Pref/Channel/List", 'I'))
        << m_log.Dump();
}

TEST_F(SimServiceTest, ARemovalByServiceIdRemovesOnlyTheEntryWithThatServiceId) {
    const std::string twins =
        "{\"Status\":\"Success\",\"ChList\":[{\"major\":9,\"minor\":1,\"ChName\":\"MBC\",\"ServiceID\":\"0x0901\"},"
        "{\"major\":9,\"minor\":1,\"ChName\":\"MBC Cable\",\"ServiceID\":\"0x0902\"},"
        "{\"major\":9,\"minor\":2,\"ChName\":\"MBC 2\",\"ServiceID\":\"0x0902\"}]}";
    ASSERT_TRUE(Control(lumora::sim::kCtlSetValue, g_variant_new("(ss)", "Pref/Channel/List", twins.c_str())).Ok());
    auto subscriber = Listener();
    ASSERT_TRUE(SubscribeFrom(subscriber->Connection(), contract::kRequestSubscribe, "Pref/Channel/List").Ok());

    // No entry has this service id: nothing goes, and the list is not signalled.
    ASSERT_TRUE(Write("Pref/Channel/RemoveWithServiceID",
                      "{\"major\":9,\"minor\":1,\"service_id\":\"0x0903\",\"type\":\"AIR\"}")
                    .Ok());
    EXPECT_EQ(twins, Text(Read("Pref/Channel/List")));
    ASSERT_TRUE(Write("Pref/Channel/RemoveWithServiceID",
                      "{\"major\":9,\"minor\":1,\"service_id\":\"0x0902\",\"type\":\"AIR\"}")
                    .Ok());
    Json::Value list = Parse(Text(Read("Pref/Channel/List")));
    ASSERT_EQ(2u, list["ChList"].size());
    EXPECT_EQ("MBC", list["ChList"][0]["ChName"].asString());
    EXPECT_EQ("MBC 2", list["ChList"][1]["ChName"].asString());

    Json::Value removals = Parse(Status())["channelRemovals"];
    ASSERT_EQ(2u, removals.size()) << Status();
    EXPECT_EQ("Pref/Channel/RemoveWithServiceID", removals[0]["subject"].asString());
    EXPECT_EQ("0x0903", removals[0]["request"]["service_id"].asString());
    EXPECT_EQ(0u, removals[0]["removed"].asUInt());
    EXPECT_EQ("0x0902", removals[1]["request"]["service_id"].asString());
    EXPECT_EQ(1u, removals[1]["removed"].asUInt());

    // Signals keep their order: had the first removal been signalled, it would come first.
    ASSERT_TRUE(subscriber->WaitForCount(1, 10000));
    std::vector<ReceivedSignal> signals = subscriber->Signals();
    ASSERT_EQ(1u, signals.size());
    const gchar* data = nullptr;
    g_variant_get_child(signals[0].parameters.get(), 2, "&s", &data);
    EXPECT_EQ(2u, Parse(data)["ChList"].size()) << data;
}

TEST_F(SimServiceTest, ARemovalThatIsNotJsonIsRecordedAsTextAndRemovesNothing) {
    auto subscriber = Listener();
    ASSERT_TRUE(SubscribeFrom(subscriber->Connection(), contract::kRequestSubscribe, "Pref/Channel/List").Ok());
    ASSERT_TRUE(SubscribeFrom(subscriber->Connection(), contract::kRequestSubscribe, "Pref/Channel/Remove").Ok());
    std::string before = Text(Read("Pref/Channel/List"));
    ASSERT_TRUE(Write("Pref/Channel/Remove", "nine-one").Ok());

    Json::Value removals = Parse(Status())["channelRemovals"];
    ASSERT_EQ(1u, removals.size()) << Status();
    EXPECT_EQ("Pref/Channel/Remove", removals[0]["subject"].asString());
    EXPECT_EQ(Json::Value("nine-one"), removals[0]["request"]);
    EXPECT_EQ(0u, removals[0]["removed"].asUInt());
    EXPECT_EQ(before, Text(Read("Pref/Channel/List")));
    EXPECT_EQ("(0, 'nine-one')", Read("Pref/Channel/Remove").Print());

    // The write itself is still signalled, and nothing after it.
    ASSERT_TRUE(subscriber->WaitForCount(1, 10000));
    ASSERT_TRUE(ServiceEnable().Ok());
    NameHasOwner(subscriber->Connection(), contract::kBusName);
    std::vector<ReceivedSignal> signals = subscriber->Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ("(0, 'Pref/Channel/Remove', 'nine-one')", Printed(signals[0].parameters.get()));
}

TEST_F(SimServiceTest, ARemovalLeavesAChannelListThatIsNotAListAlone) {
    ASSERT_TRUE(Control(lumora::sim::kCtlSetValue, g_variant_new("(ss)", "Pref/Channel/List", "[1,2]")).Ok());
    ASSERT_TRUE(Write("Pref/Channel/Remove", "{\"major\":9,\"minor\":1,\"type\":\"AIR\"}").Ok());
    EXPECT_EQ("(0, '[1,2]')", Read("Pref/Channel/List").Print());
    EXPECT_EQ(0u, Parse(Status())["channelRemovals"][0]["removed"].asUInt()) << Status();
}

// A client's text that the tools do not take as JSON (nested deeper than 512
// levels) or that holds the wrong types is no candidate order and names no
// channel; the handlers that read it run in GDBus, where nothing may throw.
TEST_F(SimServiceTest, ReorderAndRemovalTextsTooDeepOrOfTheWrongTypesNameNoChannelAndTheServiceLivesOn) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    const std::string unordered = Text(Read("Pref/Channel/List/Reorder"));
    for (const std::string& input :
         {deep, "{\"reorder\":" + deep + "}", std::string("{\"reorder\":[{\"major\":\"7\",\"minor\":1}]}"),
          std::string("{\"reorder\":[{\"major\":4294967296,\"minor\":1}]}"), std::string("{\"reorder\":{}}")}) {
        CallResult result = Read("Pref/Channel/List/Reorder", input);
        ASSERT_TRUE(result.Ok()) << result.Print();
        EXPECT_EQ(unordered, Text(result)) << input.substr(0, 80);
    }
    const std::string list = Text(Read("Pref/Channel/List"));
    ASSERT_TRUE(Write("Pref/Channel/Remove", deep).Ok());
    ASSERT_TRUE(Write("Pref/Channel/Remove", "{\"major\":[7],\"minor\":{\"n\":1}}").Ok());
    ASSERT_TRUE(Write("Pref/Channel/RemoveWithServiceID", "{\"major\":7,\"minor\":1,\"service_id\":7}").Ok());
    EXPECT_EQ(list, Text(Read("Pref/Channel/List")));
    Json::Value removals = Parse(Status())["channelRemovals"];
    ASSERT_EQ(3u, removals.size()) << Status().substr(0, 400);
    EXPECT_EQ(Json::Value(deep), removals[0]["request"]) << "kept as the text it was";
    for (const Json::Value& removal : removals) EXPECT_EQ(0u, removal["removed"].asUInt());
    EXPECT_TRUE(ServiceEnable().Ok());
}

TEST_F(SimServiceTest, RequestSyncOfAnotherRequestTypeGetsAnInvalidArgsError) {
    CallResult result = RequestSync(contract::kRequestWrite, "Ctx/App/Info/Current");
    ASSERT_FALSE(result.Ok());
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", result.errorName);
    EXPECT_EQ("RequestSync does not serve request type 2", result.errorMessage);
}

TEST_F(SimServiceTest, ACallWithTheWrongSignatureGetsADbusErrorAndTheServiceLivesOn) {
    CallResult result = Service(contract::kMethodRequestSync, g_variant_new("(s)", "Ctx/App/Info/Current"));
    ASSERT_FALSE(result.Ok());
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", result.errorName) << result.Print();
    CallResult noArgs = Service(contract::kMethodWrite, nullptr);
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", noArgs.errorName) << noArgs.Print();
    CallResult extra = Service(contract::kMethodServiceEnable, g_variant_new("(i)", 1));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", extra.errorName) << extra.Print();
    EXPECT_TRUE(ServiceEnable().Ok());
    EXPECT_TRUE(m_sim.Running());
}

TEST_F(SimServiceTest, AnUnknownMethodGetsADbusError) {
    CallResult result = Service("Frobnicate", nullptr);
    ASSERT_FALSE(result.Ok());
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", result.errorName) << result.Print();
}

TEST_F(SimServiceTest, RequestAsyncAnswersTheSubjectAndTheValueAsATextPayload) {
    CallResult result = RequestAsync("Ctx/Sound/Volume/Level/Current");
    ASSERT_TRUE(result.Ok()) << result.Print();
    EXPECT_STREQ("(isv)", g_variant_get_type_string(result.reply.get()));
    EXPECT_EQ("(0, 'Ctx/Sound/Volume/Level/Current', <('{\"Level\":18,\"Max\":100,\"Mute\":false}',)>)",
              result.Print());
}

TEST_F(SimServiceTest, RequestAsyncOfAnUnknownSubjectAnswersEmptyObject) {
    EXPECT_EQ("(0, 'Ctx/No/Such/Subject', <('{}',)>)", RequestAsync("Ctx/No/Such/Subject").Print());
}

TEST_F(SimServiceTest, RequestAsyncOfAnotherRequestTypeGetsAnInvalidArgsError) {
    CallResult result =
        Service(contract::kMethodRequestAsync, Request(contract::kRequestRead, "Data/Weather/Forecast", ""));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", result.errorName) << result.Print();
}

TEST_F(SimServiceTest, StatisticsSubjectsAnswerTheirTypedArrays) {
    struct Expected {
        const char* subject;
        const char* type;
        const char* printed;
    } expected[] = {
        {"I/TallyDB/Onoff/Duration", "a(uu)", "[(1715677200, 9000), (1715763600, 12600)]"},
        {"I/TallyDB/App/Duration", "a(uusssi)",
         "[(1715688000, 3600, 'Live TV', 'com.verdin.tv.livetv', '4.2.1', 5), "
         "(1715691600, 1800, 'Streamly', 'com.streamly.tv', '2.0.7', 2)]"},
        {"I/TallyDB/Channel/Duration", "a(uuiisss)",
         "[(1715688000, 3600, 7, 1, 'KBS1', '0x0401', 'AIR'), "
         "(1715691600, 2700, 101, 0, 'Skyline Movies', 'stb-101', 'HDMI1')]"},
        {"I/TallyDB/Genre/Duration", "a(uuss)",
         "[(1715688000, 3600, 'News', 'KBS1'), (1715691600, 2700, 'Movie', 'Skyline Movies')]"},
        {"I/TallyDB/Content/Duration", "a(uusssssiiss)",
         "[(1715688000, 3600, \"Nine O'Clock News\", 'News', 'KBS1', '0x0401', 'AIR', 7, 1, 'ALL', 'ko'), "
         "(1715691600, 2700, 'The Long Voyage', 'Movie', 'Skyline Movies', 'stb-101', 'HDMI1', 101, 0, '12', 'en')]"},
    };
    for (const Expected& e : expected) {
        CallResult result = RequestAsync(e.subject);
        ASSERT_TRUE(result.Ok()) << e.subject << ": " << result.Print();
        const gchar* subject = nullptr;
        gint32 code = -1;
        g_variant_get_child(result.reply.get(), 0, "i", &code);
        g_variant_get_child(result.reply.get(), 1, "&s", &subject);
        EXPECT_EQ(0, code);
        EXPECT_STREQ(e.subject, subject);
        VariantPtr payload = Payload(result);
        EXPECT_STREQ(e.type, g_variant_get_type_string(payload.get())) << e.subject;
        EXPECT_EQ(e.printed, Printed(payload.get())) << e.subject;
    }
}

TEST_F(SimServiceTest, StatisticsKeepTheFullUnsignedRangeAndTheTupleOrder) {
    ASSERT_TRUE(
        Control(lumora::sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Onoff/Duration", "[[1, 4294967295]]"))
            .Ok());
    ASSERT_TRUE(Control(lumora::sim::kCtlSetStatistics,
                        g_variant_new("(ss)", "I/TallyDB/App/Duration", "[[1, 2, \"A\", \"B\", \"C\", 7]]"))
                    .Ok());
    EXPECT_EQ("[(1, 4294967295)]", Printed(Payload(RequestAsync("I/TallyDB/Onoff/Duration")).get()));
    EXPECT_EQ("[(1, 2, 'A', 'B', 'C', 7)]", Printed(Payload(RequestAsync("I/TallyDB/App/Duration")).get()));
}

TEST_F(SimServiceTest, AStatisticsSubjectWithoutTuplesAnswersAnEmptyArrayOfItsType) {
    ASSERT_TRUE(Control(lumora::sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Genre/Duration", "[]")).Ok());
    VariantPtr payload = Payload(RequestAsync("I/TallyDB/Genre/Duration"));
    EXPECT_STREQ("a(uuss)", g_variant_get_type_string(payload.get()));
    EXPECT_EQ(0u, g_variant_n_children(payload.get()));
}

TEST_F(SimServiceTest, ReadOfAStatisticsSubjectAnswersEmptyObject) {
    EXPECT_EQ("(0, '{}')", Read("I/TallyDB/App/Duration").Print());
}

TEST_F(SimServiceTest, EachCallIsLoggedWithItsTuple) {
    ASSERT_TRUE(Read("Ctx/App/Info/Current").Ok());
    std::string sender = g_dbus_connection_get_unique_name(m_client);
    bool found = false;
    for (const LogRecord& record : m_log.Records()) {
        if (record.tag == "LUMORA_SIM" && record.level == 'I' &&
            record.text.rfind("RequestSync from " + sender, 0) == 0 &&
            record.text.find("type:1 ") != std::string::npos &&
            record.text.find("subject:Ctx/App/Info/Current") != std::string::npos) {
            found = true;
        }
    }
    EXPECT_TRUE(found) << m_log.Dump();
}

}  // namespace
}  // namespace lumora::test
