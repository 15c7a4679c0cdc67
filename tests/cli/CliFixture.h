// What the tests that run lumora as a process share: the runner, and a
// private bus with lumora-sim, or a bus address where no bus is.
#ifndef LUMORA_TESTS_CLI_CLIFIXTURE_H
#define LUMORA_TESTS_CLI_CLIFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BusCalls.h"
#include "ControlContract.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

/// Runs the built lumora with args to its end (killed after timeoutMs).
inline RunResult Lumora(const std::vector<std::string>& args, int timeoutMs = 20000) {
    return RunProgram(CliExecutable(), args, timeoutMs);
}

/// Commands that need no service: a settings store of the test's own and a
/// bus address where no bus listens.
class CliNoServiceFixture : public testing::Test {
protected:
    TempDir m_dir;
    ScopedEnv m_db{"LUMORA_SETTINGS_DB", m_dir.File("settings.db")};
    ScopedEnv m_bus{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + m_dir.File("no-bus")};
};

/// Commands against lumora-sim on a private bus.
class CliServiceFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Start());
        ASSERT_TRUE(m_sim.Start());
        m_control = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_control);
    }
    void TearDown() override {
        m_sim.Stop();
        if (m_control != nullptr) g_object_unref(m_control);
    }

    std::string SimValue(const std::string& subject) { return ServiceValue(m_control, subject); }
    bool Control(const char* method, GVariant* parameters = nullptr) {
        return CallControl(m_control, method, parameters).Ok();
    }

    TempDir m_dir;
    ScopedEnv m_db{"LUMORA_SETTINGS_DB", m_dir.File("settings.db")};
    TestBus m_bus;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
};

}  // namespace lumora::test

#endif
