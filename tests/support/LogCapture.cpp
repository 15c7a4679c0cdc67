// LogCapture: a private log file per test and a parser for its lines.
#include "LogCapture.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace lumora::test {

namespace {

std::string ReadFileFrom(const std::string& path, size_t offset) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::string();
    in.seekg(static_cast<std::streamoff>(offset));
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

LogCapture::LogCapture() {
    char name[] = "/tmp/lumora-test-log-XXXXXX";
    int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    m_path = name;
    const char* previous = getenv("LUMORA_LOG_FILE");
    m_hadPrevious = previous != nullptr;
    if (previous != nullptr) m_previous = previous;
    setenv("LUMORA_LOG_FILE", m_path.c_str(), 1);
}

LogCapture::~LogCapture() {
    if (m_hadPrevious) {
        setenv("LUMORA_LOG_FILE", m_previous.c_str(), 1);
    } else {
        unsetenv("LUMORA_LOG_FILE");
    }
    // Kept for a failed test's post-mortem when asked to.
    if (getenv("LUMORA_TEST_KEEP_LOGS") == nullptr) unlink(m_path.c_str());
}

void LogCapture::Mark() { m_mark += ReadFileFrom(m_path, m_mark).size(); }

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadFileFrom(m_path, m_mark));
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

std::vector<LogRecord> LogCapture::Records() const {
    std::vector<LogRecord> records;
    for (const std::string& line : Lines()) {
        LogRecord record;
        if (ParseLogLine(line, record)) records.push_back(record);
    }
    return records;
}

std::vector<LogRecord> LogCapture::Find(const std::string& text, char level) const {
    std::vector<LogRecord> found;
    for (const LogRecord& record : Records()) {
        if (record.text == text && (level == '\0' || record.level == level)) found.push_back(record);
    }
    return found;
}

bool LogCapture::From(const std::string& text, const std::string& file, const std::string& function) const {
    for (const LogRecord& record : Find(text)) {
        if (record.file == file && record.function == function) return true;
    }
    return false;
}

std::string LogCapture::Dump() const {
    std::string all;
    for (const std::string& line : Lines()) all += line + "\n";
    return all;
}

// Parsed by hand: std::regex recurses per character and would overflow the
// stack on the long records that some tests write.
bool ParseLogLine(const std::string& line, LogRecord& out) {
    if (line.size() < 4 || line[1] != '/' || std::string("DIWE").find(line[0]) == std::string::npos) return false;
    size_t open = line.find('(', 2);
    size_t close = line.find("): ", open == std::string::npos ? 2 : open);
    if (open == std::string::npos || close == std::string::npos) return false;
    std::string pid = line.substr(open + 1, close - open - 1);
    if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) return false;
    out = LogRecord();
    out.raw = line;
    out.level = line[0];
    out.tag = line.substr(2, open - 2);
    out.pid = std::stoi(pid);
    std::string rest = line.substr(close + 3);
    out.text = rest;
    // The library's prefix: "<file>: <function>(<line>) > ".
    size_t colon = rest.find(": ");
    size_t marker = rest.find(") > ");
    if (colon == std::string::npos || marker == std::string::npos || marker < colon) return true;
    size_t paren = rest.rfind('(', marker);
    if (paren == std::string::npos || paren < colon) return true;
    std::string number = rest.substr(paren + 1, marker - paren - 1);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return true;
    out.file = rest.substr(0, colon);
    out.function = rest.substr(colon + 2, paren - colon - 2);
    out.line = std::stoi(number);
    out.text = rest.substr(marker + 4);
    return true;
}

}  // namespace lumora::test
