// The player of timelines: events due by now are played from the main loop,
// then one timer waits for the next (or for the next round of a loop).
#include <algorithm>
#include <cmath>

#include "SimLog.h"
#include "SimService.h"
#include "Timeline.h"

namespace lumora::sim {

Replay::Replay(SimService& service, std::string file, std::vector<TimelineEvent> events, double speed, bool loop)
    : m_service(service), m_file(std::move(file)), m_events(std::move(events)), m_speed(speed), m_loop(loop) {}

Replay::~Replay() {
    if (m_timer != 0) g_source_remove(m_timer);
}

void Replay::Start() {
    m_startUs = g_get_monotonic_time();
    SIM_LOGI("replaying %s: %zu event(s) at %gx%s", m_file.c_str(), m_events.size(), m_speed,
             m_loop ? ", looping" : "");
    PlayDue();
}

gboolean Replay::OnTimer(gpointer self) {
    auto* replay = static_cast<Replay*>(self);
    replay->m_timer = 0;
    replay->PlayDue();
    return G_SOURCE_REMOVE;
}

// Every event whose time has come, in order; then the timer for the next.
void Replay::PlayDue() {
    double nowMs = static_cast<double>(g_get_monotonic_time() - m_startUs) / 1000.0 * m_speed;
    while (m_next < m_events.size() && m_events[m_next].tMs <= nowMs) {
        Play(m_events[m_next++]);
    }
    if (m_next == m_events.size() && m_loop && !m_events.empty()) {
        ++m_rounds;
        m_next = 0;
        // The next round starts now, or when this one has lasted its least:
        // events all at time 0 would otherwise be played again at once, for
        // ever, and take the whole processor.
        gint64 earliestUs = m_startUs + static_cast<gint64>(kMinLoopRoundMs * 1000);
        m_startUs = std::max(g_get_monotonic_time(), earliestUs);
    }
    Publish();
    ScheduleNext();
}

// A signal goes to the subject's subscribers as the service's own changes do
// (once each, or once to everyone with --broadcast); its data is the
// subject's value from then on, as after a write.
void Replay::Play(const TimelineEvent& event) {
    SimState& state = m_service.State();
    switch (event.kind) {
        case TimelineEvent::Kind::kSignal:
            state.SetValue(event.subject, event.data);
            m_service.EmitResponse(event.subject, event.data);
            break;
        case TimelineEvent::Kind::kAnswer:
            state.SetValue(event.subject, event.data);
            state.SetResultCode(event.subject, event.code);
            break;
        case TimelineEvent::Kind::kStatistics:
            state.SetStatistics(event.subject, event.tuples);
            state.SetResultCode(event.subject, event.code);
            break;
        case TimelineEvent::Kind::kEnable:
            state.SetEnabled(event.enabled);
            if (event.hasWhiteList) state.SetWhiteListText(event.data);
            break;
    }
}

void Replay::ScheduleNext() {
    if (m_next >= m_events.size()) {
        SIM_LOGI("replay of %s done", m_file.c_str());
        return;
    }
    double dueMs = m_events[m_next].tMs / m_speed;
    double elapsedMs = static_cast<double>(g_get_monotonic_time() - m_startUs) / 1000.0;
    // Before a round's start elapsedMs is below 0, and the wait is longer.
    double waitMs = std::min(std::max(0.0, dueMs - elapsedMs), kMaxWaitMs);
    m_timer = g_timeout_add(static_cast<guint>(std::ceil(waitMs)), &Replay::OnTimer, this);
}

void Replay::Publish() {
    Json::Value status(Json::objectValue);
    status["file"] = m_file;
    status["events"] = static_cast<Json::UInt64>(m_events.size());
    status["played"] = static_cast<Json::UInt64>(m_next);
    status["speed"] = m_speed;
    status["loop"] = m_loop;
    status["rounds"] = m_rounds;
    status["done"] = m_next >= m_events.size() && !m_loop;
    status["t_ms"] = m_next > 0 ? m_events[m_next - 1].tMs : 0.0;
    m_service.State().SetReplayStatus(status);
}

}  // namespace lumora::sim
