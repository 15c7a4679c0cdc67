// ContextData over jsoncpp. jsoncpp throws for a wrong type (asInt of a string,
// operator[] on an array) and for parser limits; every access here checks the
// type first and the parser is the one place that catches.
#include <lumora/ContextData.h>

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <memory>
#include <utility>

namespace {

const Json::CharReaderBuilder& ReaderBuilder() {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder b;
        b["collectComments"] = false;
        b["failIfExtra"] = true;  // "{}x" is not a document
        return b;
    }();
    return builder;
}

const Json::StreamWriterBuilder& WriterBuilder() {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        b["emitUTF8"] = true;
        return b;
    }();
    return builder;
}

std::string ScalarAsString(const Json::Value& value) {
    if (value.isString()) return value.asString();
    if (value.isNull() || !value.isConvertibleTo(Json::stringValue)) return std::string();
    return value.asString();
}

const Json::Value* ArrayElement(const Json::Value* array, int index) {
    if (array == nullptr || !array->isArray() || index < 0 || static_cast<Json::ArrayIndex>(index) >= array->size())
        return nullptr;
    return &(*array)[static_cast<Json::ArrayIndex>(index)];
}

const Json::Value* FindMember(const Json::Value& root, const char* key) {
    if (key == nullptr || !root.isObject()) return nullptr;
    return root.find(key, key + strlen(key));
}

Json::Value& WritableMember(Json::Value& root, const char* key) {
    // A document parsed from an array or a scalar has no members; setting one
    // turns it into an object.
    if (!root.isObject()) root = Json::Value(Json::objectValue);
    return root[key];
}

}  // namespace

// Not exported: reaches the root for the helpers above.
class ContextDataAccess {
public:
    static ContextData FromValue(const Json::Value& value) {
        ContextData doc;
        doc.m_jsonRoot = value;
        return doc;
    }
};

ContextData::ContextData() : m_jsonRoot(Json::objectValue) {}

ContextData::~ContextData() = default;

bool ContextData::MakeData(const char* json) {
    if (json == nullptr) return false;
    std::unique_ptr<Json::CharReader> reader(ReaderBuilder().newCharReader());
    Json::Value parsed;
    try {
        if (!reader->parse(json, json + strlen(json), &parsed, nullptr)) return false;
    } catch (const std::exception&) {
        return false;  // nesting deeper than the parser allows
    }
    m_jsonRoot = std::move(parsed);
    return true;
}

char* ContextData::MakeStr() {
    m_strText = Json::writeString(WriterBuilder(), m_jsonRoot);
    return m_strText.data();
}

ContextData ContextData::GetValue(const char* key) {
    const Json::Value* member = FindMember(m_jsonRoot, key);
    return (member != nullptr && !member->isNull()) ? ContextDataAccess::FromValue(*member) : ContextData();
}

ContextData ContextData::GetValue(const char* key, int index) {
    const Json::Value* element = ArrayElement(FindMember(m_jsonRoot, key), index);
    return element != nullptr ? ContextDataAccess::FromValue(*element) : ContextData();
}

int ContextData::GetValueInt(const char* key) {
    const Json::Value* member = FindMember(m_jsonRoot, key);
    if (member == nullptr || !member->isConvertibleTo(Json::intValue)) return 0;
    return member->asInt();
}

std::string ContextData::GetValueStr(const char* key) {
    const Json::Value* member = FindMember(m_jsonRoot, key);
    return member != nullptr ? ScalarAsString(*member) : std::string();
}

std::string ContextData::GetValueStrFromArray(const char* key, int index) {
    const Json::Value* element = ArrayElement(FindMember(m_jsonRoot, key), index);
    return element != nullptr ? ScalarAsString(*element) : std::string();
}

int ContextData::GetSize(const char* key) {
    const Json::Value* member = FindMember(m_jsonRoot, key);
    return (member != nullptr && member->isArray()) ? static_cast<int>(member->size()) : 0;
}

bool ContextData::IsValid(const char* key) {
    const Json::Value* member = FindMember(m_jsonRoot, key);
    return member != nullptr && !member->isNull();
}

void ContextData::SetValue(const char* key, const char* value) {
    if (key == nullptr) return;
    WritableMember(m_jsonRoot, key) = value != nullptr ? Json::Value(value) : Json::Value(Json::nullValue);
}

void ContextData::SetValue(const char* key, std::string value) {
    if (key == nullptr) return;
    WritableMember(m_jsonRoot, key) = Json::Value(std::move(value));
}

void ContextData::SetValue(const char* key, int value) {
    if (key == nullptr) return;
    WritableMember(m_jsonRoot, key) = Json::Value(value);
}

void ContextData::SetValue(const char* key, ContextData& value) {
    if (key == nullptr) return;
    Json::Value element = value.m_jsonRoot;  // copied first: value may be *this
    Json::Value& array = WritableMember(m_jsonRoot, key);
    if (!array.isArray()) array = Json::Value(Json::arrayValue);
    array.append(std::move(element));
}

void ContextData::SetValueNoArry(const char* key, ContextData& value) {
    if (key == nullptr) return;
    Json::Value copy = value.m_jsonRoot;
    WritableMember(m_jsonRoot, key) = std::move(copy);
}

void ContextData::RemoveMember(const char* key) {
    if (key == nullptr || !m_jsonRoot.isObject()) return;
    m_jsonRoot.removeMember(key);
}
