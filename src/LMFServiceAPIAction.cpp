// LMFServiceAPI: the action writers, one-way writes of an action for the
// service to carry out (the home launcher's first-screen action, the voice
// assistants' commands).
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextData.h>
#include <lumora/LMFServiceAPI.h>

#include "LMFServiceAPIInternal.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace {

namespace subjects = lumora::contract::subjects;

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

// Appends {"value": s} to key for each s, in order; nothing, not even the
// key, for an empty vector.
void AppendValues(ContextData& document, const char* key, const std::vector<std::string>& values) {
    for (const std::string& value : values) {
        ContextData element;
        element.SetValue("value", value);
        document.SetValue(key, element);
    }
}

// Every value of a list, named by the list's key.
bool AllSendable(const char* function, const char* key, const std::vector<std::string>& values) {
    for (const std::string& value : values) {
        if (!lumora::internal::AreSendable(function, {{key, value.c_str()}})) return false;
    }
    return true;
}

}  // namespace

bool LMFServiceAPI::SetFirstscreenAction(const char* componentId, const char* jsonData) {
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr) return false;
    if (IsEmpty(componentId)) {
        LMF_LOGE("ComponentId is null");
        return false;
    }
    if (IsEmpty(jsonData)) {
        LMF_LOGE("JsonData is null");
        return false;
    }
    if (!lumora::internal::AreSendable(__func__, {{"componentId", componentId}, {"jsonData", jsonData}})) return false;
    // jsonData travels as a string member, not as a nested document: the
    // launcher hands it on to the component untouched.
    ContextData action;
    action.SetValue("componentId", componentId);
    action.SetValue("jsonData", jsonData);
    return lumora::internal::WriteDocument(LMF_SITE(__func__), *client, subjects::kFirstscreenAction, action);
}

void LMFServiceAPI::SetVoiceActionRuleId(std::string ruleId) {
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr) return;
    if (!lumora::internal::AreSendable(__func__, {{"ruleId", ruleId.c_str()}})) return;
    ContextData action;
    action.SetValue("ruleId", std::move(ruleId));
    lumora::internal::WriteDocument(LMF_SITE(__func__), *client, subjects::kVoiceRuleId, action);
}

void LMFServiceAPI::SetVoiceAction(std::string category, std::string cmdName, std::vector<std::string>& values,
                                   std::vector<std::string>& extParams) {
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr) return;
    if (!lumora::internal::AreSendable(__func__, {{"category", category.c_str()}, {"cmd_name", cmdName.c_str()}}) ||
        !AllSendable(__func__, "param", values) || !AllSendable(__func__, "ext_param", extParams)) {
        return;
    }
    ContextData action;
    action.SetValue("category", std::move(category));
    action.SetValue("cmd_name", std::move(cmdName));
    AppendValues(action, "param", values);
    AppendValues(action, "ext_param", extParams);
    lumora::internal::WriteDocument(LMF_SITE(__func__), *client, subjects::kVoiceAction, action);
}
