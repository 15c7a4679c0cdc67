// DBusClient: the whitelist of processes admitted to internal subjects.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextData.h>
#include <lumora/DBusClient.h>

#include <algorithm>

#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace {
constexpr const char* kWhiteListKey = "WhiteList";
}

bool DBusClient::__SetWhiteList(const char* json) {
    ContextData doc;
    if (!doc.MakeData(json)) {
        LMF_LOGE("Json Parsing Failed");
        return false;
    }
    LMF_LOGI("Set %s for m_vWhiteList", json);
    if (!doc.IsValid(kWhiteListKey)) return true;
    int size = doc.GetSize(kWhiteListKey);
    LMF_LOGI("WhiteList size : %d", size);
    // Appended, never cleared here: every "ServiceEnable" answer and every
    // "HELLO" adds the names again. Only membership is ever asked, so the
    // repeats change no decision; Initialize and Finalize empty the list.
    for (int i = 0; i < size; ++i) m_vWhiteList.push_back(doc.GetValueStrFromArray(kWhiteListKey, i));
    return true;
}

bool DBusClient::CheckWhiteListProcess() {
    LMF_LOGI("WhiteList size : %zu, Process: %s", m_vWhiteList.size(), m_strProcessName.c_str());
    if (m_strProcessName == lumora::contract::kAgentProcessName) {
        LMF_LOGI("lumora-agent access granted (whitelist bypass)");
        return true;
    }
    if (m_vWhiteList.empty()) {
        LMF_LOGI("WhiteList is empty, access denied for %s", m_strProcessName.c_str());
        return false;
    }
    bool found = std::find(m_vWhiteList.begin(), m_vWhiteList.end(), m_strProcessName) != m_vWhiteList.end();
    LMF_LOGI("Other process access %s for %s (whitelist size: %zu)", found ? "granted" : "denied",
             m_strProcessName.c_str(), m_vWhiteList.size());
    return found;
}
