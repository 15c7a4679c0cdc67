// lumora: the channels command, the channel list services as applications
// use them: the filtered list, the service's order of candidates, removals,
// and the channel events.
#include <lumora/lumora-api.h>
#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Cli.h"

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;

// One form of the command: its first word, what follows it, and the options
// it takes.
struct Form {
    const char* word;
    const char* usage;
    size_t args;  // words after the first
    unsigned options;
};

constexpr Form kList = {"list", "lumora channels [list] [--source rf|stb|all]", 0, kSourceOption};
constexpr Form kReorder = {"reorder", "lumora channels reorder JSON_ARRAY [--source N]", 1, kSourceOption};
constexpr Form kRemove = {"remove", "lumora channels remove MAJOR MINOR TYPE [--service-id ID]", 3, kServiceIdOption};
constexpr Form kWatch = {"watch", "lumora channels watch [--source rf|stb|all]", 0, kSourceOption};

int Usage(const Form& form, const std::string& reason) {
    if (!reason.empty()) Warn(reason);
    fprintf(stderr, "usage: %s\n", form.usage);
    return kUsage;
}

// The removal types by their number (LMF_SRC_EXT_TYPE).
constexpr const char* kRemovalTypes[] = {"air",   "cable", "satellite", "hdmi1", "hdmi2",
                                         "hdmi3", "hdmi4", "hdmi5",     "hdmi6"};
constexpr int kRemovalTypeCount = static_cast<int>(sizeof kRemovalTypes / sizeof kRemovalTypes[0]);

// Whole numbers in int's range, with an optional sign.
bool ParseInt(const std::string& text, int& value) {
    size_t digits = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos) return false;
    errno = 0;
    long number = strtol(text.c_str(), nullptr, 10);
    if (errno == ERANGE || number < INT_MIN || number > INT_MAX) return false;
    value = static_cast<int>(number);
    return true;
}

// A name, in any case, or its number.
bool ParseRemovalType(const std::string& text, LMF_SRC_EXT_TYPE& type) {
    int number = -1;
    if (!ParseInt(text, number)) {
        for (int i = 0; i < kRemovalTypeCount; ++i) {
            if (strcasecmp(text.c_str(), kRemovalTypes[i]) == 0) number = i;
        }
    }
    if (number < 0 || number >= kRemovalTypeCount) return false;
    type = static_cast<LMF_SRC_EXT_TYPE>(number);
    return true;
}

// The source type of list and watch; all when none is given.
bool ParseSourceType(const Options& options, LMF_SRC_TYPE& source) {
    source = LMF_SRC_ALL;
    if (!options.source) return true;
    const char* text = options.source->c_str();
    if (strcasecmp(text, "rf") == 0) {
        source = LMF_SRC_RF;
    } else if (strcasecmp(text, "stb") == 0) {
        source = LMF_SRC_STB;
    } else if (strcasecmp(text, "all") != 0) {
        return false;
    }
    return true;
}

// The library filters every list by the source type stored for this process.
bool StartWithSourceType(LMF_SRC_TYPE source) {
    if (!StartService()) return false;
    CS_SetSourceAndModel(source, LMF_MODEL_DEFAULT);
    return true;
}

int List(const Options& options, const Args&) {
    LMF_SRC_TYPE source = LMF_SRC_ALL;
    if (!ParseSourceType(options, source)) return Usage(kList, "--source takes rf, stb or all");
    if (!StartWithSourceType(source)) return kFailed;
    int count = 0;
    OwnedText list(CS_GetChannelList(&count));
    // No stop, as after any read: nothing is queued, and the process exits.
    if (!list)
        return Fail(
            "cannot read the channel list (no answer from the context service, an error code, or an answer "
            "that is not JSON)");
    // An answer that did not say "Success" comes as it is, with no channels
    // counted: it is printed all the same, since its "Reason" says why.
    PrintValue(options, list.get());
    fprintf(stderr, "%d channel%s\n", count, count == 1 ? "" : "s");
    return kOk;
}

int Reorder(const Options& options, const Args& args) {
    int source = 0;
    if (options.source && !ParseInt(*options.source, source)) return Usage(kReorder, "--source takes an integer");
    Json::Value candidates;
    if (!ParseJsonInput(args[0], candidates)) return Usage(kReorder, "JSON_ARRAY is not JSON: " + args[0]);
    if (!candidates.isArray())
        return Usage(kReorder, "JSON_ARRAY is not a JSON array of {\"major\":M,\"minor\":N}: " + args[0]);
    // The library refuses an empty list without asking the service.
    if (candidates.empty()) return Usage(kReorder, "JSON_ARRAY holds no channel");
    if (!StartService()) return kFailed;
    OwnedText order(CS_ReorderChannelList(args[0].c_str(), source));
    if (!order)
        return Fail(
            "the context service did not reorder the channels (no answer, an error code, or an answer that "
            "is not JSON)");
    PrintValue(options, order.get());
    return kOk;
}

int Remove(const Options& options, const Args& args) {
    int major = 0;
    int minor = 0;
    LMF_SRC_EXT_TYPE type = LMF_SRC_EXT_AIR;
    if (!ParseInt(args[0], major)) return Usage(kRemove, "MAJOR is not an integer: " + args[0]);
    if (!ParseInt(args[1], minor)) return Usage(kRemove, "MINOR is not an integer: " + args[1]);
    if (!ParseRemovalType(args[2], type))
        return Usage(kRemove, "unknown TYPE " + args[2] + " (air, cable, satellite, hdmi1 to hdmi6, or 0 to 8)");
    if (!StartService()) return kFailed;
    bool sent = options.serviceId
                    ? CS_RemoveChannelFromListWithServiceID(major, minor, options.serviceId->c_str(), type)
                    : CS_RemoveChannelFromList(major, minor, type);
    // The last stop flushes the queued write.
    StopService();
    return sent ? kOk : Fail("the removal of channel " + args[0] + "-" + args[1] + " was not sent");
}

const char* EventName(LMF_EVENT_TYPE event) {
    switch (event) {
        case LMF_EVENT_CHANNEL_LIST:
            return "list";
        case LMF_EVENT_RESERVED:
            return "reserved";
        case LMF_EVENT_PROGRAM_CHANGED:
            return "program";
        case LMF_EVENT_STB_STATUS:
            return "stb";
        default:
            return "unknown";
    }
}

// On the main loop thread, with the library's service mutex held: it only
// prints. The data is a copy that is ours to free.
void OnChannelEvent(LMF_EVENT_TYPE event, char* data, int count, void*) {
    OwnedText owned(data);
    // Written by hand to keep the fields in this order: jsoncpp sorts keys.
    PrintText("{\"event\":\"" + std::string(EventName(event)) +
              "\",\"code\":" + std::to_string(static_cast<int>(event)) + ",\"count\":" + std::to_string(count) +
              ",\"data\":" + EventData(owned ? owned.get() : "") + "}");
}

// Registers, prints, and waits for the loop to be stopped. After a restart of
// the service the library subscribes again by itself, so the events go on.
int Follow(LMF_SRC_TYPE source, GMainLoop* loop) {
    if (!StartWithSourceType(source)) return kFailed;
    if (!CS_RegisterChannelCallback(OnChannelEvent, nullptr)) {
        StopService();
        return Fail("the library refused the channel events (their subscriptions failed)");
    }
    g_main_loop_run(loop);
    CS_UnRegisterChannelCallback();
    StopService();
    return kOk;
}

int Watch(const Options& options, const Args&) {
    LMF_SRC_TYPE source = LMF_SRC_ALL;
    if (!ParseSourceType(options, source)) return Usage(kWatch, "--source takes rf, stb or all");
    return FollowUntilStopped([source](GMainLoop* loop) { return Follow(source, loop); });
}

// The option that form does not take, 0 when there is none.
unsigned StrayOption(const Options& options, const Form& form) {
    unsigned given = (options.source ? kSourceOption : 0u) | (options.serviceId ? kServiceIdOption : 0u);
    unsigned stray = given & ~form.options;
    return stray & -stray;  // the lowest bit
}

}  // namespace

int RunChannels(const Options& options, const Args& args) {
    static const struct {
        const Form* form;
        int (*run)(const Options&, const Args&);
    } kForms[] = {{&kList, List}, {&kReorder, Reorder}, {&kRemove, Remove}, {&kWatch, Watch}};

    // No first word is a list.
    std::string word = args.empty() ? kList.word : args[0];
    Args rest(args.empty() ? args.begin() : args.begin() + 1, args.end());
    for (const auto& [form, run] : kForms) {
        if (word != form->word) continue;
        if (unsigned stray = StrayOption(options, *form); stray != 0) {
            return Usage(*form, std::string(stray == kSourceOption ? "--source" : "--service-id") +
                                    " does not apply to channels " + form->word);
        }
        if (rest.size() != form->args) return Usage(*form, "");
        return run(options, rest);
    }
    Warn("unknown channels action " + word + " (list, reorder, remove or watch)");
    for (const auto& entry : kForms)
        fprintf(stderr, "%s %s\n", entry.form == &kList ? "usage:" : "      ", entry.form->usage);
    return kUsage;
}

}  // namespace lumora::cli
