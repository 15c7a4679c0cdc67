// Fuzzes ContextData: parse arbitrary text, then call every accessor and
// setter, and check that a serialised document parses back to the same text.
#include <lumora/ContextData.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Keys the library reads, plus one taken from the input itself.
const char* const kKeys[] = {"ChList", "WhiteList", "Status", "reorder", "group",
                             "list",   "mode",      "ChType", "SrcType", ""};

void Touch(ContextData& doc, const char* key) {
    (void)doc.IsValid(key);
    (void)doc.GetValueInt(key);
    (void)doc.GetValueStr(key);
    int size = doc.GetSize(key);
    for (int i = -1; i <= size && i < 64; ++i) {
        (void)doc.GetValueStrFromArray(key, i);
        ContextData element = doc.GetValue(key, i);
        (void)element.GetValueStr("SrcType");
        (void)element.GetValueInt("ChType");
        (void)element.MakeStr();
    }
    ContextData member = doc.GetValue(key);
    (void)member.MakeStr();
}

void CheckRoundTrip(ContextData& doc) {
    std::string text = doc.MakeStr();
    ContextData again;
    if (!again.MakeData(text.c_str()) || text != again.MakeStr()) {
        fprintf(stderr, "serialised text does not parse back: %s\n", text.c_str());
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    ContextData doc;
    if (!doc.MakeData(text.c_str())) {
        if (std::string(doc.MakeStr()) != "{}") abort();  // a failed parse changes nothing
        return 0;
    }
    std::string ownKey = text.substr(0, text.size() % 8);
    for (const char* key : kKeys) Touch(doc, key);
    Touch(doc, ownKey.c_str());
    CheckRoundTrip(doc);

    ContextData copy = doc;
    copy.SetValue("ChList", doc);
    copy.SetValueNoArry("x", doc);
    copy.SetValue("s", ownKey.c_str());
    copy.SetValue("n", static_cast<int>(size));
    copy.RemoveMember(ownKey.c_str());
    CheckRoundTrip(copy);
    return 0;
}
