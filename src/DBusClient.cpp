// DBusClient: instance management and the process name.
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include "internal/Log.h"

DBusClient* DBusClient::m_pInstance = nullptr;
GMutex DBusClient::m_clientMutex;

DBusClient::DBusClient() = default;

DBusClient::~DBusClient() = default;

DBusClient* DBusClient::GetInstance() {
    if (m_pInstance == nullptr) {
        ContextAutoLock lock(&m_clientMutex);
        if (m_pInstance == nullptr) m_pInstance = new DBusClient();
    }
    return m_pInstance;
}

void DBusClient::DeleteInstance() {
    if (m_pInstance == nullptr) return;
    ContextAutoLock lock(&m_clientMutex);
    delete m_pInstance;
    m_pInstance = nullptr;
}

void DBusClient::SetProcessName(const char* name) {
    m_strProcessName = name != nullptr ? name : "";
    LMF_LOGE("Currernt Process Name[%s]", m_strProcessName.c_str());
}
