// Decoding of the five usage-statistics replies into plain records.
#include <gtest/gtest.h>
#include <lumora/DBusClient.h>

#include <string>

#include "LogCapture.h"

namespace {

using lumora::test::LogCapture;

class StatisticsTest : public testing::Test {
protected:
    void TearDown() override {
        if (m_data != nullptr) g_variant_unref(m_data);
    }

    StatisticsResult Parse(const char* subject, const char* text) {
        m_data = g_variant_ref_sink(g_variant_new_parsed(text));
        StatisticsResult result = {-1, reinterpret_cast<void*>(1)};
        m_client->__ResponseDataParsing(subject, m_data, result);
        return result;
    }

    DBusClient* m_client = DBusClient::GetInstance();
    GVariant* m_data = nullptr;
    LogCapture m_log;
};

TEST_F(StatisticsTest, UnsignedValuesAtOrAbove2To31ReadNegative) {
    StatisticsResult result = Parse("I/TallyDB/Onoff/Duration", "[(uint32 1, uint32 4294967295)]");
    ASSERT_EQ(1, result.count);
    ASSERT_NE(nullptr, result.items);
    auto* item = static_cast<OnoffDurationItem*>(result.items);
    EXPECT_EQ(1, item->field1);
    EXPECT_EQ(-1, item->field2);
    EXPECT_TRUE(m_log.Has("[R] NUM =1", 'E')) << m_log.Dump();
    m_client->__DataFree("I/TallyDB/Onoff/Duration", result);
    EXPECT_EQ(0, result.count);
    EXPECT_EQ(nullptr, result.items);
}

TEST_F(StatisticsTest, AppRecordTakesItsStringsOutOfTupleOrder) {
    StatisticsResult result =
        Parse("I/TallyDB/App/Duration", "[(uint32 1, uint32 2, 'A', 'B', 'C', 7), (uint32 3, uint32 4, 'D', 'E', 'F', 8)]");
    ASSERT_EQ(2, result.count);
    auto* items = static_cast<AppDurationItem*>(result.items);
    EXPECT_EQ(1, items[0].field1);
    EXPECT_EQ(2, items[0].field2);
    EXPECT_STREQ("B", items[0].field3);
    EXPECT_STREQ("A", items[0].field4);
    EXPECT_EQ(7, items[0].field5);
    EXPECT_STREQ("C", items[0].field6);
    EXPECT_STREQ("E", items[1].field3);
    EXPECT_EQ(8, items[1].field5);
    m_client->__DataFree("I/TallyDB/App/Duration", result);
    EXPECT_EQ(nullptr, result.items);
}

TEST_F(StatisticsTest, ChannelRecordPutsTheFirstStringBeforeTheInts) {
    StatisticsResult result = Parse("I/TallyDB/Channel/Duration", "[(uint32 1, uint32 2, 3, 4, 'A', 'B', 'C')]");
    ASSERT_EQ(1, result.count);
    auto* item = static_cast<ChannelDurationItem*>(result.items);
    EXPECT_EQ(1, item->field1);
    EXPECT_EQ(2, item->field2);
    EXPECT_STREQ("A", item->field3);
    EXPECT_EQ(3, item->field4);
    EXPECT_EQ(4, item->field5);
    EXPECT_STREQ("B", item->field6);
    EXPECT_STREQ("C", item->field7);
    m_client->__DataFree("I/TallyDB/Channel/Duration", result);
}

TEST_F(StatisticsTest, GenreRecordKeepsTupleOrder) {
    StatisticsResult result = Parse("I/TallyDB/Genre/Duration", "[(uint32 10, uint32 20, 'news', 'sport')]");
    ASSERT_EQ(1, result.count);
    auto* item = static_cast<GenreDurationItem*>(result.items);
    EXPECT_EQ(10, item->field1);
    EXPECT_EQ(20, item->field2);
    EXPECT_STREQ("news", item->field3);
    EXPECT_STREQ("sport", item->field4);
    m_client->__DataFree("I/TallyDB/Genre/Duration", result);
}

TEST_F(StatisticsTest, ContentRecordReordersItsStrings) {
    StatisticsResult result = Parse("I/TallyDB/Content/Duration",
                                    "[(uint32 1, uint32 2, 'A', 'B', 'C', 'D', 'E', 8, 9, 'F', 'G')]");
    ASSERT_EQ(1, result.count);
    auto* item = static_cast<ContentDurationItem*>(result.items);
    EXPECT_EQ(1, item->field1);
    EXPECT_EQ(2, item->field2);
    EXPECT_STREQ("D", item->field3);
    EXPECT_STREQ("C", item->field4);
    EXPECT_STREQ("A", item->field5);
    EXPECT_STREQ("B", item->field6);
    EXPECT_STREQ("E", item->field7);
    EXPECT_STREQ("G", item->field8);
    EXPECT_STREQ("F", item->field9);
    EXPECT_EQ(8, item->field10);
    EXPECT_EQ(9, item->field11);
    m_client->__DataFree("I/TallyDB/Content/Duration", result);
}

TEST_F(StatisticsTest, EmptyArrayGivesNoRecords) {
    StatisticsResult result = Parse("I/TallyDB/Genre/Duration", "@a(uuss) []");
    EXPECT_EQ(0, result.count);
    EXPECT_EQ(nullptr, result.items);
    EXPECT_TRUE(m_log.Has("[R] NUM =0", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("num is null ..", 'E')) << m_log.Dump();
}

TEST_F(StatisticsTest, PayloadOfAnotherSignatureGivesNoRecords) {
    StatisticsResult result = Parse("I/TallyDB/Onoff/Duration", "[(uint32 1, uint32 2, 'x', 'y')]");
    EXPECT_EQ(0, result.count);
    EXPECT_EQ(nullptr, result.items);
    StatisticsResult text = Parse("I/TallyDB/App/Duration", "('just text',)");
    EXPECT_EQ(0, text.count);
    EXPECT_EQ(nullptr, text.items);
}

TEST_F(StatisticsTest, SubjectThatIsNoneOfTheFiveGivesNoRecords) {
    StatisticsResult result = Parse("Data/Statistic/App", "[(uint32 1, uint32 2)]");
    EXPECT_EQ(0, result.count);
    EXPECT_EQ(nullptr, result.items);
    StatisticsResult prefix = Parse("I/TallyDB/Onoff/Duration/", "[(uint32 1, uint32 2)]");
    EXPECT_EQ(0, prefix.count);
}

TEST_F(StatisticsTest, DataFreeOfAnUnknownSubjectFreesNothingAndSaysSo) {
    StatisticsResult result = Parse("I/TallyDB/Genre/Duration", "[(uint32 1, uint32 2, 'a', 'b')]");
    ASSERT_EQ(1, result.count);
    m_log.Mark();
    m_client->__DataFree("Other/Subject", result);
    EXPECT_TRUE(m_log.Has("Subject Other/Subject", 'E')) << m_log.Dump();
    EXPECT_EQ(1, result.count);
    m_client->__DataFree(nullptr, result);
    EXPECT_TRUE(m_log.Has("Subject is NULL", 'E')) << m_log.Dump();
    EXPECT_EQ(1, result.count);
    m_client->__DataFree("I/TallyDB/Genre/Duration", result);
    EXPECT_EQ(0, result.count);
}

TEST_F(StatisticsTest, DataFreeOfAnEmptyResultDoesNothing) {
    StatisticsResult result = {0, nullptr};
    m_client->__DataFree("I/TallyDB/App/Duration", result);
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(StatisticsTest, ManyRecordsAreAllFilledInOrder) {
    std::string text = "[";
    for (int i = 0; i < 500; ++i) text += (i ? "," : "") + std::string("(uint32 ") + std::to_string(i) + ", uint32 0)";
    text += "]";
    StatisticsResult result = Parse("I/TallyDB/Onoff/Duration", text.c_str());
    ASSERT_EQ(500, result.count);
    auto* items = static_cast<OnoffDurationItem*>(result.items);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(i, items[i].field1);
    m_client->__DataFree("I/TallyDB/Onoff/Duration", result);
}

}  // namespace
