// Reads and writes of the GObject API: the value, each LUMORA_CLIENT_ERROR
// code as the bus client's results and the service's own codes produce
// them, asynchronous reads with their cancellation, and text that is NULL or
// not UTF-8, refused with a GError and nothing sent.
#include <chrono>
#include <cstring>

#include "GlibFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kSource = "Ctx/Media/Source/Info/Current";
constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kInvalid = "Ctx/\xff\xfe/Current";

using Clock = std::chrono::steady_clock;

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class GlibReadTest : public GlibTest {
protected:
    // read_sync's outcome: the value, or null with m_error set.
    char* ReadSync(const char* subject, const char* input = nullptr, GCancellable* cancellable = nullptr) {
        g_clear_error(&m_error);
        return lumora_client_read_sync(m_client, subject, input, cancellable, &m_error);
    }
    void TearDown() override {
        g_clear_error(&m_error);
        GlibTest::TearDown();
    }
    GError* m_error = nullptr;
};

TEST_F(GlibReadTest, ReadSyncReturnsTheServicesCurrentValue) {
    Start();
    char* value = ReadSync(kSource, "{\"x\":1}");
    ASSERT_NE(nullptr, value) << m_error->message;
    EXPECT_EQ(SimValue(kSource), value);
    g_free(value);
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].requestType);
    EXPECT_EQ(kSource, calls[0].subject);
    EXPECT_EQ("{\"x\":1}", calls[0].input);
}

TEST_F(GlibReadTest, ReadSyncOfASubjectWithoutValueIsNoData) {
    Start();
    EXPECT_EQ(nullptr, ReadSync("Ctx/Nothing/Here"));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NO_DATA, ClientErrorCode(m_error));
    EXPECT_STREQ("the service has no value for Ctx/Nothing/Here", m_error->message);
    // Logged once, as a line of the function that failed.
    auto lines = m_log.Find("the service has no value for Ctx/Nothing/Here", 'E');
    ASSERT_EQ(1u, lines.size()) << m_log.Dump();
    EXPECT_EQ("ClientCalls.cpp", lines[0].file);
    EXPECT_EQ("lumora_client_read_sync", lines[0].function);
}

TEST_F(GlibReadTest, ReadSyncGivesTheServicesOwnResultCodeInTheMessage) {
    Start();
    for (int code : {3, -17, 70000}) {
        ASSERT_TRUE(SetResultCode(kVolume, code));
        EXPECT_EQ(nullptr, ReadSync(kVolume));
        EXPECT_EQ(LUMORA_CLIENT_ERROR_SERVICE, ClientErrorCode(m_error));
        std::string expected = "the service refused the read of Ctx/Sound/Volume/Level/Current (service result code " +
                               std::to_string(code) + ")";
        EXPECT_EQ(expected, m_error->message);
    }
}

TEST_F(GlibReadTest, ReadSyncWhileTheServiceIsAwayIsNotAvailable) {
    Start();
    EXPECT_EQ(0, m_sim.Stop());  // it says "BYE"
    ASSERT_TRUE(WaitForAvailable(false));
    EXPECT_EQ(nullptr, ReadSync(kSource));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_AVAILABLE, ClientErrorCode(m_error));
    EXPECT_STREQ(
        "the read of Ctx/Media/Source/Info/Current was not sent: the bus is not connected or the service is not "
        "available",
        m_error->message);
}

TEST_F(GlibReadTest, ReadSyncOfAServiceThatDoesNotAnswerIsCallFailedAfterOneSecond) {
    Start();
    ASSERT_TRUE(Control(lumora::sim::kCtlStopAnswering).Ok());
    auto start = Clock::now();
    EXPECT_EQ(nullptr, ReadSync(kSource));
    double ms = MsSince(start);
    EXPECT_EQ(LUMORA_CLIENT_ERROR_CALL_FAILED, ClientErrorCode(m_error));
    EXPECT_GE(ms, 900);
    EXPECT_LT(ms, 3000);
    ASSERT_TRUE(Control(lumora::sim::kCtlResumeAnswering).Ok());
}

TEST_F(GlibReadTest, AnInternalSubjectOfAProcessNotOnTheWhitelistIsNotAllowedAndNotSent) {
    Start();
    EXPECT_EQ(nullptr, ReadSync("I/Raw/Streaming/Event"));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_ALLOWED, ClientErrorCode(m_error));
    EXPECT_STREQ("I/Raw/Streaming/Event is an internal subject, and this process (myapp) is not on the service's "
                 "whitelist",
                 m_error->message);
    AsyncOutcome outcome;
    lumora_client_request(m_client, "I/TallyDB/App/Duration", nullptr, nullptr, AsyncOutcome::OnRequest, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_ALLOWED, ClientErrorCode(outcome.error));
    EXPECT_TRUE(LibraryCalls().empty());
}

// The C interface refuses a read or a subscription from inside one of its
// request callbacks (which runs with its client mutex held) the way it
// reports a failed call, and counts the refusal: the GObject API names it,
// and must not hang.
gboolean g_readInsideCallback = FALSE;
GError* g_insideError = nullptr;
GError* g_insideSubscribeError = nullptr;
char* g_insideValue = nullptr;
LumoraSubscription* g_insideSubscription = nullptr;

void ReadFromInsideARequestCallback(const char*, char*, void* client) {
    g_insideValue =
        lumora_client_read_sync(static_cast<LumoraClient*>(client), kSource, nullptr, nullptr, &g_insideError);
    g_insideSubscription = lumora_client_subscribe(static_cast<LumoraClient*>(client), kVolume,
                                                   LUMORA_SUBSCRIBE_FLAGS_NONE, &g_insideSubscribeError);
    g_readInsideCallback = TRUE;
}

TEST_F(GlibReadTest, AReadFromInsideARequestCallbackOfTheCInterfaceIsRefusedAsReentryAndDoesNotHang) {
    Start();
    ASSERT_TRUE(Lumora_InitService());  // the application's own start, beside the client's
    ASSERT_TRUE(Lumora_Request(kSource, nullptr, ReadFromInsideARequestCallback, m_client));
    ASSERT_TRUE(IterateUntil([] { return g_readInsideCallback; }));
    EXPECT_EQ(nullptr, g_insideValue);
    EXPECT_EQ(LUMORA_CLIENT_ERROR_REENTRY_REFUSED, ClientErrorCode(g_insideError));
    EXPECT_STREQ("the library refused the read of Ctx/Media/Source/Info/Current: it was called from inside a callback "
                 "that runs with a library lock held, where waiting would hang the thread",
                 g_insideError->message);
    EXPECT_EQ(nullptr, g_insideSubscription);
    EXPECT_EQ(LUMORA_CLIENT_ERROR_REENTRY_REFUSED, ClientErrorCode(g_insideSubscribeError));
    g_clear_error(&g_insideSubscribeError);
    // Outside the callback, a failed call is not taken for a refusal.
    ASSERT_TRUE(Control(lumora::sim::kCtlStopAnswering).Ok());
    EXPECT_EQ(nullptr, ReadSync(kSource));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_CALL_FAILED, ClientErrorCode(m_error));
    ASSERT_TRUE(Control(lumora::sim::kCtlResumeAnswering).Ok());
    EXPECT_TRUE(m_log.Has("refused: Read() was called from a callback that runs with the client mutex held, and "
                          "would deadlock",
                          'E'))
        << m_log.Dump();
    g_clear_error(&g_insideError);
    EXPECT_TRUE(Lumora_FiniService());
    // The client's own start still holds.
    char* value = ReadSync(kSource);
    EXPECT_NE(nullptr, value);
    g_free(value);
}

TEST_F(GlibReadTest, ReadSyncWithACancelledCancellableIsCancelledAndSendsNothing) {
    Start();
    GCancellable* cancellable = g_cancellable_new();
    g_cancellable_cancel(cancellable);
    EXPECT_EQ(nullptr, ReadSync(kSource, nullptr, cancellable));
    EXPECT_TRUE(g_error_matches(m_error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    EXPECT_TRUE(LibraryCalls().empty());
    g_object_unref(cancellable);
}

// ---- text that is NULL or not UTF-8 --------------------------------------------------

TEST_F(GlibReadTest, NullAndInvalidTextsAreInvalidArgumentsWithoutCriticalAndNothingIsSent) {
    Start();
    EXPECT_EQ(nullptr, ReadSync(nullptr));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(m_error));
    EXPECT_STREQ("subject is NULL", m_error->message);
    EXPECT_EQ(nullptr, ReadSync(kInvalid));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_UTF8, ClientErrorCode(m_error));
    EXPECT_STREQ("subject is not valid UTF-8", m_error->message);
    EXPECT_EQ(nullptr, ReadSync(kSource, "{\"a\":\"\xc3\x28\"}"));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_UTF8, ClientErrorCode(m_error));
    EXPECT_STREQ("input is not valid UTF-8", m_error->message);

    GError* error = nullptr;
    EXPECT_FALSE(lumora_client_write(m_client, kVolume, nullptr, &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(error));
    EXPECT_STREQ("data is NULL", error->message);
    g_clear_error(&error);
    EXPECT_FALSE(lumora_client_write(m_client, nullptr, "{}", &error));
    EXPECT_STREQ("subject is NULL", error->message);
    g_clear_error(&error);
    EXPECT_FALSE(lumora_client_write(m_client, kVolume, "\xff", &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_UTF8, ClientErrorCode(error));
    EXPECT_STREQ("data is not valid UTF-8", error->message);
    g_clear_error(&error);

    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, nullptr, LUMORA_SUBSCRIBE_FLAGS_NONE, &error));
    EXPECT_STREQ("subject is NULL", error->message);
    g_clear_error(&error);
    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, kInvalid, LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE, &error));
    EXPECT_STREQ("subject is not valid UTF-8", error->message);
    g_clear_error(&error);

    AsyncOutcome nullRead;
    AsyncOutcome invalidRequest;
    lumora_client_read(m_client, nullptr, nullptr, nullptr, AsyncOutcome::OnRead, &nullRead);
    lumora_client_request(m_client, kSource, "\xfe", nullptr, AsyncOutcome::OnRequest, &invalidRequest);
    // Never from within the call.
    EXPECT_EQ(0, nullRead.calls);
    EXPECT_EQ(0, invalidRequest.calls);
    ASSERT_TRUE(IterateUntil([&] { return nullRead.Done() && invalidRequest.Done(); }));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(nullRead.error));
    EXPECT_STREQ("subject is NULL", nullRead.error->message);
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_UTF8, ClientErrorCode(invalidRequest.error));
    EXPECT_STREQ("input is not valid UTF-8", invalidRequest.error->message);

    EXPECT_TRUE(LibraryCalls().empty());
}

// ---- asynchronous reads --------------------------------------------------------------

TEST_F(GlibReadTest, AnAsynchronousReadGivesTheValueOnceInTheCallersContext) {
    Start();
    AsyncOutcome outcome;
    lumora_client_read(m_client, kSource, nullptr, nullptr, AsyncOutcome::OnRead, &outcome);
    EXPECT_EQ(0, outcome.calls);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }));
    ASSERT_EQ(nullptr, outcome.error) << outcome.error->message;
    EXPECT_EQ(SimValue(kSource), outcome.text);
    EXPECT_EQ(std::this_thread::get_id(), outcome.thread);
    IterateFor(300);
    EXPECT_EQ(1, outcome.calls);
    auto calls = LibraryCalls("RequestAsync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(kSource, calls[0].subject);
}

TEST_F(GlibReadTest, AnAsynchronousReadOfNoValueIsNoDataAndTheServicesErrorIsService) {
    Start();
    AsyncOutcome none;
    lumora_client_read(m_client, "Ctx/Nothing/Here", nullptr, nullptr, AsyncOutcome::OnRead, &none);
    ASSERT_TRUE(SetResultCode(kVolume, 3));
    AsyncOutcome refused;
    lumora_client_read(m_client, kVolume, nullptr, nullptr, AsyncOutcome::OnRead, &refused);
    ASSERT_TRUE(IterateUntil([&] { return none.Done() && refused.Done(); }));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NO_DATA, ClientErrorCode(none.error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_SERVICE, ClientErrorCode(refused.error));
    EXPECT_STREQ("the service answered the read of Ctx/Sound/Volume/Level/Current with an error, or gave no answer "
                 "within the bus time-out (no result code is known)",
                 refused.error->message);
}

TEST_F(GlibReadTest, AnAsynchronousReadOfAStatisticsSubjectIsRefused) {
    Start();
    AsyncOutcome outcome;
    lumora_client_read(m_client, "I/TallyDB/Genre/Duration", nullptr, nullptr, AsyncOutcome::OnRead, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(outcome.error));
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(GlibReadTest, CancelledBeforeTheCallAReadIsCancelledOnceAndSendsNothing) {
    Start();
    GCancellable* cancellable = g_cancellable_new();
    g_cancellable_cancel(cancellable);
    AsyncOutcome outcome;
    lumora_client_read(m_client, kSource, nullptr, cancellable, AsyncOutcome::OnRead, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }));
    EXPECT_TRUE(g_error_matches(outcome.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    IterateFor(300);
    EXPECT_EQ(1, outcome.calls);
    EXPECT_TRUE(LibraryCalls().empty());
    g_object_unref(cancellable);
}

TEST_F(GlibReadTest, CancelledInFlightAReadIsCancelledAtOnceAndOnceAndTheLateAnswerIsDropped) {
    Start();
    ASSERT_TRUE(SetDelay(kSource, 1000));
    GCancellable* cancellable = g_cancellable_new();
    AsyncOutcome outcome;
    lumora_client_read(m_client, kSource, nullptr, cancellable, AsyncOutcome::OnRead, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }));
    auto cancelled = Clock::now();
    g_cancellable_cancel(cancellable);
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }));
    EXPECT_LT(MsSince(cancelled), 500);
    EXPECT_TRUE(g_error_matches(outcome.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    EXPECT_EQ(nullptr, outcome.text);
    // The answer comes, and reaches nothing.
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 0; }));
    IterateFor(500);
    EXPECT_EQ(1, outcome.calls);
    EXPECT_EQ(1u, OwnCount("the read of Ctx/Media/Source/Info/Current was cancelled")) << m_log.Dump();
    // The cancellable's handler is gone with the call.
    g_cancellable_reset(cancellable);
    g_cancellable_cancel(cancellable);
    IterateFor(100);
    EXPECT_EQ(1, outcome.calls);
    g_object_unref(cancellable);
}

// A service that stops in order fails the answers it has begun: the read
// hears the service's error, once.
TEST_F(GlibReadTest, AReadWhoseAnswerTheStoppingServiceFailsIsServiceOnce) {
    Start();
    ASSERT_TRUE(SetDelay(kSource, 3000));
    AsyncOutcome outcome;
    lumora_client_read(m_client, kSource, nullptr, nullptr, AsyncOutcome::OnRead, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }));
    std::thread stopping([&] { m_sim.Stop(); });
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }, 8000)) << m_log.Dump();
    stopping.join();
    EXPECT_EQ(LUMORA_CLIENT_ERROR_SERVICE, ClientErrorCode(outcome.error));
    IterateFor(500);
    EXPECT_EQ(1, outcome.calls);
}

// A call the service holds unanswered when it says "BYE": the bus's error
// for it comes after, and the C library drops an answer that comes while
// the service is away, so the read fails when the service leaves.
TEST_F(GlibReadTest, AReadInFlightWhenTheServiceLeavesIsNotAvailableOnce) {
    Start();
    ASSERT_TRUE(Control(lumora::sim::kCtlStopAnswering).Ok());
    AsyncOutcome outcome;
    lumora_client_read(m_client, kSource, nullptr, nullptr, AsyncOutcome::OnRead, &outcome);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["heldCalls"].asUInt() == 1; }));
    std::thread stopping([&] { m_sim.Stop(); });
    ASSERT_TRUE(IterateUntil([&] { return outcome.Done(); }, 8000)) << m_log.Dump();
    stopping.join();
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_AVAILABLE, ClientErrorCode(outcome.error));
    EXPECT_STREQ("the service went away (bye) before it answered the read of Ctx/Media/Source/Info/Current",
                 outcome.error->message);
    IterateFor(500);
    EXPECT_EQ(1, outcome.calls);
}

// ---- writes ----------------------------------------------------------------------------

TEST_F(GlibReadTest, AWriteIsQueuedOnTheBusAndAnyProcessMayWriteAnInternalSubject) {
    Start();
    GError* error = nullptr;
    EXPECT_TRUE(lumora_client_write(m_client, kVolume, "{\"Level\":4}", &error));
    EXPECT_TRUE(lumora_client_write(m_client, "I/Raw/Streaming/Event", "{\"e\":1}", &error));
    EXPECT_EQ(nullptr, error);
    ASSERT_TRUE(m_monitor->WaitForCalls(2, 5000, "Write"));
    auto writes = LibraryCalls("Write");
    ASSERT_EQ(2u, writes.size());
    EXPECT_EQ(kVolume, writes[0].subject);
    EXPECT_EQ("{\"Level\":4}", writes[0].input);
    EXPECT_EQ(2, writes[0].requestType);
    EXPECT_EQ("I/Raw/Streaming/Event", writes[1].subject);
}

TEST_F(GlibReadTest, AWriteWhileTheServiceIsAwayIsNotAvailable) {
    Start();
    EXPECT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(WaitForAvailable(false));
    GError* error = nullptr;
    EXPECT_FALSE(lumora_client_write(m_client, kVolume, "{}", &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_AVAILABLE, ClientErrorCode(error));
    g_clear_error(&error);
}

}  // namespace
}  // namespace lumora::test
