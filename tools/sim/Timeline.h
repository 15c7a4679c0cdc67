// Timelines that `lumora monitor --record` writes, played by `lumora-sim
// --replay`: every recorded "Response" signal is emitted again at its time,
// once to each subscriber however many copies the recorded service sent, and
// every recorded answer to a read or request becomes the subject's answer at
// its time (its text or statistics records, and its result code), so that
// reads and requests answer what the recorded service answered then;
// ServiceEnable answers set the enabled flag and the whitelist likewise.
#ifndef LUMORA_SIM_TIMELINE_H
#define LUMORA_SIM_TIMELINE_H

#include <glib.h>
#include <json/json.h>

#include <string>
#include <vector>

namespace lumora::sim {

class SimService;

constexpr const char* kTimelineFormat = "lumora-timeline";
constexpr int kTimelineVersion = 1;
/// The latest time a line may have, about 31 years: anything later is a
/// wrong number, not a recording.
constexpr double kMaxTimelineMs = 1e12;
/// The shortest a round of --loop takes, in real milliseconds whatever the
/// speed: a timeline whose events all sit at (or near) time 0 is played at
/// most ten times a second instead of as fast as the main loop turns.
constexpr double kMinLoopRoundMs = 100;
/// The longest one wait of the player; a later event is waited for in steps,
/// which keeps every wait within what a GLib timer takes.
constexpr double kMaxWaitMs = 3600 * 1000;

struct TimelineEvent {
    enum class Kind {
        kSignal,      // "Response" (0, subject, data); data becomes the subject's value
        kAnswer,      // a read's or request's answer: the subject's value and result code
        kStatistics,  // a statistics request's answer: the subject's records and result code
        kEnable,      // a ServiceEnable answer: enabled, and the whitelist when recorded
    };
    double tMs = 0;
    Kind kind = Kind::kSignal;
    std::string subject;  // empty for kEnable
    std::string data;     // the text as it went on the bus; kEnable: the whitelist
    int code = 0;         // kAnswer, kStatistics
    Json::Value tuples;   // kStatistics: the records in wire order, as scenario files give them
    bool enabled = true;  // kEnable
    bool hasWhiteList = false;  // kEnable: data holds the whitelist
    int line = 0;
};

/// Parses a timeline from text (the file's content). On failure returns false
/// and sets error to "LINE: reason". Lines that are kept for reference only
/// (calls, errors, time-outs, HELLO, BYE, the further copies of a signal sent
/// to several receivers, answers to subscriptions) are checked and skipped.
bool ParseTimeline(const std::string& text, std::vector<TimelineEvent>& events, std::string& error);

/// Reads and parses the file at path; error is "FILE:LINE: reason" or
/// "FILE: reason".
bool LoadTimeline(const std::string& path, std::vector<TimelineEvent>& events, std::string& error);

/// Plays a timeline on the service's main loop, speed times faster than
/// recorded, again from the start when loop is set (each round taking at
/// least kMinLoopRoundMs). Its position is shown in the simulator's status
/// ("replay").
class Replay {
public:
    Replay(SimService& service, std::string file, std::vector<TimelineEvent> events, double speed, bool loop);
    ~Replay();
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    void Start();

private:
    static gboolean OnTimer(gpointer self);
    void PlayDue();
    void Play(const TimelineEvent& event);
    void ScheduleNext();
    void Publish();

    SimService& m_service;
    std::string m_file;
    std::vector<TimelineEvent> m_events;
    double m_speed;
    bool m_loop;
    size_t m_next = 0;
    unsigned m_rounds = 0;
    gint64 m_startUs = 0;
    guint m_timer = 0;
};

}  // namespace lumora::sim

#endif  // LUMORA_SIM_TIMELINE_H
