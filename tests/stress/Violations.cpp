#include "Violations.h"

#include <errno.h>
#include <glib.h>

#include <cstdio>
#include <sstream>

#include "StressBed.h"

namespace lumora::test {

namespace {

constexpr size_t kExamplesKept = 4;

GLogWriterOutput WriteGLibMessage(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
    if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) != 0) {
        std::string domain = "(no domain)";
        std::string message;
        for (gsize i = 0; i < count; ++i) {
            std::string key = fields[i].key;
            const char* value = static_cast<const char*>(fields[i].value);
            if (value == nullptr) continue;
            std::string text = fields[i].length < 0 ? std::string(value) : std::string(value, fields[i].length);
            if (key == "GLIB_DOMAIN") domain = text;
            if (key == "MESSAGE") message = text;
        }
        Violations::Instance().Add(Rule::kNoGLibCriticalOrWarning, domain + ": " + message);
    }
    return g_log_writer_default(level, fields, count, nullptr);
}

}  // namespace

const char* RuleName(Rule rule) {
    switch (rule) {
        case Rule::kLiveSubscriptionHears:
            return "1: a live subscription did not hear a fresh notification";
        case Rule::kNoCallAfterRemoval:
            return "2: a callback ran after its removal had returned";
        case Rule::kRequestAnsweredOnce:
            return "3: a request's callback was not called exactly once";
        case Rule::kListensWhileSubscribed:
            return "4: subscriptions held but no \"Response\" match rule on the bus";
        case Rule::kNoGLibCriticalOrWarning:
            return "5: GLib critical or warning";
        case Rule::kOther:
            return "6: other promise of the headers broken";
    }
    return "?";
}

Violations& Violations::Instance() {
    static Violations* instance = new Violations;  // outlives late callbacks at exit
    return *instance;
}

void Violations::SetSeed(uint64_t seed) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_seed = seed;
}

uint64_t Violations::Seed() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_seed;
}

void Violations::SetRound(int round) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_round = round;
}

int Violations::Round() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_round;
}

void Violations::Add(Rule rule, const std::string& text, const std::string& kind) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Found& found = m_found[rule];
    ++found.count;
    found.rounds.insert(m_round);
    size_t& ofKind = found.kinds[kind.empty() ? text : kind];
    ++ofKind;
    if (found.examples.size() < kExamplesKept)
        found.examples.push_back("round " + std::to_string(m_round) + ": " + text);
    // The first of each kind at once as well: a crash later must not hide it.
    if (ofKind == 1)
        fprintf(stderr, "[seed %llu] rule %s -- round %d: %s\n", static_cast<unsigned long long>(m_seed),
                RuleName(rule), m_round, text.c_str());
}

size_t Violations::Count(Rule rule) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_found.find(rule);
    return it != m_found.end() ? it->second.count : 0;
}

size_t Violations::Total() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t total = 0;
    for (const auto& entry : m_found) total += entry.second.count;
    return total;
}

std::set<int> Violations::Rounds(Rule rule) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_found.find(rule);
    return it != m_found.end() ? it->second.rounds : std::set<int>();
}

std::string Violations::Report() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::ostringstream out;
    out << "seed " << m_seed << " (LUMORA_STRESS_SEED=" << m_seed << " makes the same choices again)\n";
    for (const auto& [rule, found] : m_found) {
        out << "rule " << RuleName(rule) << ": " << found.count << " time(s) in round(s)";
        for (int round : found.rounds) out << ' ' << round;
        out << '\n';
        for (const auto& [kind, count] : found.kinds) out << "  " << count << " x " << kind << '\n';
        out << "  for example:\n";
        for (const std::string& example : found.examples) out << "    " << example << '\n';
    }
    return out.str();
}

std::string SeedText() { return "seed " + std::to_string(Violations::Instance().Seed()); }

void WatchGLibMessages() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    g_log_set_writer_func(WriteGLibMessage, nullptr, nullptr);
}

uint64_t BeginSeededTest() {
    WatchGLibMessages();
    program_invocation_short_name = const_cast<char*>("myapp");
    uint64_t seed = StressSeed();
    Violations::Instance().SetSeed(seed);
    return seed;
}

}  // namespace lumora::test
