// lumora: the texts a command is given. They travel as D-Bus strings, which
// must be valid UTF-8; a value given as "-" is read from standard input.
#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Cli.h"

namespace lumora::cli {

namespace {

// More than the system bus carries in one message by default (32 MiB): such a
// value could never be sent, and /dev/zero must not fill the memory.
constexpr size_t kMaxStandardInput = 32u << 20;

bool IsText(const std::string& text) {
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

// The line of the usage that describes the command with args: a line of the
// help "  lumora NAME <args[0]> ..." when there is one (the forms of
// "channels"), else the synopsis.
std::string UsageLine(const Command& command, const std::vector<std::string>& args) {
    if (!args.empty()) {
        const std::string form = std::string("  lumora ") + command.name + " " + args[0];
        for (const char* line = command.help; line != nullptr && *line != '\0';) {
            const char* end = strchr(line, '\n');
            std::string text(line, end != nullptr ? static_cast<size_t>(end - line) : strlen(line));
            if (text == form || text.rfind(form + " ", 0) == 0) return text.substr(form.size() - args[0].size());
            line = end != nullptr ? end + 1 : nullptr;
        }
    }
    return command.synopsis;
}

// The argument names of a usage line in order, "" where it has a literal
// word; options in brackets ("[--timeout SECONDS]") are left out.
std::vector<std::string> ArgumentNames(const std::string& usage) {
    std::vector<std::string> names;
    gchar** words = g_strsplit(usage.c_str(), " ", -1);
    bool inOption = false;
    for (gchar** word = words; *word != nullptr; ++word) {
        std::string text(*word);
        if (text.empty()) continue;
        if (text.rfind("[--", 0) == 0) inOption = true;
        if (inOption) {
            inOption = text.find(']') == std::string::npos;
            continue;
        }
        text.erase(0, text.find_first_not_of('['));
        text = text.substr(0, text.find_first_of("].|"));
        bool capitals = !text.empty() && text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") == std::string::npos;
        names.push_back(capitals ? text : "");
    }
    g_strfreev(words);
    return names;
}

// "SUBJECT", or "argument N" where the usage has no name; the last name
// stands for every further argument ("SUBJECT...").
std::string ArgumentName(const std::vector<std::string>& names, size_t index) {
    std::string name = names.empty() ? "" : names[std::min(index, names.size() - 1)];
    return name.empty() ? "argument " + std::to_string(index + 1) : name;
}

}  // namespace

bool ArgumentsAreText(const Command& command, const std::vector<std::string>& args, const Options& options) {
    std::vector<std::string> names = ArgumentNames(UsageLine(command, args));
    for (size_t i = 0; i < args.size(); ++i) {
        if (IsText(args[i])) continue;
        Warn(ArgumentName(names, i) + " is not valid UTF-8");
        return false;
    }
    const std::pair<const char*, const std::optional<std::string>*> values[] = {{"--source", &options.source},
                                                                                {"--service-id", &options.serviceId}};
    for (const auto& [option, value] : values) {
        if (!value->has_value() || IsText(**value)) continue;
        Warn(std::string(option) + " is not valid UTF-8");
        return false;
    }
    return true;
}

bool ReadStandardInput(std::string& text, std::string& reason) {
    text.clear();
    char buffer[65536];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, stdin)) > 0) {
        if (text.size() + got > kMaxStandardInput) {
            reason = "standard input holds more than " + std::to_string(kMaxStandardInput >> 20) +
                     " MiB, more than the bus carries in one message";
            return false;
        }
        text.append(buffer, got);
    }
    if (ferror(stdin)) {
        reason = std::string("cannot read standard input: ") + strerror(errno);
        return false;
    }
    // "echo VALUE | lumora ..." ends the value with a newline it does not mean.
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return true;
}

bool ValueArgument(const std::string& arg, const std::string& name, std::string& value) {
    std::string reason;
    if (arg != "-") {
        value = arg;
    } else if (!ReadStandardInput(value, reason)) {
        Warn(reason);
        return false;
    }
    if (IsText(value)) return true;
    Warn(name + (arg == "-" ? " (standard input)" : "") + " is not valid UTF-8");
    return false;
}

bool ParseWholeSeconds(const std::string& text, unsigned& seconds) {
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long value = strtoul(text.c_str(), nullptr, 10);
    if (value < 1 || value > kMaxTimeoutSeconds) return false;
    seconds = static_cast<unsigned>(value);
    return true;
}

}  // namespace lumora::cli
