// A private bus with lumora-sim for the tests that run lumora as a process.
#ifndef LUMORA_TESTS_CLI_CLIFIXTURE_H
#define LUMORA_TESTS_CLI_CLIFIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "BusCalls.h"
#include "ControlContract.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

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
