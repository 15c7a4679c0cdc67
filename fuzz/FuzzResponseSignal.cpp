// Fuzzes the handler of the service's "Response" signal with any parameters:
// a type string and untrusted serialised data from the input, handed to
// DBusClient::OnSubscribe as GIO would hand a signal's body. No bus is
// needed: the handler uses only its parameters and the client.
//
// Input: one byte choosing the subscriptions, the type string, a NUL, then
// the serialised value. The checks: a body of another type than (iss) reaches
// nobody and changes nothing; otherwise every non-null callback of the
// subject gets it once, in order, with the texts unchanged (valid UTF-8),
// and a subject nobody subscribed to is a control word ("HELLO" starts the
// service and adds its whitelist, "BYE" stops it) or is dropped.
#include <lumora/DBusClient.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "JsonSupport.h"

using fuzz::Check;

namespace {

constexpr const char* kSubject = "Ctx/Test/Subject";
constexpr const char* kProcessName = "fuzz-response-signal";

struct Delivered {
    int callback;
    std::string subject;
    std::string data;
};

std::vector<Delivered> g_delivered;

void Record(int callback, const char* subject, char* data) {
    Check(subject != nullptr && data != nullptr);
    Check(fuzz::IsUtf8(subject) && fuzz::IsUtf8(data));
    g_delivered.push_back({callback, subject, data});
}

void CallbackA(const char* subject, char* data, void* userData) {
    Check(userData == &g_delivered);
    Record(1, subject, data);
}

void CallbackB(const char* subject, char* data, void* userData) {
    Check(userData == nullptr);
    Record(2, subject, data);
}

// The names of a whitelist text as the client reads it, or none when the text
// is not JSON (then the list must stay as it was: empty here).
std::vector<std::string> WhiteListNames(const std::string& text, bool& parsed) {
    std::vector<std::string> names;
    Json::Value root;
    parsed = fuzz::ParseJson(text, root);
    if (parsed && root.isObject() && root.isMember("WhiteList") && root["WhiteList"].isArray()) {
        for (const Json::Value& name : root["WhiteList"]) {
            if (name.isString()) names.push_back(name.asString());
        }
    }
    return names;
}

bool Admits(DBusClient* client, const std::string& name) {
    client->SetProcessName(name.c_str());
    bool admitted = client->CheckWhiteListProcess();
    client->SetProcessName(kProcessName);
    return admitted;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    DBusClient::GetInstance()->SetProcessName(kProcessName);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    uint8_t subscriptions = data[0];
    GVariant* body = fuzz::UntrustedVariant(reinterpret_cast<const char*>(data + 1), size - 1);
    if (body == nullptr) return 0;

    // A client of a known state: no subscription, no whitelist, service
    // available or not as the selector says. Expired start-callback timers
    // of earlier "HELLO"s run here (the main loop is not run otherwise).
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    DBusClient* client = DBusClient::GetInstance();
    client->Finalize();
    if (subscriptions & 0x80) client->SubscribeStateCheck("HELLO", "{}");
    bool availableBefore = client->IsAvailable();
    Check(availableBefore == ((subscriptions & 0x80) != 0));

    // What the body says, read on its own from the normal form.
    bool isResponse = g_variant_is_of_type(body, G_VARIANT_TYPE("(iss)"));
    std::string subject, text;
    if (isResponse) {
        GVariant* normal = g_variant_get_normal_form(body);
        gint32 unused = 0;
        const gchar *s = nullptr, *d = nullptr;
        g_variant_get(normal, "(i&s&s)", &unused, &s, &d);
        subject = s;
        text = d;
        g_variant_unref(normal);
    }

    // The subscriptions: in table order, (subject, callback) pairs.
    std::vector<std::pair<std::string, int>> table;
    auto subscribe = [&](const std::string& on, LumoraSubjectCb callback, void* userData, int id) {
        if (client->__InsertSubscribe(on.c_str(), callback, userData)) table.emplace_back(on, id);
    };
    if (subscriptions & 0x01) subscribe(kSubject, CallbackA, &g_delivered, 1);
    if (subscriptions & 0x02) subscribe(kSubject, nullptr, nullptr, 0);
    if (subscriptions & 0x04) subscribe(kSubject, CallbackB, nullptr, 2);
    if ((subscriptions & 0x08) && isResponse) subscribe(subject, CallbackB, nullptr, 2);
    if ((subscriptions & 0x10) && isResponse) subscribe(subject, CallbackA, &g_delivered, 1);
    if (subscriptions & 0x20) subscribe("HELLO", CallbackA, &g_delivered, 1);
    bool subscribedToSubject = false;
    std::vector<int> expected;
    for (const auto& [on, id] : table) {
        if (!isResponse || on != subject) continue;
        subscribedToSubject = true;
        if (id != 0) expected.push_back(id);
    }

    g_delivered.clear();
    DBusClient::OnSubscribe(nullptr, ":1.1", "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2", "Response",
                            body, client);

    Check(g_delivered.size() == expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        Check(g_delivered[i].callback == expected[i]);
        Check(g_delivered[i].subject == subject);
        Check(g_delivered[i].data == text);
    }

    bool hello = isResponse && !subscribedToSubject && subject == "HELLO";
    bool bye = isResponse && !subscribedToSubject && subject == "BYE";
    if (hello) {
        Check(client->IsAvailable());
        bool parsed = false;
        std::vector<std::string> names = WhiteListNames(text, parsed);
        for (const std::string& name : names) {
            if (name.find('\0') == std::string::npos) Check(Admits(client, name));
        }
        if (!parsed) Check(!Admits(client, "fuzz-not-listed"));
    } else if (bye) {
        Check(!client->IsAvailable());
    } else {
        Check(client->IsAvailable() == availableBefore);
        // Nothing but "HELLO" adds to the whitelist.
        for (const std::string& name : {std::string(), subject, text}) {
            if (name != "lumora-agent") Check(!Admits(client, name));
        }
    }
    Check(Admits(client, "lumora-agent"));

    client->Finalize();
    g_variant_unref(body);
    return 0;
}
