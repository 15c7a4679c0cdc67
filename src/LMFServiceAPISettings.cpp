// LMFServiceAPI: hint, action and item lists kept in the platform's settings
// store, and the recommended lists asked of the service.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextData.h>
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-platform.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "LMFServiceAPIInternal.h"
#include "internal/Log.h"

namespace {

constexpr const char* kServiceKeyPrefix = "db/lumora-service/";
constexpr const char* kHintListSuffix = "hintlist";
constexpr const char* kSTActionKey = "memory/lumora-agent/STAction";
constexpr const char* kItemListKey = "db/lumora-service/itemlist";
constexpr const char* kShortCutGroup = "AccessibilityShortCut";
constexpr const char* kErrorText = "{error}";

// The hint types with a list of their own; compared exactly, case included.
constexpr const char* kHintTypes[] = {"source", "setting", "channel"};

std::string HintListKey(const char* type) {
    for (const char* known : kHintTypes) {
        if (strcmp(known, type) == 0) return std::string(kServiceKeyPrefix) + type + "_" + kHintListSuffix;
    }
    // Any other type reads the general list: not an error.
    return std::string(kServiceKeyPrefix) + kHintListSuffix;
}

// The line belongs to caller, STAction or WriteItemList.
bool StoreSetting(const char* caller, const char* key, const char* value) {
    if (settings_set_str(key, value) != 0) {
        LMF_LOGE_IN(caller, "failed to set setbank key (%s)", key);
        return false;
    }
    return true;
}

// The stored item lists; a missing or unreadable value counts as none.
ContextData LoadItemLists() {
    ContextData stored;
    char* text = settings_get_str(kItemListKey);
    stored.MakeData(text);
    free(text);
    return stored;
}

// The entry of the shortcut group for mode, or false for an unknown mode.
bool ShortCutEntry(ContextData& input, ContextData& stored, ContextData& entry) {
    std::string mode = input.GetValueStr("mode");
    ContextData list = input.GetValue("list");
    if (mode == "default") {
        entry.SetValue("mode", "default");
        entry.SetValueNoArry("default_list", list);
        return true;
    }
    if (mode == "edit") {
        // An edit keeps the group's earlier "default_list".
        if (stored.IsValid(kShortCutGroup)) entry = stored.GetValue(kShortCutGroup);
        entry.SetValue("mode", "edit");
        entry.SetValueNoArry("edit_list", list);
        return true;
    }
    LMF_LOGE_IN("WriteItemList", "[%s] mode (%s) error", kShortCutGroup, mode.c_str());
    return false;
}

}  // namespace

char* LMFServiceAPI::ReadHintList(const char* requester, const char* type) {
    if (requester == nullptr) {
        LMF_LOGE("Not Valid Requester");
        return nullptr;
    }
    if (type == nullptr || *type == '\0') {
        LMF_LOGE("Invalid Input");
        return nullptr;
    }
    if (!lumora::internal::AreSendable(__func__, {{"requester", requester}, {"type", type}})) return nullptr;
    LMF_LOGI("Called Read Hint List (%s, %s)", requester, type);
    std::string key = HintListKey(type);
    char* value = settings_get_str(key.c_str());
    LMF_LOGI("Read Hint List for Setbank %s is (%s)", key.c_str(), value != nullptr ? value : "fails");
    return value;
}

bool LMFServiceAPI::STAction(const char* uri, const char* data) {
    if (data == nullptr) {
        LMF_LOGE("NULL argument data");
        return false;
    }
    // The agent reads the action back as JSON text; bytes that are not UTF-8
    // would reach it as something else.
    if (!lumora::internal::AreSendable(__func__, {{"uri", uri}, {"data", data}})) return false;
    ContextData action;
    action.SetValue("uri", uri != nullptr ? uri : "");
    action.SetValue("data", data);
    const char* text = action.MakeStr();
    LMF_LOGI("ST Action setbank set as (%s)", text);
    return StoreSetting(__func__, kSTActionKey, text);
}

bool LMFServiceAPI::WriteItemList(const char* json) {
    if (json == nullptr) {
        LMF_LOGE("NULL argument data");
        return false;
    }
    if (!lumora::internal::AreSendable(__func__, {{"json", json}})) return false;
    ContextData input;
    if (!input.MakeData(json)) {
        LMF_LOGE("Json Parsing Failed");
        return false;
    }
    if (!input.IsValid("group") || !input.IsValid("list")) {
        LMF_LOGE("Invalid Input Parameter, Group or Item List not present: [%s]", json);
        return false;
    }
    std::string group = input.GetValueStr("group");
    // Refused rather than stored wrong: a group name holding "\u0000" would be
    // cut at it (and could overwrite another group), and a "\ud800"-style
    // escape of a lone surrogate would put text that is not UTF-8 into the
    // store, which its readers could not take.
    if (group.find('\0') != std::string::npos) {
        LMF_LOGE("Invalid Input Parameter, the group name holds a NUL character");
        return false;
    }
    if (!g_utf8_validate(input.MakeStr(), -1, nullptr)) {
        LMF_LOGE("Invalid Input Parameter, an escape in the input is not a whole UTF-8 character");
        return false;
    }
    LMF_LOGE("input %s", json);
    ContextData stored = LoadItemLists();
    ContextData result;
    if (group != kShortCutGroup) {
        stored.SetValueNoArry(group.c_str(), input);
        result = stored;
    } else {
        // The shortcut group is stored alone: writing it drops every other
        // group, which the launcher relies on.
        ContextData entry;
        if (!ShortCutEntry(input, stored, entry)) return false;
        result.SetValueNoArry(kShortCutGroup, entry);
    }
    const char* text = result.MakeStr();
    LMF_LOGI("Item List setbank set as (%s)", text);
    return StoreSetting(__func__, kItemListKey, text);
}

char* LMFServiceAPI::ReadRecommendedList(const char* json) {
    if (json == nullptr || *json == '\0') {
        LMF_LOGE("Invalid input. Input is null or empty");
        return nullptr;
    }
    // Refused like a json that does not parse: the service could never be sent it.
    if (!lumora::internal::AreSendable(__func__, {{"json", json}})) return strdup(kErrorText);
    LMF_LOGI("Called Read Recommended List (%s)", json);
    ContextData input;
    if (!input.MakeData(json) || !input.IsValid("group")) return strdup(kErrorText);
    std::string group = input.GetValueStr("group");
    const char* subject = nullptr;
    if (group == "HomeAppReordering") subject = "Data/App/Recommended/List";
    if (group == kShortCutGroup) subject = "Data/Setting/Recommended/List";
    std::string answer;
    // The caller's whole input goes to the service as the read's value.
    if (subject == nullptr || !Read(subject, json, answer)) return strdup(kErrorText);
    return strdup(answer.c_str());
}
