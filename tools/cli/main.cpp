// lumora: the command-line client of the context service, for people and
// scripts. Values go to stdout, diagnostics to stderr; exit status 0 on
// success, 1 on failure, 2 on a usage error.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "Cli.h"

namespace {

using lumora::cli::Command;
using lumora::cli::Commands;

// The synopsis column is as wide as the widest synopsis.
int SynopsisWidth() {
    size_t width = 0;
    for (const Command& command : Commands()) width = std::max(width, strlen(command.synopsis));
    return static_cast<int>(width);
}

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: lumora [-v] [--pretty] COMMAND [ARGS...]\n"
            "\n"
            "Talks to the television's context service over the system bus\n"
            "(DBUS_SYSTEM_BUS_ADDRESS when set).\n"
            "\n"
            "commands:\n");
    int width = SynopsisWidth();
    for (const Command& command : Commands())
        fprintf(out, "  %-9s %-*s  %s\n", command.name, width, command.synopsis, command.description);
    fprintf(out,
            "\n"
            "options:\n"
            "  -v          show the library's log on stderr (LUMORA_LOG_FILE, LUMORA_LOG_LEVEL apply)\n"
            "  --pretty    indent JSON values\n"
            "  -h, --help  this help; lumora COMMAND --help for a command\n"
            "  --version   the version\n");
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

bool UsesSettingsStoreOnly(const Command& command) {
    return strcmp(command.name, "settings") == 0 || strcmp(command.name, "hints") == 0;
}

// What the command line says, before the command is known.
struct CommandLine {
    lumora::cli::Options options;
    unsigned given = lumora::cli::kNoOptions;  // command options that were used
    std::vector<std::string> words;
    bool help = false;
    bool version = false;
};

// The option of one CommandOption bit, as it is written.
const char* OptionName(unsigned option) {
    switch (option) {
        case lumora::cli::kTimeoutOption:
            return "--timeout";
        case lumora::cli::kInitialOption:
            return "--initial";
        case lumora::cli::kSourceOption:
            return "--source";
        case lumora::cli::kWatchOption:
            return "--watch";
        default:
            return "--service-id";
    }
}

// The value of an option that takes any text; the command checks it. False
// with the reason printed when there is none.
bool TakeValue(int argc, char** argv, int& i, unsigned option, const char* what, CommandLine& line,
               std::optional<std::string>& value) {
    if (i + 1 >= argc || argv[i + 1][0] == '\0') {
        fprintf(stderr, "lumora: %s takes %s\n", OptionName(option), what);
        return false;
    }
    value = argv[++i];
    line.given |= option;
    return true;
}

// Takes argv[i] as an option, and its value from argv[i + 1] when it has one.
// False with the reason printed on a usage error.
bool TakeOption(int argc, char** argv, int& i, CommandLine& line) {
    std::string arg = argv[i];
    if (arg == "-v") {
        line.options.verbose = true;
    } else if (arg == "--pretty") {
        line.options.pretty = true;
    } else if (arg == "-h" || arg == "--help") {
        line.help = true;
    } else if (arg == "--version") {
        line.version = true;
    } else if (arg == "--initial") {
        line.options.initial = true;
        line.given |= lumora::cli::kInitialOption;
    } else if (arg == "--watch") {
        line.options.watch = true;
        line.given |= lumora::cli::kWatchOption;
    } else if (arg == "--timeout") {
        if (i + 1 >= argc || !lumora::cli::ParseWholeSeconds(argv[i + 1], line.options.timeoutSeconds)) {
            fprintf(stderr, "lumora: --timeout takes whole seconds from 1 to %u\n", lumora::cli::kMaxTimeoutSeconds);
            return false;
        }
        ++i;
        line.given |= lumora::cli::kTimeoutOption;
    } else if (arg == "--source") {
        return TakeValue(argc, argv, i, lumora::cli::kSourceOption, "a source type", line, line.options.source);
    } else if (arg == "--service-id") {
        return TakeValue(argc, argv, i, lumora::cli::kServiceIdOption, "a service id", line, line.options.serviceId);
    } else {
        fprintf(stderr, "lumora: unknown option %s\n", arg.c_str());
        return false;
    }
    return true;
}

bool ParseCommandLine(int argc, char** argv, CommandLine& line) {
    bool literal = false;
    bool ownOptions = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        // A command with options of its own reads the rest itself.
        if (line.words.size() == 1 && !ownOptions) {
            const Command* command = FindCommand(line.words[0]);
            ownOptions = command != nullptr && (command->options & lumora::cli::kOwnOptions) != 0;
        }
        if (ownOptions && arg != "-h" && arg != "--help") {
            line.words.push_back(arg);
        } else if (!literal && arg == "--") {
            literal = true;
        } else if (!literal && arg.size() > 1 && arg[0] == '-') {
            if (!TakeOption(argc, argv, i, line)) return false;
        } else {
            line.words.push_back(arg);
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine line;
    if (!ParseCommandLine(argc, argv, line)) {
        PrintUsage(stderr);
        return lumora::cli::kUsage;
    }
    if (line.version) {
        printf("lumora %s\n", LUMORA_VERSION);
        return lumora::cli::kOk;
    }
    // The library logs every request; a script wants only the value.
    if (!line.options.verbose) setenv("LUMORA_LOG_LEVEL", "none", 1);

    if (line.words.empty()) {
        PrintUsage(line.help ? stdout : stderr);
        return line.help ? lumora::cli::kOk : lumora::cli::kUsage;
    }
    const Command* command = FindCommand(line.words[0]);
    if (command == nullptr) {
        fprintf(stderr, "lumora: unknown command %s\n", line.words[0].c_str());
        PrintUsage(stderr);
        return lumora::cli::kUsage;
    }
    if (line.help) {
        PrintCommandHelp(stdout, *command);
        return lumora::cli::kOk;
    }
    if (unsigned stray = line.given & ~command->options; stray != 0) {
        fprintf(stderr, "lumora: %s does not apply to %s\n", OptionName(stray & -stray /* the lowest bit */),
                command->name);
        PrintCommandHelp(stderr, *command);
        return lumora::cli::kUsage;
    }
    std::vector<std::string> args(line.words.begin() + 1, line.words.end());
    if (args.size() < command->minArgs || args.size() > command->maxArgs) {
        PrintCommandHelp(stderr, *command);
        return lumora::cli::kUsage;
    }
    // Refused before anything is started or sent. The settings store's
    // commands keep their own rules: their texts never go on the bus.
    if (!UsesSettingsStoreOnly(*command) && !lumora::cli::ArgumentsAreText(*command, args, line.options))
        return lumora::cli::kFailed;
    return command->run(line.options, args);
}
