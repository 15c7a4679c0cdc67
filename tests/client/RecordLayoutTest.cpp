// The statistics records' layout, which lumora-c.h states per platform: the
// same in this C++ file (built as the library is) and in record_layout.c (a
// C application built with a 64-bit time_t), and where the library's decoder
// puts each value, 32-bit values at and above 2^31 included.
#include <gtest/gtest.h>
#include <lumora/DBusClient.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "record_layout.h"

namespace {

struct Stated {
    const char* name;
    size_t size;
    std::vector<size_t> offsets;
};

// lumora-c.h's table.
#if defined(__arm__) && !defined(__aarch64__)
constexpr bool kArm32 = true;
#elif UINTPTR_MAX == UINT64_MAX
constexpr bool kArm32 = false;
#else
#error "lumora-c.h states the records' layout for 32-bit ARM and 64-bit platforms only"
#endif

const std::vector<Stated>& StatedLayout() {
    static const std::vector<Stated> arm32 = {
        {"StatisticsResult", 8, {0, 4}},
        {"OnoffDurationItem", 16, {0, 8}},
        {"AppDurationItem", 32, {0, 8, 16, 20, 24, 28}},
        {"ChannelDurationItem", 40, {0, 8, 16, 20, 24, 28, 32}},
        {"GenreDurationItem", 24, {0, 8, 16, 20}},
        {"ContentDurationItem", 56, {0, 8, 16, 20, 24, 28, 32, 36, 40, 44, 48}},
    };
    static const std::vector<Stated> lp64 = {
        {"StatisticsResult", 16, {0, 8}},
        {"OnoffDurationItem", 16, {0, 8}},
        {"AppDurationItem", 48, {0, 8, 16, 24, 32, 40}},
        {"ChannelDurationItem", 48, {0, 8, 16, 24, 28, 32, 40}},
        {"GenreDurationItem", 32, {0, 8, 16, 24}},
        {"ContentDurationItem", 80, {0, 8, 16, 24, 32, 40, 48, 56, 64, 72, 76}},
    };
    return kArm32 ? arm32 : lp64;
}

// The same figures at compile time, for this build's own view of the header.
constexpr size_t kPointer = kArm32 ? 4 : 8;
static_assert(sizeof(void*) == kPointer, "the data model this file assumes");
static_assert(alignof(int64_t) == 8, "int64_t is aligned to 8 on both");
static_assert(offsetof(StatisticsResult, items) == kPointer && sizeof(StatisticsResult) == 2 * kPointer, "");
static_assert(offsetof(OnoffDurationItem, field2) == 8 && sizeof(OnoffDurationItem) == 16, "");
static_assert(offsetof(AppDurationItem, field3) == 16 && offsetof(AppDurationItem, field4) == 16 + kPointer &&
                  offsetof(AppDurationItem, field5) == 16 + 2 * kPointer &&
                  offsetof(AppDurationItem, field6) == (kArm32 ? 28 : 40) &&
                  sizeof(AppDurationItem) == (kArm32 ? 32 : 48),
              "");
static_assert(offsetof(ChannelDurationItem, field4) == 16 + kPointer &&
                  offsetof(ChannelDurationItem, field6) == (kArm32 ? 28 : 32) &&
                  offsetof(ChannelDurationItem, field7) == (kArm32 ? 32 : 40) &&
                  sizeof(ChannelDurationItem) == (kArm32 ? 40 : 48),
              "");
static_assert(offsetof(GenreDurationItem, field4) == 16 + kPointer && sizeof(GenreDurationItem) == 16 + 2 * kPointer,
              "");
static_assert(offsetof(ContentDurationItem, field9) == 16 + 6 * kPointer &&
                  offsetof(ContentDurationItem, field10) == 16 + 7 * kPointer &&
                  offsetof(ContentDurationItem, field11) == 20 + 7 * kPointer &&
                  sizeof(ContentDurationItem) == (kArm32 ? 56 : 80),
              "");

// This file's offsets, by name, as the compiler of the library's language
// lays the records out.
std::vector<size_t> CxxOffsets(const std::string& name) {
#define AT(type, field) offsetof(type, field)
    if (name == "StatisticsResult") return {AT(StatisticsResult, count), AT(StatisticsResult, items)};
    if (name == "OnoffDurationItem") return {AT(OnoffDurationItem, field1), AT(OnoffDurationItem, field2)};
    if (name == "AppDurationItem")
        return {AT(AppDurationItem, field1), AT(AppDurationItem, field2), AT(AppDurationItem, field3),
                AT(AppDurationItem, field4), AT(AppDurationItem, field5), AT(AppDurationItem, field6)};
    if (name == "ChannelDurationItem")
        return {AT(ChannelDurationItem, field1), AT(ChannelDurationItem, field2), AT(ChannelDurationItem, field3),
                AT(ChannelDurationItem, field4), AT(ChannelDurationItem, field5), AT(ChannelDurationItem, field6),
                AT(ChannelDurationItem, field7)};
    if (name == "GenreDurationItem")
        return {AT(GenreDurationItem, field1), AT(GenreDurationItem, field2), AT(GenreDurationItem, field3),
                AT(GenreDurationItem, field4)};
    if (name == "ContentDurationItem")
        return {AT(ContentDurationItem, field1),  AT(ContentDurationItem, field2), AT(ContentDurationItem, field3),
                AT(ContentDurationItem, field4),  AT(ContentDurationItem, field5), AT(ContentDurationItem, field6),
                AT(ContentDurationItem, field7),  AT(ContentDurationItem, field8), AT(ContentDurationItem, field9),
                AT(ContentDurationItem, field10), AT(ContentDurationItem, field11)};
#undef AT
    return {};
}

size_t CxxSize(const std::string& name) {
    if (name == "StatisticsResult") return sizeof(StatisticsResult);
    if (name == "OnoffDurationItem") return sizeof(OnoffDurationItem);
    if (name == "AppDurationItem") return sizeof(AppDurationItem);
    if (name == "ChannelDurationItem") return sizeof(ChannelDurationItem);
    if (name == "GenreDurationItem") return sizeof(GenreDurationItem);
    if (name == "ContentDurationItem") return sizeof(ContentDurationItem);
    return 0;
}

const LumoraRecordLayout* CLayout(const std::string& name) {
    for (size_t i = 0; i < kLumoraCRecordLayoutCount; ++i)
        if (name == kLumoraCRecordLayout[i].name) return &kLumoraCRecordLayout[i];
    return nullptr;
}

TEST(RecordLayoutTest, CAndCxxLayTheRecordsOutAsTheHeaderStates) {
    ASSERT_EQ(StatedLayout().size(), kLumoraCRecordLayoutCount);
    for (const Stated& stated : StatedLayout()) {
        SCOPED_TRACE(stated.name);
        EXPECT_EQ(stated.size, CxxSize(stated.name));
        EXPECT_EQ(stated.offsets, CxxOffsets(stated.name));
        const LumoraRecordLayout* c = CLayout(stated.name);
        ASSERT_NE(nullptr, c);
        EXPECT_EQ(stated.size, c->size);
        EXPECT_EQ(stated.offsets, std::vector<size_t>(c->offsets, c->offsets + c->fields));
    }
}

// Decodes a statistics payload with the library and reads the records the
// way an application of the C layout does: by offset.
class DecodedLayoutTest : public testing::Test {
protected:
    void TearDown() override {
        if (m_result.items != nullptr) m_client->__DataFree(m_subject, m_result);
        if (m_data != nullptr) g_variant_unref(m_data);
    }
    bool Decode(const char* subject, const char* text) {
        m_subject = subject;
        m_data = g_variant_ref_sink(g_variant_new_parsed(text));
        m_client->__ResponseDataParsing(subject, m_data, m_result);
        return m_result.items != nullptr;
    }
    // Field index (from 0) of record i, read through the C application's
    // offsets.
    template <typename T>
    T Field(const char* record, size_t i, size_t index) const {
        const LumoraRecordLayout* layout = CLayout(record);
        T value{};
        std::memcpy(&value, static_cast<const char*>(m_result.items) + i * layout->size + layout->offsets[index],
                    sizeof value);
        return value;
    }
    std::string Text(const char* record, size_t i, size_t index) const {
        const char* text = Field<const char*>(record, i, index);
        return text != nullptr ? text : "(null)";
    }

    DBusClient* m_client = DBusClient::GetInstance();
    const char* m_subject = nullptr;
    GVariant* m_data = nullptr;
    StatisticsResult m_result = {0, nullptr};
};

// The unsigned wire values and what the records hold for them: a 32-bit
// value read as signed, then widened.
constexpr uint32_t kWire[] = {0u, 2147483647u, 2147483648u, 4294967295u};
constexpr int64_t kStored[] = {0, 2147483647, -2147483648LL, -1};

TEST_F(DecodedLayoutTest, OnoffValuesAtAndAbove2To31) {
    ASSERT_TRUE(
        Decode("I/TallyDB/Onoff/Duration", "[(uint32 0, uint32 2147483647), (uint32 2147483648, uint32 4294967295)]"));
    ASSERT_EQ(2, m_result.count);
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(kWire[i]);
        EXPECT_EQ(kStored[i], Field<int64_t>("OnoffDurationItem", i / 2, i % 2));
    }
    // The compiler's own view of the same record agrees.
    EXPECT_EQ(-1, static_cast<OnoffDurationItem*>(m_result.items)[1].field2);
}

TEST_F(DecodedLayoutTest, AppRecord) {
    ASSERT_TRUE(Decode("I/TallyDB/App/Duration",
                       "[(uint32 2147483648, uint32 4294967295, 'e3', 'e4', 'e5', -2147483648),"
                       " (uint32 2147483647, uint32 0, '', 'x', 'y', 2147483647)]"));
    ASSERT_EQ(2, m_result.count);
    EXPECT_EQ(-2147483648LL, (Field<int64_t>("AppDurationItem", 0, 0)));
    EXPECT_EQ(-1, (Field<int64_t>("AppDurationItem", 0, 1)));
    EXPECT_EQ("e4", Text("AppDurationItem", 0, 2));
    EXPECT_EQ("e3", Text("AppDurationItem", 0, 3));
    EXPECT_EQ(INT32_MIN, (Field<int32_t>("AppDurationItem", 0, 4)));
    EXPECT_EQ("e5", Text("AppDurationItem", 0, 5));
    EXPECT_EQ(2147483647, (Field<int64_t>("AppDurationItem", 1, 0)));
    EXPECT_EQ("x", Text("AppDurationItem", 1, 2));
    EXPECT_EQ("", Text("AppDurationItem", 1, 3));
    EXPECT_EQ(INT32_MAX, (Field<int32_t>("AppDurationItem", 1, 4)));
    EXPECT_EQ("y", Text("AppDurationItem", 1, 5));
}

TEST_F(DecodedLayoutTest, ChannelRecord) {
    ASSERT_TRUE(Decode("I/TallyDB/Channel/Duration",
                       "[(uint32 4294967295, uint32 2147483648, -2147483648, 2147483647, 'e5', 'e6', 'e7'),"
                       " (uint32 1, uint32 2, 3, 4, 'a', 'b', 'c')]"));
    ASSERT_EQ(2, m_result.count);
    EXPECT_EQ(-1, (Field<int64_t>("ChannelDurationItem", 0, 0)));
    EXPECT_EQ(-2147483648LL, (Field<int64_t>("ChannelDurationItem", 0, 1)));
    EXPECT_EQ("e5", Text("ChannelDurationItem", 0, 2));
    EXPECT_EQ(INT32_MIN, (Field<int32_t>("ChannelDurationItem", 0, 3)));
    EXPECT_EQ(INT32_MAX, (Field<int32_t>("ChannelDurationItem", 0, 4)));
    EXPECT_EQ("e6", Text("ChannelDurationItem", 0, 5));
    EXPECT_EQ("e7", Text("ChannelDurationItem", 0, 6));
    EXPECT_EQ(2, (Field<int64_t>("ChannelDurationItem", 1, 1)));
    EXPECT_EQ(4, (Field<int32_t>("ChannelDurationItem", 1, 4)));
    EXPECT_EQ("c", Text("ChannelDurationItem", 1, 6));
}

TEST_F(DecodedLayoutTest, GenreRecord) {
    ASSERT_TRUE(Decode("I/TallyDB/Genre/Duration",
                       "[(uint32 3000000000, uint32 2147483649, 'news', 'sport'), (uint32 5, uint32 6, 'a', 'b')]"));
    ASSERT_EQ(2, m_result.count);
    EXPECT_EQ(3000000000LL - 4294967296LL, (Field<int64_t>("GenreDurationItem", 0, 0)));
    EXPECT_EQ(-2147483647LL, (Field<int64_t>("GenreDurationItem", 0, 1)));
    EXPECT_EQ("news", Text("GenreDurationItem", 0, 2));
    EXPECT_EQ("sport", Text("GenreDurationItem", 0, 3));
    EXPECT_EQ(6, (Field<int64_t>("GenreDurationItem", 1, 1)));
    EXPECT_EQ("b", Text("GenreDurationItem", 1, 3));
}

TEST_F(DecodedLayoutTest, ContentRecord) {
    ASSERT_TRUE(Decode("I/TallyDB/Content/Duration",
                       "[(uint32 2147483648, uint32 4294967295, 'A', 'B', 'C', 'D', 'E', -2147483648, 2147483647,"
                       " 'F', 'G'), (uint32 1, uint32 2, 'a', 'b', 'c', 'd', 'e', 8, 9, 'f', 'g')]"));
    ASSERT_EQ(2, m_result.count);
    EXPECT_EQ(-2147483648LL, (Field<int64_t>("ContentDurationItem", 0, 0)));
    EXPECT_EQ(-1, (Field<int64_t>("ContentDurationItem", 0, 1)));
    const char* strings[] = {"D", "C", "A", "B", "E", "G", "F"};
    for (size_t field = 2; field < 9; ++field) EXPECT_EQ(strings[field - 2], Text("ContentDurationItem", 0, field));
    EXPECT_EQ(INT32_MIN, (Field<int32_t>("ContentDurationItem", 0, 9)));
    EXPECT_EQ(INT32_MAX, (Field<int32_t>("ContentDurationItem", 0, 10)));
    EXPECT_EQ("d", Text("ContentDurationItem", 1, 2));
    EXPECT_EQ("f", Text("ContentDurationItem", 1, 8));
    EXPECT_EQ(9, (Field<int32_t>("ContentDurationItem", 1, 10)));
}

}  // namespace
