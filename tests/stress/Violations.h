// What the stress run found wrong, by the rule that was broken, with the seed
// and the round in every line so that a failure can be run again.
#ifndef LUMORA_TESTS_STRESS_VIOLATIONS_H
#define LUMORA_TESTS_STRESS_VIOLATIONS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace lumora::test {

/// The rules a run checks. The numbers are the ones the messages print.
enum class Rule {
    kLiveSubscriptionHears = 1,    // every live subscription hears a fresh notification
    kNoCallAfterRemoval = 2,       // no callback runs once its removal has returned
    kRequestAnsweredOnce = 3,      // a request's callback: never twice, once when the service is up
    kListensWhileSubscribed = 4,   // subscriptions held -> the "Response" match rule is on the bus
    kNoGLibCriticalOrWarning = 5,  // GLib says nothing at critical or warning level
    kOther = 6,                    // what the headers promise besides
};

const char* RuleName(Rule rule);

/// Collects violations from any thread. One instance per process.
class Violations {
public:
    static Violations& Instance();

    void SetSeed(uint64_t seed);
    uint64_t Seed() const;
    void SetRound(int round);
    int Round() const;

    /// Records one violation. kind names what went wrong without the details
    /// of this occurrence (the summary counts by it); empty: the text itself.
    void Add(Rule rule, const std::string& text, const std::string& kind = std::string());
    size_t Count(Rule rule) const;
    size_t Total() const;
    /// The rounds in which rule was broken at least once.
    std::set<int> Rounds(Rule rule) const;
    /// One paragraph per broken rule: count, rounds, counts by kind, the first
    /// examples.
    std::string Report() const;

private:
    struct Found {
        size_t count = 0;
        std::set<int> rounds;
        std::map<std::string, size_t> kinds;
        std::vector<std::string> examples;
    };

    mutable std::mutex m_mutex;
    uint64_t m_seed = 0;
    int m_round = 0;
    std::map<Rule, Found> m_found;
};

/// "seed N" for messages: how to make the same choices again.
std::string SeedText();

/// Counts every GLib message at critical or warning level (and errors, which
/// end the process anyway) as a violation, and still prints it. Installed
/// once per process; later calls do nothing.
void WatchGLibMessages();

/// The start of a seeded test: GLib's messages watched, the process named
/// "myapp", the seed chosen (StressSeed) and given to the violations, which
/// print it with every failure. Returns the seed.
uint64_t BeginSeededTest();

}  // namespace lumora::test

#endif
