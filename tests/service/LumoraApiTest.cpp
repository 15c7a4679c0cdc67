// The object interface against lumora-sim: one shared bus client, one bus
// subscription per subject fanned out to every callback in subscription
// order with its own user data, the unsubscribe that leaves the last bus
// subscription in place, and the refusals with their lines.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kSource = "Ctx/Media/Source/Changed";
constexpr const char* kApp = "Ctx/App/Info/Changed";
constexpr const char* kNotConnected = "dbus not created!, Call InitializeService";
constexpr const char* kUnit = "LumoraAPI.cpp";

std::string Pointer(const void* pointer) {
    char text[32];
    snprintf(text, sizeof text, "%p", pointer);
    return text;
}

template <typename Callback>
std::string CallbackPointer(Callback callback) {
    return Pointer(reinterpret_cast<const void*>(callback));
}

/// "Subscribe [subject][callback][userData]"
std::string SubscribeLine(const std::string& subject, LumoraSubjectCb callback, const void* userData) {
    return "Subscribe [" + subject + "][" + CallbackPointer(callback) + "][" + Pointer(userData) + "]";
}

class LumoraApiTest : public EventTest {
protected:
    void SetUp() override {
        EventTest::SetUp();
        // As in a process that never started the service API, which names
        // the process; an earlier test of this process may have.
        DBusClient::GetInstance()->SetProcessName("");
    }

    void TearDown() override {
        // The table and the client outlive a test in this process: the next
        // test starts without either.
        std::vector<std::tuple<std::string, LumoraSubjectCb, void*>> left = m_subscribed;
        if (LumoraAPI::m_pDbusClient != nullptr) {
            for (const auto& [subject, callback, userData] : left) UnSubscribe(subject, callback, userData);
            LumoraAPI::m_pDbusClient->Finalize();
        }
        LumoraAPI::m_pDbusClient = nullptr;
        LumoraAPI::DeleteInstance();
        EventTest::TearDown();
    }

    static LumoraAPI* Api() { return LumoraAPI::GetInstance(); }

    /// Starts the object interface; the log and the monitor then begin afresh.
    void Start() {
        ASSERT_TRUE(Api()->InitializeService());
        ASSERT_TRUE(Api()->IsAvailable());
        m_log.Mark();
        m_monitor->Clear();
    }

    // The table is not locked: subscribing and unsubscribing happen on the
    // main-loop thread, where notifications are delivered.
    bool Subscribe(const std::string& subject, LumoraSubjectCb callback, void* userData) {
        bool result = false;
        m_loop.Invoke([&] { result = Api()->Subscribe(subject, callback, userData); });
        m_subscribed.emplace_back(subject, callback, userData);
        return result;
    }
    bool UnSubscribe(const std::string& subject, LumoraSubjectCb callback, void* userData) {
        bool result = false;
        m_loop.Invoke([&] { result = Api()->UnSubscribe(subject, callback, userData); });
        for (auto it = m_subscribed.begin(); it != m_subscribed.end();) {
            it = *it == std::make_tuple(subject, callback, userData) ? m_subscribed.erase(it) : it + 1;
        }
        return result;
    }

    /// The bus client's records of subject.
    std::vector<DBusClientSubscribe> BusClientRecords(const char* subject) {
        std::vector<DBusClientSubscribe*> found;
        LumoraAPI::m_pDbusClient->FindSubscribesVector(subject, found);
        std::vector<DBusClientSubscribe> copies;
        for (const DBusClientSubscribe* record : found) copies.push_back(*record);
        return copies;
    }

    /// Emits subject, then a marker subject that callback 99 hears, and waits
    /// for the marker: whatever subject brought has been delivered by then.
    void EmitAndSettle(const std::string& subject, const std::string& data) {
        if (!m_markerSubscribed) {
            ASSERT_TRUE(Subscribe("Ctx/Test/Marker", Recorded<99>, nullptr));
            m_markerSubscribed = true;
        }
        size_t markers = DeliveriesTo(99).size();
        ASSERT_TRUE(Emit(subject, data));
        ASSERT_TRUE(Emit("Ctx/Test/Marker", "{}"));
        ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(99).size() > markers; }, 5000)) << m_log.Dump();
    }

    std::vector<Delivery> DeliveriesTo(int callback) {
        std::vector<Delivery> found;
        for (const Delivery& delivery : Recorder().All())
            if (delivery.callback == callback) found.push_back(delivery);
        return found;
    }

    /// Which callbacks were called, in order, marker deliveries left out.
    std::vector<int> Callers() {
        std::vector<int> callers;
        for (const Delivery& delivery : Deliveries()) callers.push_back(delivery.callback);
        return callers;
    }

    /// The application deliveries in order, marker deliveries left out.
    std::vector<Delivery> Deliveries() {
        std::vector<Delivery> found;
        for (const Delivery& delivery : Recorder().All())
            if (delivery.callback != 99) found.push_back(delivery);
        return found;
    }

    std::vector<std::tuple<std::string, LumoraSubjectCb, void*>> m_subscribed;
    bool m_markerSubscribed = false;
    int m_first = 1;
    int m_second = 2;
};

// ---- instance ---------------------------------------------------------------------

TEST_F(LumoraApiTest, GetInstanceGivesOneObjectUntilItIsDeleted) {
    LumoraAPI* instance = LumoraAPI::GetInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, LumoraAPI::GetInstance());
    EXPECT_EQ(instance, LumoraAPI::m_pInstance);
    ILumoraAPI* interface = instance;
    EXPECT_FALSE(interface->IsAvailable());  // through the interface's virtual slot

    LumoraAPI::DeleteInstance();
    EXPECT_EQ(nullptr, LumoraAPI::m_pInstance);
    LumoraAPI::DeleteInstance();  // nothing left to delete
    EXPECT_EQ(nullptr, LumoraAPI::m_pInstance);
    EXPECT_NE(nullptr, LumoraAPI::GetInstance());
}

TEST_F(LumoraApiTest, EveryOperationBeforeInitializeServiceFailsWithItsLineAndSendsNothing) {
    std::string output = "unchanged";
    EXPECT_FALSE(Api()->Read("Ctx/Media/Source/Info/Current", "", output));
    EXPECT_EQ("unchanged", output);
    EXPECT_FALSE(Api()->Write("Ctx/Test/Written", "{}"));
    EXPECT_FALSE(Api()->IsAvailable());
    EXPECT_FALSE(Subscribe(kSource, Recorded<1>, nullptr));
    EXPECT_FALSE(UnSubscribe(kSource, Recorded<1>, nullptr));
    EXPECT_FALSE(Api()->FinalizeService());

    for (const char* function : {"Read", "Write", "IsAvailable", "Subscribe", "UnSubscribe"})
        EXPECT_TRUE(m_log.From(kNotConnected, kUnit, function)) << function << "\n" << m_log.Dump();
    EXPECT_EQ(5u, m_log.Count(kNotConnected, 'E'));
    EXPECT_TRUE(m_log.From("already destroyed dbus", kUnit, "FinalizeService")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("already destroyed dbus", 'E'));
    // Refused before the subscription's trace line.
    EXPECT_FALSE(m_log.Has(SubscribeLine(kSource, Recorded<1>, nullptr)));
    EXPECT_TRUE(LibraryCalls().empty());
    EXPECT_EQ(nullptr, LumoraAPI::m_pDbusClient);
}

// ---- start and stop ---------------------------------------------------------------

TEST_F(LumoraApiTest, InitializeServiceStartsTheClientThatTheServiceApiShares) {
    ASSERT_TRUE(Api()->InitializeService());
    EXPECT_EQ(DBusClient::GetInstance(), LumoraAPI::m_pDbusClient);
    EXPECT_TRUE(Api()->IsAvailable());
    EXPECT_EQ(1u, LibraryCalls("ServiceEnable").size());
    // No process name is set and no feature switch read: the service API's
    // start does both.
    EXPECT_FALSE(m_log.Has("Lumora Service is not enabled"));

    ASSERT_TRUE(Lumora_InitService());
    EXPECT_EQ(LumoraAPI::m_pDbusClient, LMFServiceAPI::m_pDbusClient);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    // Finalising here finalises the service API's client too.
    EXPECT_TRUE(Api()->FinalizeService());
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    EXPECT_FALSE(Api()->IsAvailable());
}

TEST_F(LumoraApiTest, SecondInitializeServiceOnlySaysTheClientExists) {
    Start();
    EXPECT_TRUE(Api()->InitializeService());
    EXPECT_TRUE(m_log.From("already created dbus", kUnit, "InitializeService")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("already created dbus", 'I'));
    EXPECT_TRUE(LibraryCalls("ServiceEnable").empty());
    EXPECT_TRUE(Api()->IsAvailable());
}

TEST_F(LumoraApiTest, InitializeServiceAfterFinalizeServiceReturnsTrueWithoutStartingTheClientAgain) {
    Start();
    ASSERT_TRUE(Api()->FinalizeService());
    EXPECT_FALSE(Api()->IsAvailable());
    m_monitor->Clear();
    m_log.Mark();

    EXPECT_TRUE(Api()->InitializeService());
    EXPECT_TRUE(m_log.From("already created dbus", kUnit, "InitializeService")) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls("ServiceEnable").empty());
    // The client stays finalised: the service is not available to either
    // interface until the service API starts it.
    EXPECT_FALSE(Api()->IsAvailable());
    std::string output = "unchanged";
    EXPECT_FALSE(Api()->Read("Ctx/Media/Source/Info/Current", "", output));
    EXPECT_EQ("unchanged", output);
    EXPECT_TRUE(m_log.From("error -5", kUnit, "Read")) << m_log.Dump();
    EXPECT_FALSE(Api()->Write("Ctx/Test/Written", "{}"));
    EXPECT_TRUE(m_log.From("error -5", kUnit, "Write")) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls().empty());
    // A second finalisation is the client's business, and it agrees.
    EXPECT_TRUE(Api()->FinalizeService());
}

// ---- read and write ---------------------------------------------------------------

TEST_F(LumoraApiTest, ReadGivesTheServiceValue) {
    Start();
    std::string output = "replaced";
    ASSERT_TRUE(Api()->Read("Ctx/Media/Source/Info/Current", "", output)) << m_log.Dump();
    EXPECT_EQ(SimValue("Ctx/Media/Source/Info/Current"), output);
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].requestType);
    EXPECT_EQ("Ctx/Media/Source/Info/Current", calls[0].subject);
    EXPECT_EQ("", calls[0].input);
    EXPECT_EQ(getpid(), calls[0].pid);
}

TEST_F(LumoraApiTest, ReadOfAnInternalSubjectIsNotCheckedAgainstTheWhiteList) {
    Start();
    // This process ("myapp") is not on the simulator's whitelist; the
    // service API would refuse the read without sending it.
    ASSERT_TRUE(SetSimValue("I/Test/Internal", "{\"secret\":1}"));
    std::string output;
    ASSERT_TRUE(Api()->Read("I/Test/Internal", "{}", output)) << m_log.Dump();
    EXPECT_EQ("{\"secret\":1}", output);
    EXPECT_FALSE(m_log.Has("This subject is not for external apps .. "));
    auto calls = LibraryCalls("RequestSync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("I/Test/Internal", calls[0].subject);
    EXPECT_EQ("{}", calls[0].input);
}

TEST_F(LumoraApiTest, ReadWithoutAValueFailsWithTheClientCodeAndLeavesTheOutput) {
    Start();
    std::string output = "unchanged";
    EXPECT_FALSE(Api()->Read("Ctx/Test/Nothing", "", output));
    EXPECT_EQ("unchanged", output);
    EXPECT_TRUE(m_log.From("error -4", kUnit, "Read")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("error -4", 'E'));
    EXPECT_EQ(1u, LibraryCalls("RequestSync").size());
}

TEST_F(LumoraApiTest, ReadThatTheServiceAnswersWithItsOwnCodeFails) {
    Start();
    ASSERT_TRUE(SetSimValue("Ctx/Test/Refused", "{\"Reason\":\"busy\"}"));
    ASSERT_TRUE(Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/Test/Refused", -7)).Ok());
    std::string output = "unchanged";
    EXPECT_FALSE(Api()->Read("Ctx/Test/Refused", "", output));
    EXPECT_EQ("unchanged", output);
    EXPECT_TRUE(m_log.From("error -7", kUnit, "Read")) << m_log.Dump();
}

TEST_F(LumoraApiTest, WriteIsQueuedAndTheServiceStoresIt) {
    Start();
    EXPECT_TRUE(Api()->Write("Ctx/Test/Written", "{\"v\":1}"));
    auto writes = LibraryWrites(1);
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ(2, writes[0].requestType);
    EXPECT_EQ("Ctx/Test/Written", writes[0].subject);
    EXPECT_EQ("{\"v\":1}", writes[0].input);
    EXPECT_TRUE(WaitUntil([&] { return SimValue("Ctx/Test/Written") == "{\"v\":1}"; }, 5000));
}

TEST_F(LumoraApiTest, TextsThatAreNotUtf8AreRefusedWithoutBusTraffic) {
    Start();
    const std::string bad = "Ctx/\xff/Bad";
    std::string output = "unchanged";
    m_log.Mark();
    EXPECT_FALSE(Api()->Read(bad, "", output));
    EXPECT_TRUE(m_log.From("subject is not valid UTF-8", kUnit, "Read")) << m_log.Dump();
    EXPECT_FALSE(Api()->Write("Ctx/Test/Written", "{\"v\":\"\xc3\"}"));
    EXPECT_TRUE(m_log.From("input is not valid UTF-8", kUnit, "Write")) << m_log.Dump();
    // One line each, the bus client never asked.
    size_t libraryLines = 0;
    for (const LogRecord& record : m_log.Records()) libraryLines += record.tag == "LMF_API";
    EXPECT_EQ(2u, libraryLines) << m_log.Dump();
    EXPECT_FALSE(Subscribe(bad, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From("subject is not valid UTF-8", kUnit, "Subscribe")) << m_log.Dump();
    // Not in the table: the same subject with another callback is refused
    // again rather than counted as a second callback.
    EXPECT_FALSE(Subscribe(bad, Recorded<2>, nullptr));
    EXPECT_EQ(3u, m_log.Count("subject is not valid UTF-8", 'E'));  // the read's and both subscriptions'
    size_t subscribeLines = 0;  // the refusals alone, not the usual "Subscribe [...]" line
    for (const LogRecord& record : m_log.Records()) subscribeLines += record.function == "Subscribe";
    EXPECT_EQ(2u, subscribeLines) << m_log.Dump();
    EXPECT_TRUE(LibraryCalls().empty());
}

// ---- subscriptions ----------------------------------------------------------------

TEST_F(LumoraApiTest, TwoCallbacksOnOneSubjectShareOneBusSubscriptionAndHearEachSignalInOrder) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    EXPECT_TRUE(m_log.From(SubscribeLine(kSource, Recorded<1>, &m_first), kUnit, "Subscribe")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(SubscribeLine(kSource, Recorded<1>, &m_first), 'E'));
    ASSERT_TRUE(Subscribe(kSource, Recorded<2>, &m_second));
    EXPECT_TRUE(m_log.From("Already registered subject, but it has different callback", kUnit, "Subscribe"))
        << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("Already registered subject, but it has different callback", 'I'));

    // One subscription on the bus and in the service, held by the bus client
    // for the dispatcher with the first subscriber's user data.
    EXPECT_EQ((std::vector<std::string>{std::string("3 ") + kSource}), SubscriptionTraffic());
    EXPECT_EQ(1u, SimSubscribers(kSource).size());
    auto records = BusClientRecords(kSource);
    ASSERT_EQ(1u, records.size());
    EXPECT_NE(&Recorded<1>, records[0].callback);
    EXPECT_NE(&Recorded<2>, records[0].callback);
    EXPECT_EQ(&m_first, records[0].userData);

    std::thread::id loopThread;
    m_loop.Invoke([&] { loopThread = std::this_thread::get_id(); });
    EmitAndSettle(kSource, "{\"n\":0}");
    EmitAndSettle(kSource, "{\"n\":1}");
    auto all = Deliveries();
    ASSERT_EQ(4u, all.size());
    const int order[] = {1, 2, 1, 2};
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(order[i], all[i].callback) << i;
        EXPECT_EQ(kSource, all[i].subject);
        EXPECT_EQ(std::string("{\"n\":") + (i < 2 ? "0" : "1") + "}", all[i].data);
        EXPECT_EQ(all[i].callback == 1 ? static_cast<void*>(&m_first) : &m_second, all[i].userData);
        EXPECT_EQ(loopThread, all[i].thread);
    }
}

TEST_F(LumoraApiTest, TheSameTripleTwiceIsRefusedButAnotherUserDataIsAnotherSubscriber) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    EXPECT_FALSE(Subscribe(kSource, Recorded<1>, &m_first));
    std::string line = "already subscribed subject[" + std::string(kSource) + "]cb[" + CallbackPointer(Recorded<1>) +
                       "]UserData[" + Pointer(&m_first) + "], ";
    EXPECT_TRUE(m_log.From(line, kUnit, "Subscribe")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(line, 'E'));

    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_second));
    EXPECT_EQ(1u, SubscriptionTraffic().size());
    EmitAndSettle(kSource, "{}");
    auto all = Deliveries();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(&m_first, all[0].userData);
    EXPECT_EQ(&m_second, all[1].userData);
}

TEST_F(LumoraApiTest, SubjectsAreMatchedExactly) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, nullptr));
    ASSERT_TRUE(Subscribe(kApp, Recorded<2>, nullptr));
    EXPECT_EQ(2u, SubscriptionTraffic().size());
    EmitAndSettle(kApp, "{\"AppId\":\"a\"}");
    auto all = Deliveries();
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(2, all[0].callback);
    EXPECT_EQ(kApp, all[0].subject);
}

TEST_F(LumoraApiTest, UnsubscribingOneOfTwoCallbacksKeepsTheBusSubscription) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    ASSERT_TRUE(Subscribe(kSource, Recorded<2>, &m_second));
    m_monitor->Clear();
    EXPECT_TRUE(UnSubscribe(kSource, Recorded<1>, &m_first));
    EXPECT_TRUE(m_log.From("Success unsubscribe, but there are another callbacks", kUnit, "UnSubscribe"))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Success unsubscribe, but there are another callbacks", 'I'));
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EXPECT_EQ(1u, SimSubscribers(kSource).size());

    EmitAndSettle(kSource, "{}");
    EXPECT_EQ(std::vector<int>{2}, Callers());
}

TEST_F(LumoraApiTest, UnsubscribingTheLastCallbackReturnsFalseAndTheSubscriptionStays) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    ASSERT_TRUE(Subscribe(kSource, Recorded<2>, &m_second));
    ASSERT_TRUE(UnSubscribe(kSource, Recorded<1>, &m_first));
    m_monitor->Clear();
    m_log.Mark();

    // The bus client was subscribed with the dispatcher, not with this
    // callback: it finds nothing to remove.
    EXPECT_FALSE(UnSubscribe(kSource, Recorded<2>, &m_second));
    EXPECT_TRUE(m_log.Has(std::string("Fail to delete subscribe(") + kSource + "), not found", 'I')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("Success unsubscribe, but there are another callbacks"));
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EXPECT_EQ(1u, SimSubscribers(kSource).size());
    EXPECT_EQ(1u, BusClientRecords(kSource).size());

    // Signals still reach the dispatcher, which has nobody to call.
    EmitAndSettle(kSource, "{}");
    EXPECT_TRUE(Deliveries().empty());
}

TEST_F(LumoraApiTest, SubscribingASubjectAgainAfterItsLastCallbackLeftIsRefusedByTheBusClientYetDelivered) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, nullptr));
    EXPECT_FALSE(UnSubscribe(kSource, Recorded<1>, nullptr));
    m_monitor->Clear();
    // The first callback of the subject again: the bus client still holds
    // the dispatcher for it and refuses the pair, so the result is false;
    // the triple is in the table all the same and hears the subject.
    EXPECT_FALSE(Subscribe(kSource, Recorded<2>, nullptr));
    EXPECT_TRUE(m_log.Has(std::string("Error! ") + kSource + " is already registered", 'E')) << m_log.Dump();
    EXPECT_TRUE(SubscriptionTraffic().empty());
    EmitAndSettle(kSource, "{}");
    EXPECT_EQ(std::vector<int>{2}, Callers());
}

TEST_F(LumoraApiTest, UnsubscribingWhileTheClientIsFinalisedDropsTheCallback) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, nullptr));
    ASSERT_TRUE(Api()->FinalizeService());
    m_log.Mark();
    // The bus client counts an unsubscription without a bus as done.
    EXPECT_TRUE(UnSubscribe(kSource, Recorded<1>, nullptr));
    // The object interface sets no process name of its own.
    EXPECT_EQ(1u, m_log.Count("[] Dbus is not connected", 'E')) << m_log.Dump();
    // Gone from the table: subscribing it again is not a duplicate.
    EXPECT_TRUE(Subscribe(kSource, Recorded<1>, nullptr));
    EXPECT_FALSE(m_log.Has("already subscribed subject[" + std::string(kSource) + "]cb[" +
                           CallbackPointer(Recorded<1>) + "]UserData[(nil)], "));
}

TEST_F(LumoraApiTest, ANullCallbackIsSkippedWithALineAndTheOthersStillHear) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, nullptr, nullptr));
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    EmitAndSettle(kSource, "{}");
    auto all = Deliveries();
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(1, all[0].callback);
    EXPECT_TRUE(
        m_log.From(std::string("null callback for subject ") + kSource + " skipped", kUnit, "SubscribeDispatcher"))
        << m_log.Dump();
}

TEST_F(LumoraApiTest, DeletingTheInstanceKeepsTheClientAndTheCallbacks) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    LumoraAPI::DeleteInstance();
    EmitAndSettle(kSource, "{}");
    EXPECT_EQ(1u, Deliveries().size());
    // A new instance finds the client already made.
    EXPECT_TRUE(Api()->InitializeService());
    EXPECT_TRUE(m_log.Has("already created dbus", 'I'));
    EXPECT_TRUE(Api()->IsAvailable());
}

// ---- callbacks that use the library -----------------------------------------------

// What ReadingCallback read last; it reads again on every notification.
std::mutex g_readMutex;
std::string g_readInCallback;
bool g_readResult = false;

void ReadingCallback(const char* subject, char* data, void* userData) {
    std::string value;
    bool result = LumoraAPI::GetInstance()->Read("Ctx/Media/Source/Info/Current", "", value);
    {
        std::lock_guard<std::mutex> lock(g_readMutex);
        g_readResult = result;
        g_readInCallback = value;
    }
    Recorded<1>(subject, data, userData);
}

void UnsubscribingCallback(const char* subject, char* data, void* userData) {
    Recorded<2>(subject, data, userData);
    LumoraAPI::GetInstance()->UnSubscribe(subject, UnsubscribingCallback, userData);
}

void SubscribingCallback(const char* subject, char* data, void* userData) {
    Recorded<3>(subject, data, userData);
    LumoraAPI::GetInstance()->Subscribe(subject, Recorded<4>, userData);
}

TEST_F(LumoraApiTest, ASubscriptionCallbackRunsWithoutALockAndMayReadSubscribeAndUnsubscribe) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, ReadingCallback, nullptr));
    ASSERT_TRUE(Subscribe(kSource, UnsubscribingCallback, nullptr));
    ASSERT_TRUE(Subscribe(kSource, SubscribingCallback, nullptr));
    m_subscribed.emplace_back(kSource, Recorded<4>, nullptr);
    ASSERT_TRUE(Subscribe(kSource, Recorded<5>, nullptr));

    EmitAndSettle(kSource, "{\"n\":0}");
    {
        std::lock_guard<std::mutex> lock(g_readMutex);
        EXPECT_TRUE(g_readResult) << m_log.Dump();
        EXPECT_EQ(SimValue("Ctx/Media/Source/Info/Current"), g_readInCallback);
    }
    // The callback that left the table and the one that joined it do not
    // disturb the others: 1, 2 (then gone), 3 (adds 4), 5.
    EXPECT_EQ((std::vector<int>{1, 2, 3, 5}), Callers());

    Recorder().Clear();
    EmitAndSettle(kSource, "{\"n\":1}");
    // 4 now hears it, after 5; 3 tries to add 4 again and is refused.
    EXPECT_EQ((std::vector<int>{1, 3, 5, 4}), Callers());
    EXPECT_TRUE(m_log.Has("already subscribed subject[" + std::string(kSource) + "]cb[" + CallbackPointer(Recorded<4>) +
                          "]UserData[(nil)], "));
}

bool g_refusedRead = true;
bool g_refusedSubscribe = true;

void RequestCallbackUsingTheObjectInterface(const char* subject, char* data, void* userData) {
    std::string output;
    g_refusedRead = !LumoraAPI::GetInstance()->Read("Ctx/Media/Source/Info/Current", "", output);
    g_refusedSubscribe = !LumoraAPI::GetInstance()->Subscribe(kApp, Recorded<2>, nullptr);
    Recorded<1>(subject, data, userData);
}

TEST_F(LumoraApiTest, ARequestCallbackThatReadsOrSubscribesIsRefusedInsteadOfHanging) {
    Start();
    g_refusedRead = false;
    g_refusedSubscribe = false;
    // A request's callback runs with the client mutex held.
    ASSERT_EQ(0, LumoraAPI::m_pDbusClient->Request("Ctx/App/Info/Current", "", RequestCallbackUsingTheObjectInterface,
                                                   nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    EXPECT_TRUE(g_refusedRead);
    EXPECT_TRUE(g_refusedSubscribe);
    const char* held = "was called from a callback that runs with the client mutex held, and would deadlock";
    EXPECT_TRUE(m_log.From(std::string("refused: Read() ") + held, kUnit, "Read")) << m_log.Dump();
    EXPECT_TRUE(m_log.From(std::string("refused: Subscribe() ") + held, kUnit, "Subscribe")) << m_log.Dump();
    // One line each: the bus client was not asked.
    EXPECT_FALSE(m_log.Has("error -6"));
    EXPECT_EQ(1u, LibraryCalls("RequestAsync").size());
    EXPECT_TRUE(LibraryCalls("RequestSync").empty());
    // Refused before it entered the table.
    EXPECT_TRUE(Subscribe(kApp, Recorded<2>, nullptr));
}

// ---- service restarts -------------------------------------------------------------

class LumoraApiRestartTest : public LumoraApiTest, public testing::WithParamInterface<int> {};

TEST_P(LumoraApiRestartTest, CallbacksHearTheNewServiceOncePerSignal) {
    Start();
    ASSERT_TRUE(Subscribe(kSource, Recorded<1>, &m_first));
    ASSERT_TRUE(Subscribe(kSource, Recorded<2>, &m_second));
    ASSERT_TRUE(Subscribe("Ctx/Test/Marker", Recorded<99>, nullptr));
    m_markerSubscribed = true;

    pid_t before = m_sim.Pid();
    m_log.Mark();
    ASSERT_EQ(0, kill(before, GetParam()));
    m_sim.WaitForExit(5000);
    m_monitor->Clear();
    ASSERT_TRUE(m_sim.Start());
    EXPECT_NE(before, m_sim.Pid());
    // After "HELLO" the bus client registers its two subjects again.
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() >= 2; }, 5000)) << m_log.Dump();
    EXPECT_EQ(1u, SimSubscribers(kSource).size());
    ASSERT_TRUE(WaitUntil([&] { return Api()->IsAvailable(); }, 5000));
    auto said = [&](const std::string& word) {
        for (const LogRecord& record : m_log.Records())
            if (record.text.rfind("[] " + word + ", ", 0) == 0) return true;
        return false;
    };
    EXPECT_TRUE(said("HELLO")) << m_log.Dump();
    // Only a terminated service has the time to say it is leaving.
    EXPECT_EQ(GetParam() == SIGTERM, said("BYE")) << m_log.Dump();

    EmitAndSettle(kSource, "{\"n\":1}");
    auto all = Deliveries();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(1, all[0].callback);
    EXPECT_EQ(&m_first, all[0].userData);
    EXPECT_EQ(2, all[1].callback);
    EXPECT_EQ(&m_second, all[1].userData);
}

INSTANTIATE_TEST_SUITE_P(Signals, LumoraApiRestartTest, testing::Values(SIGKILL, SIGTERM),
                         [](const testing::TestParamInfo<int>& test) {
                             return std::string(test.param == SIGKILL ? "Sigkill" : "Sigterm");
                         });

// ---- availability and the current value ---------------------------------------------

TEST_F(LumoraApiTest, SubscribeWithValueGivesTheCurrentValueThenTheChangesToEachUserData) {
    Start();
    const std::string subject = "Ctx/Sound/Volume/Level/Current";
    bool subscribed = false;
    m_loop.Invoke([&] { subscribed = Api()->SubscribeWithValue(subject, Recorded<1>, &m_first); });
    ASSERT_TRUE(subscribed);
    m_subscribed.emplace_back(subject, Recorded<1>, &m_first);
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 1; }, 5000)) << m_log.Dump();
    EXPECT_EQ(SimValue(subject), DeliveriesTo(1)[0].data);
    EXPECT_EQ(&m_first, DeliveriesTo(1)[0].userData);
    EmitAndSettle(subject, "{\"Level\":4}");
    ASSERT_EQ(2u, DeliveriesTo(1).size());
    EXPECT_EQ("{\"Level\":4}", DeliveriesTo(1)[1].data);
    // The same triple again is refused as Subscribe refuses it.
    m_loop.Invoke([&] { subscribed = Api()->SubscribeWithValue(subject, Recorded<1>, &m_first); });
    EXPECT_FALSE(subscribed);
}

TEST_F(LumoraApiTest, AvailabilityCallbacksHearTheServiceLeaveAndReturnUntilRemoved) {
    EXPECT_FALSE(Api()->AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_FALSE(Api()->SubscribeWithValue(kSource, Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.From(kNotConnected, kUnit, "AddAvailabilityCallback")) << m_log.Dump();
    EXPECT_TRUE(m_log.From(kNotConnected, kUnit, "SubscribeWithValue")) << m_log.Dump();
    Start();
    ASSERT_TRUE(Api()->AddAvailabilityCallback(RecordedAvailability<1>, &m_first));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 1; }, 5000));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 200u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 3; }, 5000)) << m_log.Dump();
    std::vector<std::string> heard;
    for (const Delivery& delivery : DeliveriesTo(1)) heard.push_back(delivery.subject + "=" + delivery.data);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0", "hello=1"}), heard);
    EXPECT_EQ(&m_first, DeliveriesTo(1)[2].userData);
    ASSERT_TRUE(Api()->RemoveAvailabilityCallback(RecordedAvailability<1>, &m_first));
    EXPECT_FALSE(Api()->RemoveAvailabilityCallback(RecordedAvailability<1>, &m_first));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 200u)).Ok());
    g_usleep(500 * 1000);
    EXPECT_EQ(3u, DeliveriesTo(1).size());
}

}  // namespace
}  // namespace lumora::test
