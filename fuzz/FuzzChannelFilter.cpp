// Fuzzes the source-type filter of the channel list: any text that parses is
// filtered for each source type, and what comes out must agree with itself
// and with what went in.
#include <json/reader.h>
#include <lumora/ContextData.h>
#include <lumora/LMFServiceAPI.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

// No source type of the list, as a C caller may pass it: such a source admits
// nothing.
const LMF_SRC_TYPE kUnknownSource = static_cast<LMF_SRC_TYPE>(7);

void Check(bool condition) {
    if (!condition) __builtin_trap();
}

// IsValid cannot tell a null member from an absent one; the serialised
// element can.
bool HasNullMember(ContextData& element, const char* key) {
    std::string text = element.MakeStr();
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    Check(reader->parse(text.data(), text.data() + text.size(), &value, nullptr));
    return value.isObject() && value.isMember(key) && value[key].isNull();
}

// Filters in for source into a fresh document, checks the result and returns
// the number kept.
int FilterAndCheck(ContextData& in, LMF_SRC_TYPE source) {
    LMFServiceAPI::SetSourceAndModel(source, LMF_MODEL_DEFAULT);
    ContextData out;
    int count = -1;
    _GetChannelListUsingSrcFilter(in, out, count);

    Check(count == out.GetValueInt("Size"));
    Check(count >= 0 && count <= in.GetSize("ChList"));
    Check(out.GetSize("ChList") == count);
    if (count > 0) {
        Check(out.GetValueStr("Status") == "Success");
    } else {
        Check(out.GetValueStr("Status") == "Error");
        Check(out.GetValueStr("Reason") == "The list is empty.");
    }
    if (source == kUnknownSource) Check(count == 0);

    for (int i = 0; i < count; ++i) {
        ContextData element = out.GetValue("ChList", i);
        // A kept entry has a real channel type or none at all, and never the
        // hidden one.
        Check(!HasNullMember(element, "ChType"));
        if (element.IsValid("ChType")) Check(element.GetValueInt("ChType") != 9);
        if (source == LMF_SRC_RF) Check(element.GetValueStr("SrcType") == "RF");
        if (source == LMF_SRC_STB) Check(element.GetValueStr("SrcType") == "STB");
    }
    (void)out.MakeStr();
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    ContextData in;
    if (!in.MakeData(text.c_str())) return 0;

    int rf = FilterAndCheck(in, LMF_SRC_RF);
    int stb = FilterAndCheck(in, LMF_SRC_STB);
    int all = FilterAndCheck(in, LMF_SRC_ALL);
    (void)FilterAndCheck(in, kUnknownSource);
    Check(all >= rf + stb);
    return 0;
}
