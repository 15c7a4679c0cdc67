// Fuzzes lumora-sim's timeline parser: any text is either refused with
// "LINE: reason", LINE a line of the text (or the one after it), or parsed into
// events the simulator can play: in time order, each with a subject and data
// that are valid UTF-8.
#include <glib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Timeline.h"

using fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<lumora::sim::TimelineEvent> events;
    std::string error;
    if (!lumora::sim::ParseTimeline(text, events, error)) {
        size_t colon = error.find(": ");
        Check(colon != std::string::npos && colon > 0 && colon <= 9);
        for (size_t i = 0; i < colon; ++i) Check(error[i] >= '0' && error[i] <= '9');
        long line = std::stol(error.substr(0, colon));
        long lines = 1;
        for (char c : text) lines += c == '\n';
        Check(line >= 1 && line <= lines + 1);
        Check(events.empty());
        return 0;
    }
    double previous = 0;
    for (const lumora::sim::TimelineEvent& event : events) {
        Check(event.tMs >= previous);
        previous = event.tMs;
        Check(!event.subject.empty());
        Check(g_utf8_validate(event.subject.data(), static_cast<gssize>(event.subject.size()), nullptr));
        Check(g_utf8_validate(event.data.data(), static_cast<gssize>(event.data.size()), nullptr));
        Check(event.line >= 2);
    }
    return 0;
}
