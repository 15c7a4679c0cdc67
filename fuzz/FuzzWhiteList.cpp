// Fuzzes the whitelist text of "ServiceEnable" and "HELLO": any text, then
// the admission check for a name taken from the list and for others.
#include <lumora/ContextData.h>
#include <lumora/DBusClient.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    DBusClient* client = DBusClient::GetInstance();
    bool parsed = client->__SetWhiteList(text.c_str());

    ContextData doc;
    if (parsed != doc.MakeData(text.c_str())) abort();  // the verdict is the parser's
    client->SetProcessName("lumora-agent");
    if (!client->CheckWhiteListProcess()) abort();  // the agent is always admitted
    if (parsed && doc.GetSize("WhiteList") > 0) {
        std::string first = doc.GetValueStrFromArray("WhiteList", 0);
        client->SetProcessName(first.c_str());
        if (first.find('\0') == std::string::npos && !client->CheckWhiteListProcess()) abort();
    }
    client->SetProcessName(text.c_str());
    (void)client->CheckWhiteListProcess();
    // A fresh client per input: the list only ever grows within one.
    DBusClient::DeleteInstance();
    return 0;
}
