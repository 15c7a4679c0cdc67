// Text that is not UTF-8 is refused, never sent: every exported function that
// takes text is called with such text (InvalidTextCalls) under
// G_DEBUG=fatal-criticals, against lumora-sim, watched by a bus monitor.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "BusMonitor.h"
#include "LogCapture.h"
#include "ProgramFixture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {
namespace {

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The exported functions of a public header that take text: a const char*
// or a GVariant* among their parameters.
std::set<std::string> TextTakingExports(const std::string& header) {
    static const std::regex kExport(R"(LUMORA_EXPORT[^;(]*?\b(\w+)\s*\(([^)]*)\))");
    std::set<std::string> names;
    std::string text = ReadText(header);
    for (std::sregex_iterator it(text.begin(), text.end(), kExport), end; it != end; ++it) {
        std::string parameters = (*it)[2].str();
        if (parameters.find("const char*") != std::string::npos || parameters.find("GVariant*") != std::string::npos)
            names.insert((*it)[1].str());
    }
    return names;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// What the calling process logged after each "call NAME" record, by NAME.
std::map<std::string, std::vector<LogRecord>> RecordsByCall(const std::vector<LogRecord>& records) {
    std::map<std::string, std::vector<LogRecord>> byCall;
    std::string current;
    int pid = 0;
    for (const LogRecord& record : records) {
        if (record.tag == "INVALID_TEXT" && record.text.rfind("call ", 0) == 0) {
            current = record.text.substr(5);
            pid = record.pid;
            byCall[current];
        } else if (!current.empty() && record.pid == pid) {
            byCall[current].push_back(record);
        }
    }
    return byCall;
}

std::string Texts(const std::vector<LogRecord>& records) {
    std::string texts;
    for (const LogRecord& record : records) texts += "\n  " + std::string(1, record.level) + " " + record.text;
    return texts;
}

class InvalidTextTest : public ProgramFixture {};

TEST_F(InvalidTextTest, EveryTextTakingExportRefusesTextThatIsNotUtf8WithOneLineAndSendsNothing) {
    RunResult run;
    {
        // A GLib critical (g_variant_new on such text) ends the process.
        ScopedEnv fatal("G_DEBUG", "fatal-criticals");
        run = RunProgram(LUMORA_INVALID_TEXT_CALLS_EXECUTABLE, {});
    }
    ASSERT_TRUE(m_monitor->Settle(m_client));
    EXPECT_EQ(0, run.exitStatus) << run.out << run.err;

    // Every such export was called, and each gave its failure result.
    std::set<std::string> called;
    for (const std::string& line : SplitLines(run.out)) {
        EXPECT_EQ(line.size() - 8, line.rfind(" refused")) << line;
        called.insert(line.substr(0, line.find_first_of(" ")));
    }
    std::set<std::string> exports = TextTakingExports(LUMORA_PUBLIC_HEADERS "/lumora-c.h");
    std::set<std::string> dipc = TextTakingExports(LUMORA_PUBLIC_HEADERS "/lumora-dipc.h");
    exports.insert(dipc.begin(), dipc.end());
    ASSERT_GT(exports.size(), 60u);
    for (const std::string& name : exports) EXPECT_EQ(1u, called.count(name)) << name << " was not called";

    // One line each; the deprecated ones warn as on every call.
    auto byCall = RecordsByCall(m_log.Records());
    size_t checked = 0;
    for (const std::string& line : SplitLines(run.out)) {
        std::string call = line.substr(0, line.size() - 8);
        ASSERT_EQ(1u, byCall.count(call)) << call;
        const std::vector<LogRecord>& records = byCall[call];
        bool deprecated = call.find("VolumeLevel") != std::string::npos;
        ASSERT_EQ(deprecated ? 2u : 1u, records.size()) << call << Texts(records);
        EXPECT_EQ('E', records.back().level) << call << Texts(records);
        if (deprecated) {
            EXPECT_EQ(0u, records.front().text.find("DEPRECATION WARNING: ")) << call;
        }
        ++checked;
    }
    EXPECT_GE(checked, exports.size());
    // Each names what it refused.
    const std::map<std::string, std::string> lines = {
        {"Lumora_Read subject", "[invalid_text_calls] szSubject is not valid UTF-8"},
        {"Lumora_Read input", "[invalid_text_calls] input is not valid UTF-8"},
        {"Lumora_Write data", "[invalid_text_calls] input is not valid UTF-8"},
        {"Lumora_RequestWeatherInfo", "[invalid_text_calls] input is not valid UTF-8"},
        {"Lumora_Subscribe", "Invalid subject .. "},
        {"Lumora_SubscribeWithValue", "Invalid subject .. "},
        {"Lumora_ReadHintList type", "[invalid_text_calls] type is not valid UTF-8"},
        {"Lumora_STAction data", "[invalid_text_calls] data is not valid UTF-8"},
        {"Lumora_ReadRecommendedList", "[invalid_text_calls] json is not valid UTF-8"},
        {"CS_ReorderChannelList", "channel_list is not valid UTF-8"},
        {"CS_RemoveChannelFromListWithServiceID", "[invalid_text_calls] serviceId is not valid UTF-8"},
        {"CS_SetFirstscreenAction jsonData", "[invalid_text_calls] jsonData is not valid UTF-8"},
        {"Lumora_DIPC_Start busName", "the bus name is not a valid well-known bus name"},
        {"Lumora_DIPC_Start objectPath", "the object path (as cut to 49 characters) is not a valid object path"},
        {"Lumora_DIPC_Start introspectionXml", "get node failed"},
        {"Lumora_DIPC_Publish destination", "the destination is not a valid bus name"},
        {"Lumora_DIPC_Publish interfaceName", "the interface name is not a valid D-Bus interface name"},
        {"Lumora_DIPC_Publish signalName", "the signal name is not a valid D-Bus member name"},
        {"Lumora_DIPC_Publish parameters", "the parameters hold a string that is not valid UTF-8"},
        {"Lumora_DIPC_SendData", "the parameters hold a string that is not valid UTF-8"},
    };
    for (const auto& [call, text] : lines) {
        ASSERT_EQ(1u, byCall[call].size()) << call;
        EXPECT_EQ(text, byCall[call][0].text) << call;
    }

    // Nothing reached the bus: the one call to the service is the start's,
    // the one signal the simulator's HELLO, the one error the refused reply.
    for (const BusMessage& call : m_monitor->Calls()) EXPECT_EQ("ServiceEnable", call.member) << call.body;
    for (const BusMessage& signal : m_monitor->Signals())
        EXPECT_NE(std::string::npos, signal.body.find("'HELLO'")) << signal.body;
    std::vector<BusMessage> errors;
    for (const BusMessage& message : m_monitor->Messages()) {
        EXPECT_EQ(std::string::npos, message.body.find("Invalid UTF-8")) << message.body;
        if (message.type == "error") errors.push_back(message);
    }
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ("org.freedesktop.DBus.Error.Failed", errors[0].errorName);
    EXPECT_EQ("('the parameters hold a string that is not valid UTF-8',)", errors[0].body);
}

}  // namespace
}  // namespace lumora::test
