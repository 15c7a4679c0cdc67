// Reads what the platform log wrote, so that tests can assert exact log lines.
#ifndef LUMORA_TESTS_LOGCAPTURE_H
#define LUMORA_TESTS_LOGCAPTURE_H

#include <string>
#include <vector>

namespace lumora::test {

/// One record of the log file, split into its fields. For records without the
/// library's "file: function(line) > " prefix, file and function are empty and
/// text is everything after "<L>/<TAG>(<pid>): ".
struct LogRecord {
    char level = '?';
    std::string tag;
    int pid = 0;
    std::string file;
    std::string function;
    int line = 0;
    std::string text;
    std::string raw;
};

/**
 * Points LUMORA_LOG_FILE at a fresh file for the life of the object and reads
 * it back. Mark() remembers the end of the file so that later reads see only
 * what came after.
 */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::string& Path() const { return m_path; }
    void Mark();
    std::vector<std::string> Lines() const;
    std::vector<LogRecord> Records() const;
    /// Records whose event text is exactly text (and, unless '\0', at level).
    std::vector<LogRecord> Find(const std::string& text, char level = '\0') const;
    size_t Count(const std::string& text, char level = '\0') const { return Find(text, level).size(); }
    bool Has(const std::string& text, char level = '\0') const { return !Find(text, level).empty(); }
    /// Whether a record with exactly text was written from file's function.
    bool From(const std::string& text, const std::string& file, const std::string& function) const;
    /// The event texts in order, for readable failure messages.
    std::string Dump() const;

private:
    std::string m_path;
    std::string m_previous;
    bool m_hadPrevious = false;
    size_t m_mark = 0;
};

/// Parses one log line; false when it is not of the platform log's shape.
bool ParseLogLine(const std::string& line, LogRecord& out);

}  // namespace lumora::test

#endif
