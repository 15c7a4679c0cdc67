// Fuzzes the item lists kept in the settings store: a stored value (what any
// earlier writer left, maybe not JSON at all) and a caller's input, then
// Lumora_WriteItemList and Lumora_STAction against a real SQLite store in a
// scratch folder.
//
// Input: stored value, NUL, item-list json, NUL, action uri. An empty stored
// value means no value at all; an empty uri means a NULL uri. The action's
// data is the item-list json.
//
// Checks: a refused write leaves the store as it was; an accepted one stores
// valid UTF-8 JSON that is exactly the stored lists edited as documented (the
// input under its own group, other groups kept; the shortcut group alone,
// with its mode, its list, and on "edit" its earlier default list). The
// action stored is {"uri":...,"data":...} with both texts unchanged.
#include <lumora/lumora-c.h>
#include <lumora/lumora-platform.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "JsonSupport.h"

using fuzz::Check;

namespace {

constexpr const char* kItemListKey = "db/lumora-service/itemlist";
constexpr const char* kActionKey = "memory/lumora-agent/STAction";
constexpr const char* kShortCutGroup = "AccessibilityShortCut";

std::string g_database;

// settings_set_str cannot remove a key; the store is a plain SQLite table.
void RemoveKey(const char* key) {
    sqlite3* db = nullptr;
    Check(sqlite3_open(g_database.c_str(), &db) == SQLITE_OK);
    sqlite3_stmt* stmt = nullptr;
    Check(sqlite3_prepare_v2(db, "DELETE FROM settings WHERE key = ?1", -1, &stmt, nullptr) == SQLITE_OK);
    sqlite3_bind_text(stmt, 1, key, -1, SQLITE_STATIC);
    Check(sqlite3_step(stmt) == SQLITE_DONE);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
}

// The stored value of key, and whether there is one.
bool Stored(const char* key, std::string& value) {
    char* text = settings_get_str(key);
    if (text == nullptr) return false;
    value = text;
    free(text);
    return true;
}

// What the item lists must be after an accepted write of input over the
// stored text (absent when !hadStored).
Json::Value ExpectedLists(bool hadStored, const std::string& storedText, const Json::Value& input) {
    Json::Value stored(Json::objectValue);
    if (hadStored) {
        Json::Value parsed;
        if (fuzz::ParseJson(storedText, parsed)) stored = parsed;
    }
    std::string group = fuzz::ScalarText(input["group"]);
    if (group != kShortCutGroup) {
        // The whole input goes under its group; a stored value that is not
        // an object has no groups to keep.
        Json::Value result = stored.isObject() ? stored : Json::Value(Json::objectValue);
        result[group] = input;
        return result;
    }
    std::string mode = fuzz::ScalarText(input["mode"]);
    Json::Value entry(Json::objectValue);
    if (mode == "default") {
        entry["mode"] = "default";
        entry["default_list"] = input["list"];
    } else {
        // "edit" keeps whatever the group held, as long as it was an object.
        if (stored.isObject() && stored.isMember(kShortCutGroup) && !stored[kShortCutGroup].isNull())
            entry = stored[kShortCutGroup];
        if (!entry.isObject()) entry = Json::Value(Json::objectValue);
        entry["mode"] = "edit";
        entry["edit_list"] = input["list"];
    }
    Json::Value result(Json::objectValue);
    result[kShortCutGroup] = entry;
    return result;
}

// Whether Lumora_WriteItemList must accept input (the store itself works).
bool Acceptable(const std::string& json, Json::Value& input) {
    if (!fuzz::IsUtf8(json) || !fuzz::ParseJson(json, input) || !input.isObject()) return false;
    if (!input.isMember("group") || input["group"].isNull()) return false;
    if (!input.isMember("list") || input["list"].isNull()) return false;
    // A group name with a NUL, or an escaped lone surrogate anywhere, is refused.
    if (fuzz::ScalarText(input["group"]).find('\0') != std::string::npos) return false;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    if (!fuzz::IsUtf8(Json::writeString(writer, input))) return false;
    if (fuzz::ScalarText(input["group"]) != kShortCutGroup) return true;
    std::string mode = fuzz::ScalarText(input["mode"]);
    return mode == "default" || mode == "edit";
}

void CheckItemList(const std::string& storedPart, const std::string& json) {
    if (storedPart.empty()) {
        RemoveKey(kItemListKey);
    } else {
        Check(settings_set_str(kItemListKey, storedPart.c_str()) == 0);
    }
    std::string before;
    bool hadStored = Stored(kItemListKey, before);
    Check(hadStored == !storedPart.empty());
    if (hadStored) Check(before == storedPart);

    bool written = Lumora_WriteItemList(json.c_str());
    Json::Value input;
    Check(written == Acceptable(json, input));

    std::string after;
    bool hasStored = Stored(kItemListKey, after);
    if (!written) {
        // Refused: the store is as it was.
        Check(hasStored == hadStored && after == before);
        return;
    }
    Check(hasStored);
    Json::Value lists;
    Check(fuzz::ParseJson(after, lists) && lists.isObject());
    Check(lists == ExpectedLists(hadStored, before, input));
    // Another process reads this as JSON text: what was valid UTF-8 stays so.
    if (!hadStored || fuzz::IsUtf8(before)) Check(fuzz::IsUtf8(after));
}

void CheckAction(const std::string& uriPart, const std::string& data) {
    const char* uri = uriPart.empty() ? nullptr : uriPart.c_str();
    std::string before;
    bool hadStored = Stored(kActionKey, before);
    bool stored = Lumora_STAction(uri, data.c_str());
    Check(stored == (fuzz::IsUtf8(uriPart) && fuzz::IsUtf8(data)));
    std::string after;
    bool hasStored = Stored(kActionKey, after);
    if (!stored) {
        Check(hasStored == hadStored && after == before);
        return;
    }
    Json::Value action;
    Check(hasStored && fuzz::IsUtf8(after) && fuzz::ParseJson(after, action));
    Json::Value expected(Json::objectValue);
    expected["uri"] = uriPart;
    expected["data"] = data;
    Check(action == expected);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    g_database = fuzz::ScratchFolder() + "/settings.db";
    setenv("LUMORA_SETTINGS_DB", g_database.c_str(), 1);
    // Creates the store, so that a key can be removed from the first input on.
    Check(settings_set_str(kItemListKey, "{}") == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts = fuzz::SplitAtNul(data, size, 3);
    CheckItemList(parts[0], parts[1]);
    CheckAction(parts[2], parts[1]);
    // Neither function takes NULL text.
    Check(!Lumora_WriteItemList(nullptr) && !Lumora_STAction(nullptr, nullptr));
    return 0;
}
