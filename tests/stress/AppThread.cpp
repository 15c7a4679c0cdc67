#include "AppThread.h"

#include <lumora/lumora-api.h>

#include <chrono>
#include <cstdlib>

#include "Violations.h"

namespace lumora::test {

const std::vector<std::string> kValueSubjects = {"Ctx/Media/Source/Info/Current", "Ctx/App/Info/Current",
                                                 "Ctx/Sound/Volume/Level/Current", "Data/Source/Status/Current"};
const std::vector<std::string> kPlainSubjects = {"Ctx/Media/Source/Info/Current",  "Ctx/App/Info/Current",
                                                 "Ctx/Sound/Volume/Level/Current", "Data/Source/Status/Current",
                                                 "Ctx/Media/Source/Changed",       "Ctx/App/Info/Changed"};

namespace {

// A callback's pause reaches this much, so that removals meet running calls.
constexpr int kMaxPauseUs = 2000;
constexpr int kMaxGapMs = 3;

}  // namespace

void Duel::Meet() {
    m_arrived.fetch_add(1);
    while (m_arrived.load() < 2) std::this_thread::yield();
}

void Duel::Finish() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_finished;
    m_ended.notify_all();
}

void Duel::WaitForEnd() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ended.wait(lock, [this] { return m_finished >= 2; });
}

AppThread::AppThread(int index, uint64_t seed, bool quiet, Arena& arena, Tally& tally, Duel& duel)
    : m_index(index), m_quiet(quiet), m_rng(seed), m_arena(arena), m_tally(tally), m_duel(duel) {}

AppThread::~AppThread() { Stop(); }

void AppThread::Start() {
    m_stop = false;
    m_thread = std::thread([this] { Run(); });
}

void AppThread::Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
}

void AppThread::Run() {
    // The round's first subscription, held by thread 1 alone, then removed
    // by it while thread 0 registers the channel callback.
    if (m_index == 1) ToggleSubscription(m_plain[0], PlainCallback(0), false);
    if (m_index == 0 || m_index == 1) {
        m_duel.Meet();
        // The registration a little behind, as the reports have it: the
        // removal then holds the client's lock while the registration starts.
        if (m_index == 0) {
            auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(20 + Draw(181));
            while (std::chrono::steady_clock::now() < until) {
            }
            ToggleChannel();
        }
        if (m_index == 1) ToggleSubscription(m_plain[0], PlainCallback(0), false);
        m_duel.Finish();
    } else {
        m_duel.WaitForEnd();
    }
    while (!m_stop) {
        Step();
        ++m_tally.operations;
        std::this_thread::sleep_for(std::chrono::milliseconds(Draw(kMaxGapMs + 1)));
    }
}

void AppThread::Step() {
    int draw = Draw(100);
    if (draw < 20) return Read();
    if (draw < 45) {
        int slot = Draw(kPlainSlots);
        return ToggleSubscription(m_plain[slot], PlainCallback(slot), false);
    }
    if (draw < 60) {
        int slot = Draw(kValueSlots);
        return ToggleSubscription(m_value[slot], ValueCallback(slot), true);
    }
    if (draw < 80) return Request();
    if (draw < 92) return ToggleAvailability(m_availability[Draw(kAvailabilitySlots)]);
    if (m_index == 0) return ToggleChannel();
    Read();
}

void AppThread::ToggleSubscription(Registration*& slot, int callback, bool withValue) {
    LumoraSubjectCb function = SubjectCallback(callback);
    if (slot != nullptr) {
        bool removed = Draw(2) == 0 ? Lumora_Unsubscribe(slot->Subject().c_str(), function, slot)
                                    : CS_Lumora_Unsubscribe(slot->Subject().c_str(), function, slot);
        slot->MarkRemoved();
        if (!removed)
            Violations::Instance().Add(Rule::kOther, slot->Name() + ": Lumora_Unsubscribe returned false",
                                       "Lumora_Unsubscribe of a live subscription returned false");
        slot = nullptr;
        return;
    }
    const std::vector<std::string>& subjects = withValue ? kValueSubjects : kPlainSubjects;
    const std::string& subject = subjects[static_cast<size_t>(Draw(static_cast<int>(subjects.size())))];
    auto* record = m_arena.Make<Registration>(withValue ? Kind::kSubscriptionWithValue : Kind::kSubscription, subject,
                                              callback, m_rng(), 0, kMaxPauseUs);
    bool added = withValue      ? Lumora_SubscribeWithValue(subject.c_str(), function, record)
                 : Draw(2) == 0 ? Lumora_Subscribe(subject.c_str(), function, record)
                                : CS_Lumora_Subscribe(subject.c_str(), function, record);
    if (added) {
        slot = record;
        return;
    }
    record->MarkRemoved();  // refused: it must never be called
    Violations::Instance().Add(Rule::kOther, record->Name() + ": refused", "a subscription was refused");
}

void AppThread::ToggleAvailability(Registration*& slot) {
    if (slot != nullptr) {
        bool removed = Lumora_RemoveAvailabilityCallback(AvailabilityCallback, slot);
        slot->MarkRemoved();
        if (!removed)
            Violations::Instance().Add(Rule::kOther, slot->Name() + ": Lumora_RemoveAvailabilityCallback failed",
                                       "Lumora_RemoveAvailabilityCallback failed");
        slot = nullptr;
        return;
    }
    auto* record = m_arena.Make<Registration>(Kind::kAvailability, "", -1, m_rng(), 0, kMaxPauseUs);
    if (Lumora_AddAvailabilityCallback(AvailabilityCallback, record)) {
        slot = record;
        return;
    }
    record->MarkRemoved();
    Violations::Instance().Add(Rule::kOther, record->Name() + ": Lumora_AddAvailabilityCallback failed",
                               "Lumora_AddAvailabilityCallback failed");
}

void AppThread::ToggleChannel() {
    if (m_channelRegistered) {
        CS_UnRegisterChannelCallback();
        m_channelRegistered = false;
        return;
    }
    auto* record = m_arena.Make<ChannelRecord>();
    if (!CS_RegisterChannelCallback(ChannelCallback, record)) {
        Violations::Instance().Add(Rule::kOther, "CS_RegisterChannelCallback failed");
        return;
    }
    m_channel = record;
    m_channelRegistered = true;
    m_channelEver = true;
}

void AppThread::Read() {
    const std::string& subject = kValueSubjects[static_cast<size_t>(Draw(static_cast<int>(kValueSubjects.size())))];
    std::string what = subject;
    char* value = nullptr;
    std::string out;
    bool ok = false;
    switch (Draw(5)) {
        case 0:
            value = Lumora_Read(subject.c_str(), nullptr);
            break;
        case 1:
            value = CS_Lumora_Read(subject.c_str(), "");
            break;
        case 2:
            value = Lumora_ReadCurrentSourceInfo(nullptr);
            what = "Ctx/Media/Source/Info/Current";
            break;
        case 3:
            value = Lumora_ReadCurrentAppInfo(nullptr);
            what = "Ctx/App/Info/Current";
            break;
        default:
            ok = LMFServiceAPI::Read(subject.c_str(), nullptr, out);
            break;
    }
    ok = ok || value != nullptr;
    free(value);
    if (ok) return;
    ++m_tally.readsFailed;
    if (m_quiet)
        Violations::Instance().Add(Rule::kOther, "a read of " + what + " failed while the service was up",
                                   "a read failed while the service was up");
}

void AppThread::Request() {
    const std::string& subject = kValueSubjects[static_cast<size_t>(Draw(static_cast<int>(kValueSubjects.size())))];
    int how = Draw(5);
    std::string what = how == 2 ? "Ctx/Media/Source/Info/Current" : how == 3 ? "Ctx/App/Info/Current" : subject;
    auto* record = m_arena.Make<RequestRecord>(what, m_quiet);
    bool accepted = false;
    switch (how) {
        case 0:
            accepted = Lumora_Request(what.c_str(), nullptr, RequestCallback, record);
            break;
        case 1:
            accepted = CS_Lumora_Request(what.c_str(), "", RequestCallback, record);
            break;
        case 2:
            accepted = Lumora_RequestCurrentSourceInfo(nullptr, RequestCallback, record);
            break;
        case 3:
            accepted = Lumora_RequestCurrentAppInfo(nullptr, RequestCallback, record);
            break;
        default:
            accepted = LMFServiceAPI::Request(what.c_str(), nullptr, RequestCallback, record);
            break;
    }
    record->accepted = accepted;
    m_requests.push_back(record);
    if (accepted) return;
    ++m_tally.requestsRefused;
    if (m_quiet)
        Violations::Instance().Add(Rule::kOther, "a request of " + what + " was refused while the service was up",
                                   "a request was refused while the service was up");
}

std::vector<Registration*> AppThread::LiveSubscriptions() const {
    std::vector<Registration*> live;
    for (Registration* record : m_plain)
        if (record != nullptr) live.push_back(record);
    for (Registration* record : m_value)
        if (record != nullptr) live.push_back(record);
    return live;
}

std::vector<Registration*> AppThread::LiveAvailability() const {
    std::vector<Registration*> live;
    for (Registration* record : m_availability)
        if (record != nullptr) live.push_back(record);
    return live;
}

void AppThread::RemoveAll() {
    for (int slot = 0; slot < kPlainSlots; ++slot)
        if (m_plain[slot] != nullptr) ToggleSubscription(m_plain[slot], PlainCallback(slot), false);
    for (int slot = 0; slot < kValueSlots; ++slot)
        if (m_value[slot] != nullptr) ToggleSubscription(m_value[slot], ValueCallback(slot), true);
    for (Registration*& slot : m_availability)
        if (slot != nullptr) ToggleAvailability(slot);
    if (m_channelRegistered) ToggleChannel();
}

}  // namespace lumora::test
