// An application written in C++ against the installed library.
#include <lumora/lumora-api.h>

#include <cstdio>
#include <string>

int main() {
    ContextData doc;
    if (!doc.MakeData("{\"WhiteList\":[\"consumer\"]}") || doc.GetSize("WhiteList") != 1) {
        std::fprintf(stderr, "ContextData does not parse\n");
        return 1;
    }
    DBusClient* client = DBusClient::GetInstance();
    client->SetProcessName("consumer");
    if (!client->__SetWhiteList(doc.MakeStr()) || !client->CheckWhiteListProcess()) {
        std::fprintf(stderr, "whitelist check failed\n");
        return 1;
    }
    // The object interface, through its abstract base; without a started
    // client every operation fails.
    ILumoraAPI* api = LumoraAPI::GetInstance();
    std::string value;
    if (api == nullptr || api->IsAvailable() || api->Read("Ctx/Media/Source/Info/Current", "", value)) {
        std::fprintf(stderr, "LumoraAPI answered without a client\n");
        return 1;
    }
    LumoraAPI::DeleteInstance();
    DBusClient::DeleteInstance();
    std::puts("c++ consumer ok");
    return 0;
}
