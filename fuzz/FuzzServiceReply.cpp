// Fuzzes the decoding of the service's replies as they come off the bus:
// "RequestSync" (Read), "RequestAsync" (Request, text and statistics
// subjects) and "ServiceEnable" (Initialize). The reply decoders only run on
// a real connection (the asynchronous one only inside the GAsyncResult
// handler), so the client is connected to an in-process bus (FakeBus.h) that
// answers with a reply body taken from the input, of any type.
//
// Input: one byte choosing the call (b % 4: 0 Read, 1 Request of a text
// subject, 2 Request of the statistics subject (b / 4) % 5, 3 Initialize),
// then a type string, a NUL and the serialised body (untrusted; a type that is
// not a tuple is wrapped in one). Bodies that D-Bus cannot carry are skipped.
//
// Checks: each call sends what it was given and decodes exactly the reply:
// Read returns the service's code and a copy of its text ("{}" gives -4), or
// -6 for another type; a request is answered once, with the text, with
// {"Status":"Error"}, or for a statistics subject with the records the
// payload holds (StatisticsCheck.h); Initialize reports the service ready
// only for (true, ...) and admits the whitelist's names. A call slow enough to
// have met its time-out is held only to what a time-out allows.
#include <lumora/DBusClient.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FakeBus.h"
#include "FuzzSupport.h"
#include "JsonSupport.h"
#include "StatisticsCheck.h"

using fuzz::Check;
using fuzz::FakeBus;

namespace {

constexpr const char* kProcessName = "fuzz-service-reply";
constexpr const char* kReadSubject = "Ctx/Fuzz/Read";
constexpr const char* kTextSubject = "Ctx/Fuzz/Request";
constexpr const char* kInput = "{\"from\":\"fuzz\"}";
constexpr const char* kErrorJson = "{\"Status\":\"Error\"}";

double SecondsSince(gint64 start) { return static_cast<double>(g_get_monotonic_time() - start) / G_USEC_PER_SEC; }

DBusClient* Client() { return DBusClient::GetInstance(); }

// Brings the service back after a call that left it unavailable.
void EnsureAvailable() {
    if (Client()->IsAvailable()) return;
    FakeBus::Start().Answer("ServiceEnable", nullptr);
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    Check(Client()->Initialize(&result, nullptr, nullptr));
    if (result == LMF_INIT_OK) return;
    FakeBus::Start().EmitResponse("HELLO", "{}");
    Check(fuzz::RunMainContextUntil([] { return Client()->IsAvailable(); }, 10.0));
}

// The service calls of method among calls.
std::vector<GVariant*> CallsOf(const std::vector<FakeBus::Call>& calls, const char* method) {
    std::vector<GVariant*> found;
    for (const FakeBus::Call& call : calls) {
        if (call.method == method) found.push_back(call.parameters);
    }
    return found;
}

// A request tuple as the client must send it.
void CheckRequestTuple(GVariant* parameters, int type, const char* subject) {
    Check(parameters != nullptr && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iiiss)")));
    gint32 pid = 0, sentType = 0, id = 0;
    const gchar *sentSubject = nullptr, *sentInput = nullptr;
    g_variant_get(parameters, "(iii&s&s)", &pid, &sentType, &id, &sentSubject, &sentInput);
    Check(pid == static_cast<gint32>(getpid()) && sentType == type && id > 0);
    Check(strcmp(sentSubject, subject) == 0 && strcmp(sentInput, kInput) == 0);
}

// ---- Read: "RequestSync" -------------------------------------------------------

void CheckRead(GVariant* body) {
    char sentinel = 0;
    char* output = &sentinel;
    gint64 start = g_get_monotonic_time();
    int result = Client()->Read(kReadSubject, kInput, &output);
    double elapsed = SecondsSince(start);

    std::vector<FakeBus::Call> calls = FakeBus::Start().TakeCalls();
    std::vector<GVariant*> reads = CallsOf(calls, "RequestSync");
    Check(reads.size() == 1);
    CheckRequestTuple(reads[0], 1, kReadSubject);

    int expected = -6;
    const gchar* text = nullptr;
    if (g_variant_is_of_type(body, G_VARIANT_TYPE("(is)"))) {
        gint32 code = 0;
        g_variant_get(body, "(i&s)", &code, &text);
        expected = strcmp(text, "{}") == 0 ? -4 : code;
    }
    bool copied = text != nullptr && expected != -4;
    // The call waits 1 s at most: a slower one may have timed out (-6).
    if (elapsed > 0.8 && result == -6 && output == &sentinel) {
        copied = false;
        expected = -6;
    }
    Check(result == expected);
    if (copied) {
        Check(output != &sentinel && output != nullptr && strcmp(output, text) == 0);
        free(output);
    } else {
        Check(output == &sentinel);
    }
    FakeBus::Release(calls);
}

// ---- Request: "RequestAsync" -----------------------------------------------------

struct Answer {
    int calls = 0;
    std::string subject;
    std::string text;
    bool statistics = false;  // data was a StatisticsResult
    // What a statistics answer must hold, set before the request.
    bool expectStatistics = false;
    GVariant* payload = nullptr;
};

void OnAnswer(const char* subject, char* data, void* userData) {
    auto* answer = static_cast<Answer*>(userData);
    ++answer->calls;
    Check(subject != nullptr && fuzz::IsUtf8(subject) && data != nullptr);
    answer->subject = subject;
    if (answer->expectStatistics) {
        // The records live only during the call: checked here.
        answer->statistics = true;
        fuzz::CheckStatistics(subject, answer->payload, *reinterpret_cast<StatisticsResult*>(data), 0);
        return;
    }
    Check(fuzz::IsUtf8(data));
    answer->text = data;
}

void CheckRequest(GVariant* body, const char* subject, bool statistics) {
    // What the reply says.
    bool wellFormed = g_variant_is_of_type(body, G_VARIANT_TYPE("(isv)"));
    gint32 code = -1;
    const gchar* replySubject = nullptr;
    GVariant* payload = nullptr;
    if (wellFormed) g_variant_get(body, "(i&sv)", &code, &replySubject, &payload);

    Answer answer;
    answer.expectStatistics = statistics && wellFormed && code == 0;
    answer.payload = payload;
    gint64 start = g_get_monotonic_time();
    Check(Client()->Request(subject, kInput, &OnAnswer, &answer) == 0);
    Check(fuzz::RunMainContextUntil([&answer] { return answer.calls > 0; }, 60.0));
    double elapsed = SecondsSince(start);
    // Anything else that was ready runs too: the answer must not come twice.
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    Check(answer.calls == 1);

    std::vector<FakeBus::Call> calls = FakeBus::Start().TakeCalls();
    std::vector<GVariant*> requests = CallsOf(calls, "RequestAsync");
    Check(requests.size() == 1);
    CheckRequestTuple(requests[0], 5, subject);

    if (elapsed > 20.0 && answer.text == kErrorJson) {
        // The bus's own time-out (25 s): only the error can be told.
    } else if (!wellFormed) {
        Check(answer.subject == subject && answer.text == kErrorJson);
    } else if (code != 0) {
        Check(answer.subject == replySubject && answer.text == kErrorJson);
    } else if (statistics) {
        Check(answer.subject == replySubject && answer.statistics);
    } else {
        Check(answer.subject == replySubject);
        const gchar* text = nullptr;
        if (g_variant_is_of_type(payload, G_VARIANT_TYPE("(s)"))) g_variant_get(payload, "(&s)", &text);
        Check(answer.text == (text != nullptr ? text : kErrorJson));
    }
    if (payload != nullptr) g_variant_unref(payload);
    FakeBus::Release(calls);
}

// ---- Initialize: "ServiceEnable" -------------------------------------------------

bool Admits(const std::string& name) {
    Client()->SetProcessName(name.c_str());
    bool admitted = Client()->CheckWhiteListProcess();
    Client()->SetProcessName(kProcessName);
    return admitted;
}

void CheckServiceEnable(GVariant* body) {
    FakeBus& bus = FakeBus::Start();
    bus.Answer("ServiceEnable", body);
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    gint64 start = g_get_monotonic_time();
    // On the open connection only the service is asked again.
    Check(Client()->Initialize(&result, nullptr, nullptr));
    double elapsed = SecondsSince(start);
    bus.Answer("ServiceEnable", nullptr);

    std::vector<FakeBus::Call> calls = bus.TakeCalls();
    Check(CallsOf(calls, "ServiceEnable").size() == 1);
    FakeBus::Release(calls);

    bool typed = g_variant_is_of_type(body, G_VARIANT_TYPE("(bs)"));
    gboolean enabled = FALSE;
    const gchar* whiteList = nullptr;
    if (typed) g_variant_get(body, "(b&s)", &enabled, &whiteList);
    // The question waits 0.3 s at most; a slower answer may have been lost.
    bool answered = elapsed < 0.25;

    Check(result == LMF_INIT_OK || result == LMF_INIT_SERVICE_NOT_READY);
    Check(Client()->IsAvailable() == (result == LMF_INIT_OK));
    if (result == LMF_INIT_OK) Check(typed && enabled);
    if (!answered) return;
    Check((result == LMF_INIT_OK) == (typed && enabled));
    // The whitelist comes with any answer of the right type, enabled or not;
    // each element is read as a text (an object or array as "").
    Json::Value root;
    std::vector<std::string> names;
    if (typed && fuzz::ParseJson(whiteList, root) && root.isObject() && root["WhiteList"].isArray()) {
        for (const Json::Value& name : root["WhiteList"]) names.push_back(fuzz::ScalarText(name));
    }
    auto listed = [&names](const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    for (const std::string& name : names) {
        if (name.find('\0') == std::string::npos) Check(Admits(name));
    }
    for (const std::string& name : {std::string(kProcessName), std::string(), std::string("fuzz-unlisted")})
        Check(Admits(name) == listed(name));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    FakeBus::Start();
    Client()->SetProcessName(kProcessName);
    LMF_INIT_RESULT result = LMF_INIT_CONNECTION_FAILED;
    Check(Client()->Initialize(&result, nullptr, nullptr));
    Check(result != LMF_INIT_CONNECTION_FAILED);
    EnsureAvailable();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    GVariant* untrusted = fuzz::UntrustedVariant(reinterpret_cast<const char*>(data + 1), size - 1);
    if (untrusted == nullptr) return 0;
    // What reaches the client is the value, in its normal form; a reply body
    // is a tuple.
    GVariant* value = g_variant_get_normal_form(untrusted);
    g_variant_unref(untrusted);
    GVariant* body = g_variant_is_of_type(value, G_VARIANT_TYPE_TUPLE)
                         ? g_variant_ref(value)
                         : g_variant_ref_sink(g_variant_new_tuple(&value, 1));
    g_variant_unref(value);
    if (!FakeBus::Deliverable(body)) {
        g_variant_unref(body);
        return 0;
    }

    EnsureAvailable();
    FakeBus& bus = FakeBus::Start();
    std::vector<FakeBus::Call> stale = bus.TakeCalls();
    FakeBus::Release(stale);
    switch (data[0] % 4) {
        case 0:
            bus.Answer("RequestSync", body);
            CheckRead(body);
            bus.Answer("RequestSync", nullptr);
            break;
        case 1:
            bus.Answer("RequestAsync", body);
            CheckRequest(body, kTextSubject, false);
            bus.Answer("RequestAsync", nullptr);
            break;
        case 2:
            bus.Answer("RequestAsync", body);
            CheckRequest(body, fuzz::kStatisticsLayouts[(data[0] / 4) % 5].subject, true);
            bus.Answer("RequestAsync", nullptr);
            break;
        default:
            CheckServiceEnable(body);
            break;
    }
    g_variant_unref(body);
    return 0;
}
