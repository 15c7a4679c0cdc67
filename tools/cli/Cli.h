// lumora: the command-line client of the context service.
#ifndef LUMORA_TOOLS_CLI_CLI_H
#define LUMORA_TOOLS_CLI_CLI_H

#include <string>
#include <vector>

namespace lumora::cli {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    bool verbose = false;
    bool pretty = false;
};

struct Command {
    const char* name;
    const char* synopsis;     // arguments, for the usage line
    const char* description;  // one line
    const char* help;         // the rest of "lumora COMMAND --help"
    size_t minArgs;
    size_t maxArgs;
    int (*run)(const Options& options, const std::vector<std::string>& args);
};

const std::vector<Command>& Commands();

// Output: values on stdout, one-line reasons on stderr.
void PrintValue(const Options& options, const std::string& value);
int Fail(const std::string& reason);

// Starts the library's connection to the service; false with a reason
// printed when the service cannot be used.
bool StartService();
void StopService();

}  // namespace lumora::cli

#endif
