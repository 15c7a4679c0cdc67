// Fuzzes where the hint and recommended lists are looked up: the hint type
// picks a key of the settings store (a real SQLite store in a scratch
// folder), the recommended list's "group" picks the subject read from the
// service (an in-process bus, FakeBus.h, that records the read).
//
// Input: requester, NUL, hint type, NUL, recommended-list json. An empty
// requester stands for NULL.
//
// Checks: "source", "setting" and "channel" (exactly) read their own list,
// any other non-empty type the general one and never a key made from the
// type; NULL or empty arguments and texts that are not UTF-8 read nothing.
// "HomeAppReordering" and "AccessibilityShortCut" read their subject with the
// json itself as input and return the service's text; anything else returns
// "{error}" without asking the service.
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-platform.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FakeBus.h"
#include "FuzzSupport.h"
#include "JsonSupport.h"

using fuzz::Check;

namespace {

constexpr const char* kPrefix = "db/lumora-service/";
constexpr const char* kTypes[] = {"source", "setting", "channel"};
constexpr const char* kGeneralList = "general hint list";
constexpr const char* kRecommended = "{\"list\":[\"recommended\"]}";
constexpr double kReadTimeoutSeconds = 1.0;

std::string HintValue(const char* type) { return std::string(type) + " hint list"; }

// Makes the service available when it is not yet (the start found no ready
// marker): true once it is.
bool ServiceAvailable() {
    if (LMFServiceAPI::IsAvailable()) return true;
    fuzz::FakeBus::Start().EmitResponse("HELLO", "{}");
    return fuzz::RunMainContextUntil([] { return LMFServiceAPI::IsAvailable(); }, 5.0);
}

void CheckHint(const char* requester, const std::string& type) {
    bool known = false;
    for (const char* own : kTypes) known = known || type == own;
    // A list stored under a key made from any other type must not be read.
    if (!known && !type.empty()) Check(settings_set_str((kPrefix + type + "_hintlist").c_str(), "wrong list") == 0);

    char* value = Lumora_ReadHintList(requester, type.c_str());
    bool readable = requester != nullptr && !type.empty() && fuzz::IsUtf8(requester) && fuzz::IsUtf8(type);
    if (!readable) {
        Check(value == nullptr);
        return;
    }
    Check(value != nullptr);
    Check(std::string(value) == (known ? HintValue(type.c_str()) : std::string(kGeneralList)));
    free(value);
}

// The subject that json's group reads, or null for none.
const char* ExpectedSubject(const std::string& json) {
    Json::Value input;
    if (!fuzz::IsUtf8(json) || !fuzz::ParseJson(json, input) || !input.isObject()) return nullptr;
    if (!input.isMember("group") || input["group"].isNull()) return nullptr;
    std::string group = fuzz::ScalarText(input["group"]);
    if (group == "HomeAppReordering") return "Data/App/Recommended/List";
    if (group == "AccessibilityShortCut") return "Data/Setting/Recommended/List";
    return nullptr;
}

void CheckRecommended(const std::string& json) {
    fuzz::FakeBus& bus = fuzz::FakeBus::Start();
    auto stale = bus.TakeCalls();
    fuzz::FakeBus::Release(stale);

    gint64 start = g_get_monotonic_time();
    char* answer = Lumora_ReadRecommendedList(json.c_str());
    double elapsed = static_cast<double>(g_get_monotonic_time() - start) / G_USEC_PER_SEC;
    std::vector<fuzz::FakeBus::Call> calls = bus.TakeCalls();

    if (json.empty()) {
        Check(answer == nullptr && calls.empty());
        return;
    }
    Check(answer != nullptr);
    const char* subject = ExpectedSubject(json);
    if (subject == nullptr) {
        Check(strcmp(answer, "{error}") == 0);
        Check(calls.empty());
    } else {
        // One read of the group's subject, with the json itself as input.
        Check(calls.size() == 1 && calls[0].method == "RequestSync");
        GVariant* parameters = calls[0].parameters;
        Check(parameters != nullptr && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iiiss)")));
        gint32 pid = 0, type = 0, id = 0;
        const gchar *sent = nullptr, *input = nullptr;
        g_variant_get(parameters, "(iii&s&s)", &pid, &type, &id, &sent, &input);
        Check(pid == static_cast<gint32>(getpid()) && type == 1 && id > 0);
        Check(strcmp(sent, subject) == 0 && json == input);
        // The service's text, unless the read ran out of time.
        if (elapsed < kReadTimeoutSeconds * 0.8) Check(strcmp(answer, kRecommended) == 0);
        if (strcmp(answer, kRecommended) != 0) Check(strcmp(answer, "{error}") == 0);
    }
    free(answer);
    fuzz::FakeBus::Release(calls);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    std::string folder = fuzz::ScratchFolder();
    setenv("LUMORA_SETTINGS_DB", (folder + "/settings.db").c_str(), 1);
    for (const char* type : kTypes) {
        std::string key = std::string(kPrefix) + type + "_hintlist";
        Check(settings_set_str(key.c_str(), HintValue(type).c_str()) == 0);
    }
    Check(settings_set_str((std::string(kPrefix) + "hintlist").c_str(), kGeneralList) == 0);

    fuzz::FakeBus& bus = fuzz::FakeBus::Start();
    bus.Answer("RequestSync", g_variant_new("(is)", 0, kRecommended));
    Check(Lumora_InitServiceWithResponse(nullptr, nullptr) != LMF_INIT_CONNECTION_FAILED);
    Check(ServiceAvailable());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts = fuzz::SplitAtNul(data, size, 3);
    const char* requester = parts[0].empty() ? nullptr : parts[0].c_str();
    CheckHint(requester, parts[1]);
    Check(Lumora_ReadHintList(parts[0].c_str(), nullptr) == nullptr);

    Check(ServiceAvailable());
    CheckRecommended(parts[2]);
    Check(Lumora_ReadRecommendedList(nullptr) == nullptr);
    return 0;
}
