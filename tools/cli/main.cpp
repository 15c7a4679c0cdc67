// lumora: the command-line client of the context service, for people and
// scripts. Values go to stdout, diagnostics to stderr; exit status 0 on
// success, 1 on failure, 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Cli.h"

namespace {

using lumora::cli::Command;
using lumora::cli::Commands;

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: lumora [-v] [--pretty] COMMAND [ARGS...]\n"
            "\n"
            "Talks to the television's context service over the system bus\n"
            "(DBUS_SYSTEM_BUS_ADDRESS when set).\n"
            "\n"
            "commands:\n");
    for (const Command& command : Commands()) fprintf(out, "  %-9s %-26s %s\n", command.name, command.synopsis, command.description);
    fprintf(out,
            "\n"
            "options:\n"
            "  -v          show the library's log on stderr (LUMORA_LOG_FILE, LUMORA_LOG_LEVEL apply)\n"
            "  --pretty    indent JSON values\n"
            "  -h, --help  this help; lumora COMMAND --help for a command\n");
}

void PrintCommandHelp(FILE* out, const Command& command) {
    fprintf(out, "usage: lumora %s %s\n\n%s\n", command.name, command.synopsis, command.help);
}

const Command* FindCommand(const std::string& name) {
    for (const Command& command : Commands()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    lumora::cli::Options options;
    std::vector<std::string> words;
    bool help = false;
    bool literal = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (!literal && arg == "--") {
            literal = true;
        } else if (!literal && arg == "-v") {
            options.verbose = true;
        } else if (!literal && arg == "--pretty") {
            options.pretty = true;
        } else if (!literal && (arg == "-h" || arg == "--help")) {
            help = true;
        } else if (!literal && arg.size() > 1 && arg[0] == '-') {
            fprintf(stderr, "lumora: unknown option %s\n", arg.c_str());
            PrintUsage(stderr);
            return lumora::cli::kUsage;
        } else {
            words.push_back(arg);
        }
    }
    // The library logs every request; a script wants only the value.
    if (!options.verbose) setenv("LUMORA_LOG_LEVEL", "none", 1);

    if (words.empty()) {
        PrintUsage(help ? stdout : stderr);
        return help ? lumora::cli::kOk : lumora::cli::kUsage;
    }
    const Command* command = FindCommand(words[0]);
    if (command == nullptr) {
        fprintf(stderr, "lumora: unknown command %s\n", words[0].c_str());
        PrintUsage(stderr);
        return lumora::cli::kUsage;
    }
    if (help) {
        PrintCommandHelp(stdout, *command);
        return lumora::cli::kOk;
    }
    std::vector<std::string> args(words.begin() + 1, words.end());
    if (args.size() < command->minArgs || args.size() > command->maxArgs) {
        PrintCommandHelp(stderr, *command);
        return lumora::cli::kUsage;
    }
    return command->run(options, args);
}
