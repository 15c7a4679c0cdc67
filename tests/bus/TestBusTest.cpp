// The private test bus: a real dbus-daemon on which a name can be owned and
// a method called.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>

#include "BusCalls.h"
#include "MainLoopThread.h"
#include "TestBus.h"

namespace {

using lumora::test::ConnectToBus;
using lumora::test::MainLoopThread;
using lumora::test::TestBus;

constexpr const char* kXml =
    "<node><interface name='org.example.Echo'>"
    "<method name='Echo'><arg type='s' direction='in'/><arg type='s' direction='out'/></method>"
    "</interface></node>";

void OnEcho(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant* parameters,
            GDBusMethodInvocation* invocation, gpointer) {
    const gchar* text = nullptr;
    g_variant_get(parameters, "(&s)", &text);
    std::string answer = std::string(method) + ":" + text;
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", answer.c_str()));
}

TEST(TestBusTest, StartsADaemonAndExportsItsAddressAsTheSystemBus) {
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    EXPECT_GT(bus.Pid(), 0);
    EXPECT_EQ(0u, bus.Address().find("unix:"));
    EXPECT_EQ(bus.Address(), getenv("DBUS_SYSTEM_BUS_ADDRESS"));
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    EXPECT_EQ(bus.Address(), address);
    g_free(address);
}

TEST(TestBusTest, ANameOwnedOnTheBusAnswersAMethodCall) {
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    MainLoopThread server(true);
    GDBusConnection* service = nullptr;
    server.Invoke([&] {
        service = ConnectToBus(bus.Address());
        ASSERT_NE(nullptr, service);
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kXml, nullptr);
        static const GDBusInterfaceVTable vtable = {OnEcho, nullptr, nullptr, {nullptr}};
        EXPECT_NE(0u, g_dbus_connection_register_object(service, "/org/example/Echo", node->interfaces[0], &vtable,
                                                        nullptr, nullptr, nullptr));
        g_dbus_node_info_unref(node);
    });
    ASSERT_NE(nullptr, service);
    GVariant* owned =
        g_dbus_connection_call_sync(service, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "RequestName", g_variant_new("(su)", "org.example.Echo", 0u), G_VARIANT_TYPE("(u)"),
                                    G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
    ASSERT_NE(nullptr, owned);
    guint32 reply = 0;
    g_variant_get(owned, "(u)", &reply);
    g_variant_unref(owned);
    EXPECT_EQ(1u, reply);  // DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER

    GDBusConnection* client = ConnectToBus(bus.Address());
    ASSERT_NE(nullptr, client);
    GError* error = nullptr;
    GVariant* answer = g_dbus_connection_call_sync(client, "org.example.Echo", "/org/example/Echo", "org.example.Echo",
                                                   "Echo", g_variant_new("(s)", "hello"), G_VARIANT_TYPE("(s)"),
                                                   G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error);
    ASSERT_NE(nullptr, answer) << (error ? error->message : "");
    const gchar* text = nullptr;
    g_variant_get(answer, "(&s)", &text);
    EXPECT_STREQ("Echo:hello", text);
    g_variant_unref(answer);
    g_object_unref(client);
    server.Invoke([&] { g_object_unref(service); });
}

TEST(TestBusTest, StopEndsTheDaemonByItsPid) {
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    pid_t pid = bus.Pid();
    bus.Stop();
    EXPECT_FALSE(bus.Running());
    EXPECT_NE(0, kill(pid, 0));  // reaped: the pid no longer names a process
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        bus.Address().c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr, &error);
    EXPECT_EQ(nullptr, connection);
    if (error != nullptr) g_error_free(error);
}

TEST(TestBusTest, TwoBusesAreIndependent) {
    TestBus first;
    TestBus second;
    ASSERT_TRUE(first.Start(false));
    ASSERT_TRUE(second.Start(false));
    EXPECT_NE(first.Address(), second.Address());
    EXPECT_NE(first.Pid(), second.Pid());
}

}  // namespace
