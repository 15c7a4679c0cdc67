// lumora: the command-line client of the context service.
#ifndef LUMORA_TOOLS_CLI_CLI_H
#define LUMORA_TOOLS_CLI_CLI_H

#include <glib.h>
#include <json/json.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lumora::cli {

// A text the library or the settings store handed out, freed with free().
struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeDeleter>;

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
// "lumora status": what stands between this process and the service.
constexpr int kStatusBusUnreachable = 3;
constexpr int kStatusNotRunning = 4;
constexpr int kStatusNotAnswering = 5;
constexpr int kStatusDisabled = 6;
constexpr int kStatusNotReady = 7;
constexpr int kStatusSwitchOff = 8;

// Options that only some commands take (Command::options).
enum CommandOption : unsigned {
    kNoOptions = 0,
    kTimeoutOption = 1u << 0,    // --timeout SECONDS
    kInitialOption = 1u << 1,    // --initial
    kSourceOption = 1u << 2,     // --source VALUE
    kServiceIdOption = 1u << 3,  // --service-id ID
    kWatchOption = 1u << 4,      // --watch
    kOwnOptions = 1u << 5,       // the command parses the options after its name itself
};

// Longer than the bus's own 25 s, so that by default the bus's time-out,
// with its error answer, comes first.
constexpr unsigned kDefaultTimeoutSeconds = 30;
constexpr unsigned kMaxTimeoutSeconds = 86400;

struct Options {
    bool verbose = false;
    bool pretty = false;
    unsigned timeoutSeconds = kDefaultTimeoutSeconds;
    bool initial = false;
    bool watch = false;
    // As written; what a source is depends on the command that takes it.
    std::optional<std::string> source;
    std::optional<std::string> serviceId;
};

struct Command {
    const char* name;
    const char* synopsis;     // arguments, for the usage line
    const char* description;  // one line
    const char* help;         // the rest of "lumora COMMAND --help"
    size_t minArgs;
    size_t maxArgs;
    unsigned options;  // CommandOption bits the command accepts
    int (*run)(const Options& options, const std::vector<std::string>& args);
};

const std::vector<Command>& Commands();

// The commands that wait for the service on the main loop.
int RunRequest(const Options& options, const std::vector<std::string>& args);
int RunStats(const Options& options, const std::vector<std::string>& args);
int RunSubscribe(const Options& options, const std::vector<std::string>& args);
// The channel list services: list, reorder, remove, watch.
int RunChannels(const Options& options, const std::vector<std::string>& args);

int RunStatus(const Options& options, const std::vector<std::string>& args);
int RunMonitor(const Options& options, const std::vector<std::string>& args);
// Whole seconds from 1 to kMaxTimeoutSeconds; false otherwise.
bool ParseWholeSeconds(const std::string& text, unsigned& seconds);

// Texts (Text.cpp). Every argument and option value of command must be valid
// UTF-8, since it travels as a D-Bus string; false after the one line
// "lumora: SUBJECT is not valid UTF-8" (the name from the usage) otherwise.
bool ArgumentsAreText(const Command& command, const std::vector<std::string>& args, const Options& options);
// Standard input up to its end, less one final newline; false with reason
// when it cannot be read or holds more than one bus message can carry.
bool ReadStandardInput(std::string& text, std::string& reason);
// The value of a VALUE argument: arg itself, or standard input when arg is
// "-". False after one line naming it (name) when it cannot be read or is
// not valid UTF-8.
bool ValueArgument(const std::string& arg, const std::string& name, std::string& value);

// Why the service cannot be used (Diagnosis.cpp).
enum class ServiceProblem {
    kNone,            // it answers, is enabled and ready
    kBusUnreachable,  // no connection to the system bus
    kNotRunning,      // the service's name has no owner
    kNotAnswering,    // "ServiceEnable" timed out or failed
    kDisabled,        // it answers that it is not enabled
    kNotReady,        // it answers, but the readiness marker is missing
};
struct ServiceDiagnosis {
    ServiceProblem problem = ServiceProblem::kNone;
    std::string address;  // the system bus's address, when known
    std::string detail;   // GIO's reason, for an unreachable bus or no answer
    bool markerPresent = false;
};
// Looks at the bus and the service on a connection of its own (blocks up to
// about 2 s when the service does not answer).
ServiceDiagnosis DiagnoseService();
// The system bus's address as GIO finds it, or "no address".
std::string BusAddress();
// The service's state as "lumora status" words it: "available", "not
// running (...)", ...
std::string ServiceState(const ServiceDiagnosis& diagnosis);

// Output: values on stdout, one-line reasons on stderr.
void PrintValue(const Options& options, const std::string& value);
// Prints text as it is, with a newline, and flushes.
void PrintText(const std::string& text);
// One line {"subject":...,"data":...}: data as JSON when it is JSON, else as a string.
void PrintEvent(const std::string& subject, const std::string& data);
// Runs follow(loop) with a main loop that SIGINT and SIGTERM stop (from the
// start, so that a signal while follow sets up still ends it in order), and
// returns its exit status.
int FollowUntilStopped(const std::function<int(GMainLoop*)>& follow);
// {"event":"available"|"unavailable","reason":"..."}: the service came or went.
void PrintAvailability(bool available, const std::string& reason);
// data as it goes into an event line: its compact JSON when it is JSON, else
// a JSON string.
std::string EventData(const std::string& data);
void Warn(const std::string& reason);
int Fail(const std::string& reason);

// JSON from outside (the service's answers, arguments), through the tools'
// one boundary (JsonInput.h): only a text that is wholly one JSON value, of
// any type, parses; one nested deeper than the tools take is no JSON to them,
// and is shown as the text it is. Never throws.
bool ParseJsonInput(const std::string& text, Json::Value& value);
std::string JsonText(const Json::Value& value, bool pretty);

// Why a read of subject ended with the bus client's code.
std::string ReadFailure(const std::string& subject, int code);

// Starts the library's connection to the service; false with a reason
// printed when the service cannot be used.
bool StartService();
void StopService();
// The library's rule for internal subjects, checked up front for a better
// reason than the library's bare refusal; false with the reason printed.
bool MayUseSubject(const std::string& subject);

}  // namespace lumora::cli

#endif
