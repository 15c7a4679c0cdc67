// What the control panel's posts do, apart from HTTP: the body of a post to
// /api/set or /api/control read through the checked JSON layer and applied
// to the state and the service. Every field is checked before anything
// changes, so a refused post changes nothing. Kept apart from the server so
// that it can be driven without a socket (fuzz/FuzzPanelRequest.cpp).
#ifndef LUMORA_SIM_PANELREQUEST_H
#define LUMORA_SIM_PANELREQUEST_H

#include <cstddef>
#include <string>

namespace lumora::sim {

class SimState;

/// The largest request body the panel takes.
constexpr std::size_t kMaxPanelBody = 64 * 1024;
/// The pause of a restart: 1 s unless the post asks for another, at most 60 s.
constexpr unsigned kDefaultRestartPauseMs = 1000;
constexpr unsigned kMaxRestartPauseMs = 60000;
/// The longest answer delay a post may set.
constexpr unsigned kMaxPanelDelayMs = 600000;

/// What a post acts on: the state, and the service's operations beside it.
class PanelTarget {
public:
    virtual ~PanelTarget() = default;
    virtual SimState& State() = 0;
    /// Sends subject's new value to its subscribers.
    virtual void Notify(const std::string& subject, const std::string& value) = 0;
    virtual void StopAnswering() = 0;
    virtual void ResumeAnswering() = 0;
    /// False when a restart cannot begin now.
    virtual bool Restart(unsigned pauseMs) = 0;
};

/// How a post was answered.
struct PanelOutcome {
    unsigned status = 200;  // 200, or 400, 404, 413 with error
    std::string error;      // why it was refused, one line
    std::string done;       // what was done, for the log
};

/// Applies a post of body (its bytes as they came) to path.
PanelOutcome ApplyPanelPost(const std::string& path, const std::string& body, PanelTarget& target);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_PANELREQUEST_H
