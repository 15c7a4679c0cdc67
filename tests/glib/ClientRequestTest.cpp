// Requests of the GObject API: a text subject's answer as a string variant,
// the five statistics subjects' records as arrays of tuples in the order of
// the C header's records (the unsigned wire values kept unsigned, 2^31 and
// more included), their errors, and cancellation.
#include <chrono>

#include "GlibFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kSource = "Ctx/Media/Source/Info/Current";

class GlibRequestTest : public WhitelistedGlibTest {
protected:
    void SetStatistics(const char* subject, const char* tuples) {
        ASSERT_TRUE(Control(lumora::sim::kCtlSetStatistics, g_variant_new("(ss)", subject, tuples)).Ok());
    }
    // The answer of a request of subject, printed with its type.
    std::string RequestPrinted(const char* subject) {
        AsyncOutcome outcome;
        lumora_client_request(m_client, subject, nullptr, nullptr, AsyncOutcome::OnRequest, &outcome);
        EXPECT_TRUE(IterateUntil([&] { return outcome.Done(); }));
        if (outcome.error != nullptr) return std::string("error: ") + outcome.error->message;
        EXPECT_FALSE(g_variant_is_floating(outcome.variant));
        return PrintVariant(outcome.variant, true);
    }
};

TEST_F(GlibRequestTest, ATextSubjectIsAnsweredWithAStringVariant) {
    Start();
    EXPECT_EQ(PrintVariant(g_variant_new_string(SimValue(kSource).c_str()), true), RequestPrinted(kSource));
    // Unlike a read, a request hands on what the service said.
    EXPECT_EQ("'{}'", RequestPrinted("Ctx/Nothing/Here"));
    auto calls = LibraryCalls("RequestAsync");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(5, calls[0].requestType);
}

TEST_F(GlibRequestTest, AppRecordsComeInTheHeadersFieldOrderWithTheUnsignedValuesAsSent) {
    Start();
    SetStatistics("I/TallyDB/App/Duration",
                  "[[1, 4294967295, \"A\", \"B\", \"C\", 7], [2147483648, 4, \"D\", \"E\", \"F\", -2]]");
    // field1 (1), field2 (2), field3 (element 4), field4 (3), field5 (6), field6 (5).
    EXPECT_EQ("[(uint32 1, uint32 4294967295, 'B', 'A', 7, 'C'), (2147483648, 4, 'E', 'D', -2, 'F')]",
              RequestPrinted("I/TallyDB/App/Duration"));
}

TEST_F(GlibRequestTest, OnoffRecordsAreTwoUnsignedValues) {
    Start();
    SetStatistics("I/TallyDB/Onoff/Duration", "[[1, 4294967295], [2147483648, 2147483647]]");
    EXPECT_EQ("[(uint32 1, uint32 4294967295), (2147483648, 2147483647)]", RequestPrinted("I/TallyDB/Onoff/Duration"));
}

TEST_F(GlibRequestTest, ChannelRecordsComeInTheHeadersFieldOrder) {
    Start();
    SetStatistics("I/TallyDB/Channel/Duration", "[[1, 2, 3, 4, \"A\", \"B\", \"C\"]]");
    // field1, field2, field3 (element 5), field4 (3), field5 (4), field6, field7.
    EXPECT_EQ("[(uint32 1, uint32 2, 'A', 3, 4, 'B', 'C')]", RequestPrinted("I/TallyDB/Channel/Duration"));
}

TEST_F(GlibRequestTest, GenreRecordsComeInTheHeadersFieldOrder) {
    Start();
    SetStatistics("I/TallyDB/Genre/Duration", "[[3000000000, 2, \"News\", \"Sport\"]]");
    EXPECT_EQ("[(uint32 3000000000, uint32 2, 'News', 'Sport')]", RequestPrinted("I/TallyDB/Genre/Duration"));
}

TEST_F(GlibRequestTest, ContentRecordsComeInTheHeadersFieldOrder) {
    Start();
    SetStatistics("I/TallyDB/Content/Duration",
                  "[[1, 2, \"A\", \"B\", \"C\", \"D\", \"E\", 8, 9, \"F\", \"G\"]]");
    // field3..field9 from elements 6, 5, 3, 4, 7, 11, 10; field10, field11 from 8, 9.
    EXPECT_EQ("[(uint32 1, uint32 2, 'D', 'C', 'A', 'B', 'E', 'G', 'F', 8, 9)]",
              RequestPrinted("I/TallyDB/Content/Duration"));
}

TEST_F(GlibRequestTest, NoRecordsAreAnEmptyArrayOfTheSubjectsType) {
    Start();
    SetStatistics("I/TallyDB/Genre/Duration", "[]");
    EXPECT_EQ("@a(uuss) []", RequestPrinted("I/TallyDB/Genre/Duration"));
}

TEST_F(GlibRequestTest, AStatisticsRequestThatTheServiceRefusesIsService) {
    Start();
    ASSERT_TRUE(SetResultCode("I/TallyDB/App/Duration", 5));
    EXPECT_EQ("error: the service answered the request of I/TallyDB/App/Duration with an error, or gave no answer "
              "within the bus time-out (no result code is known)",
              RequestPrinted("I/TallyDB/App/Duration"));
}

TEST_F(GlibRequestTest, ARequestCancelledInFlightIsCancelledOnceAndItsAnswerDropped) {
    Start();
    ASSERT_TRUE(SetDelay("I/TallyDB/Onoff/Duration", 800));
    GCancellable* cancellable = g_cancellable_new();
    AsyncOutcome outcome;
    lumora_client_request(m_client, "I/TallyDB/Onoff/Duration", nullptr, cancellable, AsyncOutcome::OnRequest,
                          &outcome);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }));
    g_cancellable_cancel(cancellable);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }, 500));
    EXPECT_TRUE(g_error_matches(outcome.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    EXPECT_EQ(nullptr, outcome.variant);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 0; }));
    IterateFor(500);
    EXPECT_EQ(1, outcome.calls);
    g_object_unref(cancellable);
}

// Many reads and requests at once, each cancelled at a different moment: each
// is completed exactly once (under AddressSanitizer, nothing of them is left).
TEST_F(GlibRequestTest, ManyCallsCancelledAtRandomMomentsAreEachCompletedExactlyOnce) {
    Start();
    ASSERT_TRUE(SetDelay(kSource, 50));
    constexpr int kCalls = 60;
    std::vector<AsyncOutcome> outcomes(kCalls);
    std::vector<GCancellable*> cancellables;
    for (int i = 0; i < kCalls; ++i) {
        cancellables.push_back(g_cancellable_new());
        if (i % 2 == 0)
            lumora_client_read(m_client, kSource, nullptr, cancellables[i], AsyncOutcome::OnRead, &outcomes[i]);
        else
            lumora_client_request(m_client, "I/TallyDB/Onoff/Duration", nullptr, cancellables[i],
                                  AsyncOutcome::OnRequest, &outcomes[i]);
        if (i % 3 == 0) g_cancellable_cancel(cancellables[i]);
        if (i % 5 == 0) IterateFor(5);
    }
    for (int i = 1; i < kCalls; i += 3) g_cancellable_cancel(cancellables[i]);
    ASSERT_TRUE(IterateUntil([&] {
        for (const AsyncOutcome& outcome : outcomes)
            if (!outcome.Done()) return false;
        return true;
    }, 10000));
    IterateFor(300);
    int cancelled = 0;
    for (int i = 0; i < kCalls; ++i) {
        EXPECT_EQ(1, outcomes[i].calls) << i;
        bool wasCancelled = g_error_matches(outcomes[i].error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
        if (wasCancelled) ++cancelled;
        if (!wasCancelled) {
            EXPECT_EQ(nullptr, outcomes[i].error) << i << ": " << outcomes[i].error->message;
        }
        if (i % 3 == 0) {
            EXPECT_TRUE(wasCancelled) << i;
        }
    }
    EXPECT_GE(cancelled, kCalls / 3);
    for (GCancellable* cancellable : cancellables) g_object_unref(cancellable);
}

}  // namespace
}  // namespace lumora::test
