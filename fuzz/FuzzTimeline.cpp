// Fuzzes lumora-sim's timeline loader, as --replay runs it: the input is
// written to a file and loaded, so that every line goes through the JSON
// boundary and the checked reads of its fields. Any text is either refused
// with one line "FILE:LINE: reason", LINE a line of the text (or the one after
// it), or loaded into events the simulator can play: in time order, at times
// it can wait for, each with a subject (but a ServiceEnable answer) and data
// that are valid UTF-8, statistics records that the subject's array is built
// from as a scenario's are.
#include <glib.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Scenario.h"
#include "Timeline.h"

using fuzz::Check;

namespace {

std::string g_path;

void CheckRefusal(const std::string& error, const std::string& text,
                  const std::vector<lumora::sim::TimelineEvent>& events) {
    Check(events.empty());
    // One line, as lumora-sim prints it, whatever the text's names hold.
    Check(!error.empty() && error.find('\n') == std::string::npos);
    Check(error.compare(0, g_path.size() + 1, g_path + ":") == 0);
    std::string message = error.substr(g_path.size() + 1);
    size_t colon = message.find(": ");
    Check(colon != std::string::npos && colon > 0 && colon <= 9);
    for (size_t i = 0; i < colon; ++i) Check(message[i] >= '0' && message[i] <= '9');
    long line = std::stol(message.substr(0, colon));
    long lines = 1;
    for (char c : text) lines += c == '\n';
    Check(line >= 1 && line <= lines + 1);
}

void CheckLoaded(const std::vector<lumora::sim::TimelineEvent>& events) {
    double previous = 0;
    for (const lumora::sim::TimelineEvent& event : events) {
        Check(event.tMs >= previous && event.tMs <= lumora::sim::kMaxTimelineMs);
        previous = event.tMs;
        using Kind = lumora::sim::TimelineEvent::Kind;
        Check(event.kind == Kind::kEnable ? event.subject.empty() : !event.subject.empty());
        Check(fuzz::IsUtf8(event.subject));
        if (event.kind == Kind::kStatistics) {
            std::string why;
            Check(lumora::sim::CheckStatistics(event.subject, event.tuples, "tuples", why));
        }
        Check(fuzz::IsUtf8(event.data));
        Check(event.line >= 2);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = fuzz::ScratchFolder() + "/timeline.jsonl";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text = fuzz::WriteScratchFile(g_path, data, size);

    std::vector<lumora::sim::TimelineEvent> events;
    std::string error;
    if (lumora::sim::LoadTimeline(g_path, events, error)) {
        Check(error.empty());
        CheckLoaded(events);
    } else {
        CheckRefusal(error, text, events);
    }
    return 0;
}
