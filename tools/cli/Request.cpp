// lumora: the request and stats commands, which ask without blocking and wait
// for the answer on the main loop.
#include <glib.h>
#include <lumora/lumora-api.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Cli.h"
#include "Statistics.h"

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;

// The library's answer when the service failed or the bus gave up.
constexpr char kErrorAnswer[] = "{\"Status\":\"Error\"}";

// What the request's callback leaves for the main loop. The callback runs
// with the library's client mutex held, so it only copies; everything else
// happens once the loop has returned.
struct Answer {
    bool statistics = false;  // the library answers with records, or the error text
    bool arrived = false;
    bool error = false;
    bool timedOut = false;
    std::string text;
    std::vector<Record> records;
    std::string failure;
    GMainLoop* loop = nullptr;
};

// A statistics request gets either a StatisticsResult or the error text.
// Read as a record count, the text's first four bytes ("{\"St") would
// announce nearly two billion records, more than a bus message can hold,
// so those bytes alone tell the two apart.
bool IsErrorAnswer(const char* data, bool statistics) {
    if (statistics) return memcmp(data, kErrorAnswer, sizeof(int32_t)) == 0;
    return strcmp(data, kErrorAnswer) == 0;
}

void OnAnswer(const char* subject, char* data, void* userData) {
    auto* answer = static_cast<Answer*>(userData);
    answer->arrived = true;
    if (data == nullptr || IsErrorAnswer(data, answer->statistics)) {
        answer->error = true;
    } else if (answer->statistics) {
        // The answer names the subject whose record type the library used.
        DecodeStatistics(subject, *reinterpret_cast<const StatisticsResult*>(data), answer->records, answer->failure);
    } else {
        answer->text = data;
    }
    g_main_loop_quit(answer->loop);
}

gboolean OnGiveUp(gpointer userData) {
    auto* answer = static_cast<Answer*>(userData);
    answer->timedOut = true;
    g_main_loop_quit(answer->loop);
    return G_SOURCE_REMOVE;
}

std::string RequestRefusal(const std::string& subject) {
    if (!LMFServiceAPI::IsAvailable()) return "the context service is not available";
    return "the library refused the request for " + subject;
}

// Runs the main loop until the answer arrives or the time is up.
void Wait(const Options& options, Answer& answer) {
    guint timer = g_timeout_add(options.timeoutSeconds * 1000u, OnGiveUp, &answer);
    g_main_loop_run(answer.loop);
    // Both may have been dispatched in the loop's last round; the timer is
    // gone once it has run.
    if (!answer.timedOut) g_source_remove(timer);
}

int Report(const Options& options, const std::string& subject, const Answer& answer) {
    if (!answer.arrived)
        return Fail("no answer from the context service within " + std::to_string(options.timeoutSeconds) + " s");
    if (answer.error)
        return Fail("the context service failed the request for " + subject +
                    " (an error answer, or none within the bus's 25 s)");
    if (!answer.failure.empty()) return Fail(answer.failure);
    if (answer.statistics) {
        PrintText(RecordsText(answer.records, options.pretty));
    } else {
        PrintValue(options, answer.text);
    }
    return kOk;
}

int Ask(const Options& options, const std::string& subject, const char* input) {
    if (!MayUseSubject(subject)) return kFailed;
    Answer answer;
    answer.statistics = FindStatisticsKindBySubject(subject) != nullptr;
    answer.loop = g_main_loop_new(nullptr, FALSE);
    bool sent = Lumora_Request(subject.c_str(), input, OnAnswer, &answer);
    if (sent) Wait(options, answer);
    g_main_loop_unref(answer.loop);
    return sent ? Report(options, subject, answer) : Fail(RequestRefusal(subject));
}

int AskService(const Options& options, const std::string& subject, const char* input) {
    if (!StartService()) return kFailed;
    int status = Ask(options, subject, input);
    // A reply that comes after the stop is dropped unheard: its callback
    // must not reach the answer record, which lived on Ask's stack.
    StopService();
    return status;
}

}  // namespace

int RunRequest(const Options& options, const Args& args) {
    return AskService(options, args[0], args.size() > 1 ? args[1].c_str() : nullptr);
}

int RunStats(const Options& options, const Args& args) {
    const StatisticsKind* kind = FindStatisticsKindByName(args[0]);
    if (kind == nullptr) {
        fprintf(stderr, "lumora: unknown statistics kind %s (%s)\n", args[0].c_str(), StatisticsKindNames().c_str());
        fprintf(stderr, "usage: lumora stats [--timeout SECONDS] KIND [INPUT]\n");
        return kUsage;
    }
    return AskService(options, kind->subject, args.size() > 1 ? args[1].c_str() : nullptr);
}

}  // namespace lumora::cli
