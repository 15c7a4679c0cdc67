// The channel list services and the action writers against lumora-sim: the
// filtered list for each source type, reordering and removal, the programme
// and set-top-box reads, the action documents, each with what went on the
// bus, what the simulator kept, and the log lines.
#include <json/json.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "JsonText.h"
#include "MisbehavingService.h"
#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kList = "Pref/Channel/List";

// The names of a filtered list's entries, in order.
std::vector<std::string> Names(const Json::Value& list) {
    std::vector<std::string> names;
    for (const Json::Value& entry : list["ChList"]) names.push_back(entry["ChName"].asString());
    return names;
}

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeDeleter>;

class ChannelTest : public EventTest {
protected:
    void SetUp() override {
        EventTest::SetUp();
        LMFServiceAPI::SetSourceAndModel(LMF_SRC_ALL, LMF_MODEL_DEFAULT);
    }

    /// Reads the list with source; false when GetChannelList failed.
    bool List(LMF_SRC_TYPE source, Json::Value& list, int& count) {
        LMFServiceAPI::SetSourceAndModel(source, LMF_MODEL_DEFAULT);
        std::string text;
        count = -1;
        if (!LMFServiceAPI::GetChannelList(text, count)) return false;
        list = ParseJson(text);
        return true;
    }

    /// The writes the library sent, as "subject input".
    /// The library's writes as "subject input", once expected of them reached
    /// the bus.
    std::vector<std::string> Writes(size_t expected = 0) {
        std::vector<std::string> writes;
        for (const BusMessage& call : expected > 0 ? LibraryWrites(expected) : LibraryCalls("Write"))
            writes.push_back(call.subject + " " + call.input);
        return writes;
    }
};

// ---- the list ---------------------------------------------------------------------

TEST_F(ChannelTest, TheSampleListFilteredByEachSourceType) {
    Start();
    Json::Value list;
    int count = 0;
    ASSERT_TRUE(List(LMF_SRC_ALL, list, count));
    // Type 9 entries are hidden in every mode.
    EXPECT_EQ(
        (std::vector<std::string>{"KBS1", "MBC", "EBS Radio", "Shopping Plus", "Skyline Movies", "Skyline Sports"}),
        Names(list));
    EXPECT_EQ(6, count);
    EXPECT_EQ(6, list["Size"].asInt());
    EXPECT_EQ("Success", list["Status"].asString());
    EXPECT_FALSE(list.isMember("Reason"));
    // An entry without a channel type is passed on without one; the others
    // keep every field of the service's.
    EXPECT_FALSE(list["ChList"][3].isMember("ChType"));
    EXPECT_EQ("0x1f5", list["ChList"][3]["ServiceID"].asString());

    ASSERT_TRUE(List(LMF_SRC_RF, list, count));
    EXPECT_EQ((std::vector<std::string>{"KBS1", "MBC", "EBS Radio", "Shopping Plus"}), Names(list));
    EXPECT_EQ(4, count);
    ASSERT_TRUE(List(LMF_SRC_STB, list, count));
    EXPECT_EQ((std::vector<std::string>{"Skyline Movies", "Skyline Sports"}), Names(list));
    EXPECT_EQ(2, count);

    auto reads = LibraryCalls("RequestSync");
    ASSERT_EQ(3u, reads.size());
    for (const BusMessage& read : reads) {
        EXPECT_EQ(1, read.requestType);
        EXPECT_EQ(kList, read.subject);
        EXPECT_EQ("{\"list\":13}", CompactJson(ParseJson(read.input)));
    }
    // The line carries the library's own serialisation; compare what it holds.
    bool found = false;
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind("Output Channel List : ", 0) == 0 && record.level == 'I' &&
            record.function == "GetChannelList" && record.file == "LMFServiceAPI.cpp")
            found |= ParseJson(record.text.substr(strlen("Output Channel List : "))) == list;
    }
    EXPECT_TRUE(found) << m_log.Dump();
}

TEST_F(ChannelTest, OnlyExactSourceTypesAreKept) {
    Start();
    ASSERT_TRUE(SetSimValue(kList,
                            "{\"Status\":\"Success\",\"ChList\":["
                            "{\"ChName\":\"a\",\"SrcType\":\"RF \",\"ChType\":1},"
                            "{\"ChName\":\"b\",\"SrcType\":\"rf\",\"ChType\":1},"
                            "{\"ChName\":\"c\",\"SrcType\":\"RF\",\"ChType\":null},"
                            "{\"ChName\":\"d\",\"SrcType\":\"STB\",\"ChType\":9},"
                            "{\"ChName\":\"e\",\"SrcType\":5,\"ChType\":2},"
                            "{\"ChName\":\"f\",\"ChType\":1}]}"));
    Json::Value list;
    int count = 0;
    ASSERT_TRUE(List(LMF_SRC_RF, list, count));
    EXPECT_EQ((std::vector<std::string>{"c"}), Names(list));
    // A null channel type is dropped from the entry.
    EXPECT_FALSE(list["ChList"][0].isMember("ChType"));
    ASSERT_TRUE(List(LMF_SRC_STB, list, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ("Error", list["Status"].asString());
    EXPECT_EQ("The list is empty.", list["Reason"].asString());
    EXPECT_EQ(0, list["Size"].asInt());
    EXPECT_FALSE(list.isMember("ChList"));
    // Everything but type 9, whatever the source text.
    ASSERT_TRUE(List(LMF_SRC_ALL, list, count));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "e", "f"}), Names(list));
    // A source type outside the table shows nothing.
    ASSERT_TRUE(List(static_cast<LMF_SRC_TYPE>(5), list, count));
    EXPECT_EQ(0, count);
}

TEST_F(ChannelTest, OddChannelTypesAndEntriesAreFilteredWithoutFailing) {
    Start();
    ASSERT_TRUE(SetSimValue(kList,
                            "{\"Status\":\"Success\",\"ChList\":["
                            "{\"ChName\":\"string9\",\"SrcType\":\"RF\",\"ChType\":\"9\"},"
                            "{\"ChName\":\"float9\",\"SrcType\":\"RF\",\"ChType\":9.5},"
                            "{\"ChName\":\"float2\",\"SrcType\":\"RF\",\"ChType\":2.5},"
                            "7, \"text\", [1,2], null]}"));
    Json::Value list;
    int count = 0;
    ASSERT_TRUE(List(LMF_SRC_RF, list, count));
    // A type that is a string is no number (not 9); a float counts by its
    // whole part, so 9.5 is hidden.
    EXPECT_EQ((std::vector<std::string>{"string9", "float2"}), Names(list));
    // With every source admitted, entries that are not objects are passed on
    // as they came (there is nothing in them to filter by).
    ASSERT_TRUE(List(LMF_SRC_ALL, list, count));
    EXPECT_EQ(6, count);
    EXPECT_EQ(6u, list["ChList"].size());
    EXPECT_EQ(7, list["ChList"][2].asInt());
}

TEST_F(ChannelTest, AListWithoutEntriesOrWithoutSuccess) {
    Start();
    Json::Value list;
    int count = -1;
    ASSERT_TRUE(SetSimValue(kList, "{\"Status\":\"Success\"}"));
    ASSERT_TRUE(List(LMF_SRC_ALL, list, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ("{\"Reason\":\"The list is empty.\",\"Size\":0,\"Status\":\"Error\"}", CompactJson(list));
    ASSERT_TRUE(SetSimValue(kList, "{\"Status\":\"Success\",\"ChList\":{\"a\":1}}"));
    ASSERT_TRUE(List(LMF_SRC_ALL, list, count));
    EXPECT_EQ(0, count);

    // Any other status: the answer as it came, and a count of 0.
    const char* failed = "{\"Status\":\"Failed\",\"ChList\":[{\"SrcType\":\"RF\",\"ChType\":9}]}";
    ASSERT_TRUE(SetSimValue(kList, failed));
    std::string text;
    ASSERT_TRUE(LMFServiceAPI::GetChannelList(text, count));
    EXPECT_EQ(failed, text);
    EXPECT_EQ(0, count);
}

TEST_F(ChannelTest, AnAnswerThatIsNotJsonOrNoAnswerFails) {
    Start();
    std::string text = "unchanged";
    int count = 5;
    ASSERT_TRUE(SetSimValue(kList, "{\"Status\":"));
    EXPECT_FALSE(LMFServiceAPI::GetChannelList(text, count));
    EXPECT_TRUE(m_log.From("parsing error", "LMFServiceAPI.cpp", "GetChannelList")) << m_log.Dump();
    EXPECT_EQ("unchanged", text);

    // "{}" is the service's "no data".
    ASSERT_TRUE(Control(lumora::sim::kCtlClearValue, g_variant_new("(s)", kList)).Ok());
    EXPECT_FALSE(LMFServiceAPI::GetChannelList(text, count));
    EXPECT_TRUE(m_log.From("error -4", "LMFServiceAPI.cpp", "GetChannelList")) << m_log.Dump();

    ASSERT_TRUE(SetSimValue(kList, "{\"Status\":\"Success\",\"ChList\":[]}"));
    ASSERT_TRUE(Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", kList, -17)).Ok());
    int cCount = 3;
    EXPECT_EQ(nullptr, CS_GetChannelList(&cCount));
    EXPECT_EQ(0, cCount);
    EXPECT_TRUE(m_log.Has("error -17", 'E')) << m_log.Dump();
}

TEST_F(ChannelTest, AnEnormousListIsFilteredWhole) {
    Start();
    Json::Value answer;
    answer["Status"] = "Success";
    for (int i = 0; i < 20000; ++i) {
        Json::Value entry;
        entry["major"] = i;
        entry["SrcType"] = i % 2 == 0 ? "RF" : "STB";
        entry["ChType"] = i % 10 == 9 ? 9 : 1;
        entry["ChName"] = "channel " + std::to_string(i);
        answer["ChList"].append(entry);
    }
    ASSERT_TRUE(SetSimValue(kList, CompactJson(answer)));
    int count = 0;
    OwnedText text(CS_GetChannelList(&count));
    ASSERT_NE(nullptr, text);
    // Every tenth entry is of type 9.
    EXPECT_EQ(18000, count);
    EXPECT_EQ(18000u, ParseJson(text.get())["ChList"].size());
    // Type 9 falls on odd numbers only (i % 10 == 9), so every RF entry stays.
    LMFServiceAPI::SetSourceAndModel(LMF_SRC_RF, LMF_MODEL_DEFAULT);
    text.reset(CS_GetChannelList(&count));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(10000, count);
    EXPECT_EQ(10000u, ParseJson(text.get())["ChList"].size());
    LMFServiceAPI::SetSourceAndModel(LMF_SRC_STB, LMF_MODEL_DEFAULT);
    text.reset(CS_GetChannelList(&count));
    EXPECT_EQ(8000, count);
}

TEST_F(ChannelTest, CGetChannelListHandsOutACopyAndTheCount) {
    Start();
    LMFServiceAPI::SetSourceAndModel(LMF_SRC_STB, LMF_MODEL_DEFAULT);
    int count = 0;
    OwnedText text(CS_GetChannelList(&count));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(2, count);
    EXPECT_EQ((std::vector<std::string>{"Skyline Movies", "Skyline Sports"}), Names(ParseJson(text.get())));
}

// ---- programme and set-top box ------------------------------------------------------

TEST_F(ChannelTest, TheProgrammeAndTheSetTopBoxStatusComeAsTheServiceGivesThem) {
    Start();
    std::string info;
    ASSERT_TRUE(LMFServiceAPI::GetCurrentChannelInfo(info));
    EXPECT_EQ(SimValue("Ctx/Media/Broadcast/Program/Current"), info);
    std::string status;
    ASSERT_TRUE(LMFServiceAPI::GetContentsRecognitionStatus(status));
    EXPECT_EQ(SimValue("Ctx/Media/Broadcast/Status/STB"), status);
    OwnedText copy(CS_GetCurrentChannelInfo());
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(info, copy.get());
    auto reads = LibraryCalls("RequestSync");
    ASSERT_EQ(3u, reads.size());
    EXPECT_EQ("Ctx/Media/Broadcast/Program/Current", reads[0].subject);
    EXPECT_EQ("Ctx/Media/Broadcast/Status/STB", reads[1].subject);
    for (const BusMessage& read : reads) EXPECT_EQ("{}", read.input);

    ASSERT_TRUE(Control(lumora::sim::kCtlClearValue, g_variant_new("(s)", "Ctx/Media/Broadcast/Status/STB")).Ok());
    status = "unchanged";
    EXPECT_FALSE(LMFServiceAPI::GetContentsRecognitionStatus(status));
    EXPECT_EQ("unchanged", status);
    EXPECT_TRUE(m_log.From("error -4", "LMFServiceAPI.cpp", "GetContentsRecognitionStatus")) << m_log.Dump();
    ASSERT_TRUE(
        Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/Media/Broadcast/Program/Current", -9)).Ok());
    EXPECT_EQ(nullptr, CS_GetCurrentChannelInfo());
    EXPECT_TRUE(m_log.From("error -9", "LMFServiceAPI.cpp", "GetCurrentChannelInfo")) << m_log.Dump();
}

// ---- reordering -------------------------------------------------------------------------

TEST_F(ChannelTest, ReorderSendsTheCandidatesAndTakesTheServicesOrder) {
    Start();
    std::vector<LMF_CHANNEL_ELEM> channels = {{11, 1}, {7, 1}, {9, 2}, {9, 1}};
    ASSERT_TRUE(LMFServiceAPI::ReorderChannelList(channels, 3));
    auto reads = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, reads.size());
    EXPECT_EQ("Pref/Channel/List/Reorder", reads[0].subject);
    EXPECT_EQ(
        "{\"reorder\":[{\"major\":11,\"minor\":1},{\"major\":7,\"minor\":1},{\"major\":9,\"minor\":2},"
        "{\"major\":9,\"minor\":1}],\"source\":3}",
        CompactJson(ParseJson(reads[0].input)));
    // The simulator orders by channel number.
    ASSERT_EQ(4u, channels.size());
    EXPECT_EQ(7, channels[0].major);
    EXPECT_EQ(9, channels[1].major);
    EXPECT_EQ(1, channels[1].minor);
    EXPECT_EQ(2, channels[2].minor);
    EXPECT_EQ(11, channels[3].major);
}

TEST_F(ChannelTest, AnEmptyCandidateListIsRefusedBeforeAnythingIsSent) {
    Start();
    std::vector<LMF_CHANNEL_ELEM> channels;
    EXPECT_FALSE(LMFServiceAPI::ReorderChannelList(channels, 0));
    EXPECT_TRUE(m_log.From("Input candidate list is empty!", "LMFServiceAPI.cpp", "ReorderChannelList"))
        << m_log.Dump();
    m_log.Mark();
    EXPECT_EQ(nullptr, CS_ReorderChannelList("[]", 0));
    auto lines = m_log.Records();
    ASSERT_EQ(2u, lines.size()) << m_log.Dump();
    EXPECT_EQ("Input candidate list is empty!", lines[0].text);
    EXPECT_EQ("Reorder Error ..", lines[1].text);
    EXPECT_EQ("CS_LMFServiceAPI.cpp", lines[1].file);
    EXPECT_EQ("CS_ReorderChannelList", lines[1].function);
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
}

TEST_F(ChannelTest, CReorderWritesTheServicesOrderOnOneLine) {
    Start();
    OwnedText order(CS_ReorderChannelList("[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":1}]", 1));
    ASSERT_NE(nullptr, order);
    EXPECT_STREQ("[{\"major\":7,\"minor\":1},{\"major\":9,\"minor\":1}]", order.get());
    EXPECT_TRUE(m_log.From(std::string("Out ChList : ") + order.get(), "CS_LMFServiceAPI.cpp", "CS_ReorderChannelList"))
        << m_log.Dump();
    EXPECT_EQ("{\"reorder\":[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":1}],\"source\":1}",
              CompactJson(ParseJson(LibraryCalls("RequestSync")[0].input)));
}

TEST_F(ChannelTest, CReorderInputThatIsNullNotJsonOrNoArray) {
    Start();
    EXPECT_EQ(nullptr, CS_ReorderChannelList(nullptr, 0));
    EXPECT_TRUE(m_log.Has("channel_list is NULL", 'E')) << m_log.Dump();
    EXPECT_EQ(nullptr, CS_ReorderChannelList("[{\"major\":", 0));
    EXPECT_TRUE(m_log.Has("Parse json Err", 'E')) << m_log.Dump();
    // A document that is not an array holds no candidates.
    m_log.Mark();
    EXPECT_EQ(nullptr, CS_ReorderChannelList("{\"major\":7,\"minor\":1}", 0));
    EXPECT_TRUE(m_log.Has("Input candidate list is empty!", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Reorder Error ..", 'E')) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
    // Elements without numbers are channel 0.
    OwnedText order(CS_ReorderChannelList("[{\"minor\":4},\"x\",{\"major\":\"7\",\"minor\":1.5}]", 0));
    ASSERT_NE(nullptr, order);
    EXPECT_EQ(
        "{\"reorder\":[{\"major\":0,\"minor\":4},{\"major\":0,\"minor\":0},{\"major\":0,\"minor\":1}],\"source\":0}",
        CompactJson(ParseJson(LibraryCalls("RequestSync")[0].input)));
}

TEST_F(ChannelTest, AFailedReorderLeavesTheCandidatesAsTheyWere) {
    Start();
    ASSERT_TRUE(Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", "Pref/Channel/List/Reorder", -3)).Ok());
    std::vector<LMF_CHANNEL_ELEM> channels = {{9, 1}, {7, 1}};
    EXPECT_FALSE(LMFServiceAPI::ReorderChannelList(channels, 0));
    EXPECT_TRUE(m_log.From("error -3", "LMFServiceAPI.cpp", "ReorderChannelList")) << m_log.Dump();
    ASSERT_EQ(2u, channels.size());
    EXPECT_EQ(9, channels[0].major);
    EXPECT_EQ(nullptr, CS_ReorderChannelList("[{\"major\":9,\"minor\":1}]", 0));
    EXPECT_TRUE(m_log.Has("Reorder Error ..", 'E')) << m_log.Dump();
}

TEST_F(ChannelTest, TheWithdrawnReorderBySourceIdAlwaysFails) {
    std::vector<std::string> ids = {"0x0401", "0x0901"};
    EXPECT_FALSE(LMFServiceAPI::ReorderChannelListFromSourceID(ids));
    EXPECT_EQ(2u, ids.size());
    EXPECT_TRUE(m_log.From("** DEPRECATED FUNCTION : have to use ReorderChannelList function ***", "LMFServiceAPI.cpp",
                           "ReorderChannelListFromSourceID"))
        << m_log.Dump();
}

// ---- removal ------------------------------------------------------------------------------

TEST_F(ChannelTest, EverySourceHasItsText) {
    const char* texts[] = {"AIR", "CABLE", "SATELLITE", "HDMI1", "HDMI2", "HDMI3", "HDMI4", "HDMI5", "HDMI6"};
    for (int type = 0; type < 9; ++type)
        EXPECT_EQ(texts[type], LMFServiceAPI::_ConvertSrcTypeString(static_cast<LMF_SRC_EXT_TYPE>(type)));
    EXPECT_EQ("Unknown", LMFServiceAPI::_ConvertSrcTypeString(static_cast<LMF_SRC_EXT_TYPE>(9)));
    EXPECT_EQ("Unknown", LMFServiceAPI::_ConvertSrcTypeString(static_cast<LMF_SRC_EXT_TYPE>(-1)));
}

TEST_F(ChannelTest, RemovalRequestsAreWrittenInBothForms) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::RemoveChannelFromList(9, 1, LMF_SRC_EXT_AIR));
    ASSERT_TRUE(LMFServiceAPI::RemoveChannelFromList(101, 0, "stb-101", LMF_SRC_EXT_HDMI1));
    ASSERT_TRUE(CS_RemoveChannelFromList(11, 1, static_cast<LMF_SRC_EXT_TYPE>(42)));
    ASSERT_TRUE(CS_RemoveChannelFromListWithServiceID(202, 0, "stb-202", LMF_SRC_EXT_CABLE));
    auto writes = LibraryWrites(4);
    ASSERT_EQ(4u, writes.size());
    EXPECT_EQ("Pref/Channel/Remove", writes[0].subject);
    EXPECT_EQ("{\"major\":9,\"minor\":1,\"type\":\"AIR\"}", CompactJson(ParseJson(writes[0].input)));
    EXPECT_EQ("Pref/Channel/RemoveWithServiceID", writes[1].subject);
    EXPECT_EQ("{\"major\":101,\"minor\":0,\"service_id\":\"stb-101\",\"type\":\"HDMI1\"}",
              CompactJson(ParseJson(writes[1].input)));
    EXPECT_EQ("{\"major\":11,\"minor\":1,\"type\":\"Unknown\"}", CompactJson(ParseJson(writes[2].input)));
    EXPECT_EQ("{\"major\":202,\"minor\":0,\"service_id\":\"stb-202\",\"type\":\"CABLE\"}",
              CompactJson(ParseJson(writes[3].input)));
    // What the simulator took in.
    EXPECT_TRUE(WaitUntil(
        [&] { return ParseJson(writes[3].input) == ParseJson(SimValue("Pref/Channel/RemoveWithServiceID")); }, 5000));
}

TEST_F(ChannelTest, ANullServiceIdThrowsTheStandardLibrarysLogicErrorWithoutWriting) {
    Start();
    EXPECT_THROW(CS_RemoveChannelFromListWithServiceID(9, 1, nullptr, LMF_SRC_EXT_AIR), std::logic_error);
    EXPECT_TRUE(m_log.From("serviceId is null", "CS_LMFServiceAPI.cpp", "CS_RemoveChannelFromListWithServiceID"))
        << m_log.Dump();
    EXPECT_TRUE(LibraryCalls("Write").empty());
}

TEST_F(ChannelTest, AWriteThatCannotBeSentFailsWithItsCode) {
    Start();
    ASSERT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 5000));
    m_log.Mark();
    EXPECT_FALSE(LMFServiceAPI::RemoveChannelFromList(9, 1, LMF_SRC_EXT_AIR));
    EXPECT_TRUE(m_log.From("error -5", "LMFServiceAPI.cpp", "RemoveChannelFromList")) << m_log.Dump();
    EXPECT_FALSE(CS_SetFirstscreenAction("home", "{}"));
    EXPECT_TRUE(m_log.From("error -5", "LMFServiceAPI.cpp", "SetFirstscreenAction")) << m_log.Dump();
    std::vector<std::string> none;
    LMFServiceAPI::SetVoiceAction("tv", "mute", none, none);
    EXPECT_TRUE(m_log.From("error -5", "LMFServiceAPI.cpp", "SetVoiceAction")) << m_log.Dump();
    LMFServiceAPI::SetVoiceActionRuleId("r");
    EXPECT_TRUE(m_log.From("error -5", "LMFServiceAPI.cpp", "SetVoiceActionRuleId")) << m_log.Dump();
}

// ---- actions ----------------------------------------------------------------------------

TEST_F(ChannelTest, TheFirstscreenActionCarriesItsJsonAsAString) {
    Start();
    ASSERT_TRUE(LMFServiceAPI::SetFirstscreenAction("home", "{\"a\":1}"));
    ASSERT_TRUE(CS_SetFirstscreenAction("apps", "[1,2]"));
    auto writes = Writes(2);
    ASSERT_EQ(2u, writes.size());
    EXPECT_EQ("Raw/Firstscreen/Action {\"componentId\":\"home\",\"jsonData\":\"{\\\"a\\\":1}\"}",
              "Raw/Firstscreen/Action " + CompactJson(ParseJson(writes[0].substr(strlen("Raw/Firstscreen/Action ")))));
    // Seen on the bus is not yet stored: the simulator takes the write in on
    // its own time, and this read comes over another connection.
    Json::Value stored;
    EXPECT_TRUE(WaitUntil(
        [&] { return (stored = ParseJson(SimValue("Raw/Firstscreen/Action")))["componentId"].asString() == "apps"; },
        5000));
    EXPECT_EQ("apps", stored["componentId"].asString());
    ASSERT_TRUE(stored["jsonData"].isString());
    EXPECT_EQ("[1,2]", stored["jsonData"].asString());
}

TEST_F(ChannelTest, AFirstscreenActionWithoutAComponentOrDataIsNotWritten) {
    Start();
    for (const char* data : {"{\"a\":1}", "", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(LMFServiceAPI::SetFirstscreenAction("", data));
        EXPECT_FALSE(CS_SetFirstscreenAction(nullptr, data));
    }
    EXPECT_EQ(6u, m_log.Count("ComponentId is null", 'E')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("JsonData is null")) << m_log.Dump();
    EXPECT_FALSE(LMFServiceAPI::SetFirstscreenAction("home", ""));
    EXPECT_FALSE(CS_SetFirstscreenAction("home", nullptr));
    EXPECT_EQ(2u, m_log.Count("JsonData is null", 'E')) << m_log.Dump();
    EXPECT_TRUE(Writes().empty());
}

TEST_F(ChannelTest, VoiceActionsWriteTheirDocuments) {
    Start();
    LMFServiceAPI::SetVoiceActionRuleId("");
    std::vector<std::string> values = {"up"};
    std::vector<std::string> none;
    LMFServiceAPI::SetVoiceAction("volume", "change", values, none);
    std::vector<std::string> two = {"7", "1"};
    std::vector<std::string> extra = {"AIR", "now"};
    LMFServiceAPI::SetVoiceAction("channel", "tune", two, extra);
    auto writes = LibraryWrites(3);
    ASSERT_EQ(3u, writes.size());
    EXPECT_EQ("Raw/Voice/Orvi/SetAction", writes[0].subject);
    EXPECT_EQ("{\"ruleId\":\"\"}", CompactJson(ParseJson(writes[0].input)));
    EXPECT_EQ("Raw/Voice/Parlo/SetAction", writes[1].subject);
    // No extra parameters: no "ext_param" key at all.
    EXPECT_EQ("{\"category\":\"volume\",\"cmd_name\":\"change\",\"param\":[{\"value\":\"up\"}]}",
              CompactJson(ParseJson(writes[1].input)));
    EXPECT_EQ(
        "{\"category\":\"channel\",\"cmd_name\":\"tune\",\"ext_param\":[{\"value\":\"AIR\"},{\"value\":\"now\"}],"
        "\"param\":[{\"value\":\"7\"},{\"value\":\"1\"}]}",
        CompactJson(ParseJson(writes[2].input)));
    // Stored once the simulator has taken the write in, on its own time.
    EXPECT_TRUE(WaitUntil(
        [&] { return ParseJson(writes[2].input) == ParseJson(SimValue("Raw/Voice/Parlo/SetAction")); }, 5000));
}

// ---- answers that lumora-sim never gives ---------------------------------------------

TEST(ChannelAnswerTest, AnEmptyOrderIsWrittenAsNullAndAnAnswerThatIsNotJsonFails) {
    program_invocation_short_name = const_cast<char*>("myapp");
    LogCapture log;
    MisbehavingServiceBus peer;
    ASSERT_TRUE(peer.Start());
    MisbehavingService& service = peer.Service();
    ASSERT_EQ(LMF_INIT_OK, Lumora_InitServiceWithResponse(nullptr, nullptr));

    service.SetReply("RequestSync", "(0, '{\"reorder\":[]}')");
    OwnedText order(CS_ReorderChannelList("[{\"major\":7,\"minor\":1}]", 0));
    ASSERT_NE(nullptr, order);
    EXPECT_STREQ("null", order.get());
    EXPECT_TRUE(log.Has("Out ChList : null", 'I')) << log.Dump();

    service.SetReply("RequestSync", "(0, 'not json')");
    std::vector<LMF_CHANNEL_ELEM> channels = {{9, 1}, {7, 1}};
    EXPECT_FALSE(LMFServiceAPI::ReorderChannelList(channels, 0));
    EXPECT_TRUE(log.From("parsing error", "LMFServiceAPI.cpp", "ReorderChannelList")) << log.Dump();
    ASSERT_EQ(2u, channels.size());
    EXPECT_EQ(9, channels[0].major);

    // An answer without "reorder" empties the candidates: the order is the
    // service's.
    service.SetReply("RequestSync", "(0, '{\"other\":1}')");
    EXPECT_TRUE(LMFServiceAPI::ReorderChannelList(channels, 0));
    EXPECT_TRUE(channels.empty());
    Lumora_FiniService();
}

}  // namespace
}  // namespace lumora::test
