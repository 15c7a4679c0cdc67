// The GObject API from other languages, through the introspection data and
// the Vala bindings built here: a gjs script and a Vala program each read a
// value and hear one change from lumora-sim, and python3 reads through the
// typelib. Each runs as a child process on the test's private bus, with
// GI_TYPELIB_PATH and LD_LIBRARY_PATH naming the build tree.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "ChildProcess.h"
#include "ControlContract.h"
#include "LogCapture.h"
#include "MainLoopThread.h"
#include "SimProcess.h"
#include "SimStatus.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {
namespace {

constexpr const char* kSource = "Ctx/Media/Source/Info/Current";
constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";

// The Python check: the typelib loads, a blocking read and an error of the
// domain come through, and a subscription with the value hears it.
constexpr const char* kPythonCheck = R"(
import sys
import gi
gi.require_version('Lumora', '1.0')
from gi.repository import GLib, Lumora
c = Lumora.Client.get_default()
print('value', c.read_sync(sys.argv[1], None, None))
try:
    c.read_sync('Ctx/Nothing/Here', None, None)
except GLib.Error as e:
    print('no data' if e.matches(Lumora.ClientError.quark(), Lumora.ClientError.NO_DATA) else 'other', e.message)
s = c.subscribe(sys.argv[1], Lumora.SubscribeFlags.WITH_VALUE)
heard = []
s.connect('changed', lambda sub, data: heard.append(data))
context = GLib.MainContext.default()
deadline = GLib.get_monotonic_time() + 10 * 1000 * 1000
while not heard and GLib.get_monotonic_time() < deadline:
    context.iteration(True)
print('changed', heard[0] if heard else '(nothing)')
print('subscription', s.props.subject, s.props.value == heard[0] if heard else False)
)";

class GlibBindingsTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Start());
        ASSERT_TRUE(m_sim.Start());
        m_control = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_control);
    }
    void TearDown() override {
        m_sim.Stop();
        g_clear_object(&m_control);
    }

    std::string SimValue(const std::string& subject) { return ServiceValue(m_control, subject); }

    // Runs a program that reads kSource and waits for a change of kVolume:
    // the change is sent once the simulator holds its subscription. Returns
    // its standard output; its status goes to *status.
    std::string RunWithOneChange(const std::string& program, const std::vector<std::string>& args, int* status) {
        ChildProcess child;
        EXPECT_TRUE(child.Start(program, args));
        bool subscribed = WaitUntil(
            [&] {
                return !SimSubscribers(kVolume).empty() || !child.Running();
            },
            15000);
        EXPECT_TRUE(subscribed) << child.Err();
        EXPECT_TRUE(CallControl(m_control, lumora::sim::kCtlEmit,
                                g_variant_new("(ss)", kVolume, "{\"Level\":77,\"Mute\":false}"))
                        .Ok());
        *status = child.Wait(20000);
        std::string out = child.Out();
        if (*status != 0) ADD_FAILURE() << program << " ended with " << *status << "\n" << out << child.Err();
        return out;
    }

    std::vector<std::string> SimSubscribers(const std::string& subject) {
        std::vector<std::string> clients;
        Json::Value status = SimStatusOver(m_control);
        for (const Json::Value& client : status["subscriptions"][subject]) clients.push_back(client.asString());
        return clients;
    }

    TempDir m_dir;
    LogCapture m_log;
    ScopedEnv m_typelibs{"GI_TYPELIB_PATH", LUMORA_GLIB_BUILD_DIR};
    ScopedEnv m_libraries{"LD_LIBRARY_PATH", LUMORA_GLIB_BUILD_DIR};
    TestBus m_bus;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
};

std::string Expected(const std::string& value) {
    return "value " + value + "\n";
}

TEST_F(GlibBindingsTest, AGjsScriptReadsAValueAndHearsAChange) {
    if (std::string(LUMORA_GJS).empty()) GTEST_SKIP() << "gjs not found";
    int status = -1;
    std::string out = RunWithOneChange(LUMORA_GJS, {LUMORA_GJS_SCRIPT, kSource, kVolume}, &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, out.find(Expected(SimValue(kSource)))) << out;
    EXPECT_NE(std::string::npos, out.find("no data the service has no value for Ctx/Nothing/Here\n")) << out;
    EXPECT_NE(std::string::npos, out.find("changed {\"Level\":77,\"Mute\":false}\n")) << out;
}

TEST_F(GlibBindingsTest, AValaProgramReadsAValueAndHearsAChange) {
    int status = -1;
    std::string out = RunWithOneChange(LUMORA_VALA_READER, {kSource, kVolume}, &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, out.find(Expected(SimValue(kSource)))) << out;
    EXPECT_NE(std::string::npos, out.find("async " + SimValue(kSource) + "\n")) << out;
    EXPECT_NE(std::string::npos, out.find("no data the service has no value for Ctx/Nothing/Here\n")) << out;
    EXPECT_NE(std::string::npos, out.find("changed {\"Level\":77,\"Mute\":false}\n")) << out;
}

TEST_F(GlibBindingsTest, PythonReadsThroughTheTypelib) {
    RunResult run = RunProgram(LUMORA_PYTHON3, {"-c", kPythonCheck, kSource}, 30000);
    ASSERT_EQ(0, run.exitStatus) << run.out << run.err;
    std::string value = SimValue(kSource);
    EXPECT_EQ("value " + value + "\n" + "no data the service has no value for Ctx/Nothing/Here\n" + "changed " +
                  value + "\n" + "subscription " + kSource + " True\n",
              run.out)
        << run.err;
}

}  // namespace
}  // namespace lumora::test
