// Off-target platform log: one record, one line, one write(2).
#include <lumora/lumora-platform.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

constexpr int kLevelNone = 100;

// The destination is looked up on every record so that a process may point
// LUMORA_LOG_FILE elsewhere at run time; the descriptor is kept open while the
// name stays the same. Never destroyed: records may still be written by other
// threads while static destructors run at exit.
struct Sink {
    std::mutex mutex;
    std::string path;
    int fd = -1;
};

Sink& TheSink() {
    static Sink* sink = new Sink;
    return *sink;
}

int ThresholdFromEnv() {
    const char* level = getenv("LUMORA_LOG_LEVEL");
    if (level == nullptr || *level == '\0' || strcmp(level, "debug") == 0) return LUMORA_PRIO_DEBUG;
    if (strcmp(level, "info") == 0) return LUMORA_PRIO_INFO;
    if (strcmp(level, "warning") == 0 || strcmp(level, "warn") == 0) return LUMORA_PRIO_WARN;
    if (strcmp(level, "error") == 0) return LUMORA_PRIO_ERROR;
    if (strcmp(level, "none") == 0) return kLevelNone;
    return LUMORA_PRIO_DEBUG;
}

char PriorityLetter(int prio) {
    if (prio <= LUMORA_PRIO_DEBUG) return 'D';
    if (prio == LUMORA_PRIO_INFO) return 'I';
    if (prio == LUMORA_PRIO_WARN) return 'W';
    return 'E';
}

// A record, its newline included, takes at most this many bytes. A line this
// long is written whole by one write(2) even to a pipe (it is PIPE_BUF), and a
// runaway text (a 20 MB value logged by mistake) cannot flood the log.
constexpr size_t kMaxRecordBytes = 4096;

// Ends a cut text; N counts the bytes of the formatted text left out.
constexpr char kCutOpen[] = "... [";
constexpr char kCutClose[] = " bytes cut]";

size_t DecimalDigits(size_t n) {
    size_t digits = 1;
    while (n >= 10) {
        n /= 10;
        ++digits;
    }
    return digits;
}

bool IsUtf8Continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Appends one byte of the text, keeping the record on one line: a line break
// becomes the two characters "\n" (or "\r").
void AppendEscaped(std::string& line, char c) {
    if (c == '\n') {
        line += "\\n";
    } else if (c == '\r') {
        line += "\\r";
    } else {
        line.push_back(c);
    }
}

size_t EscapedSize(char c) { return (c == '\n' || c == '\r') ? 2 : 1; }

// Appends the formatted text to line so that line plus its newline stays
// within kMaxRecordBytes. text holds the first `available` bytes of a text of
// `total` bytes (the rest was never formatted: it could not be kept anyway).
// A text that does not fit is cut at a character boundary and ends with the
// marker "... [N bytes cut]".
void AppendText(std::string& line, const char* text, size_t available, size_t total) {
    const size_t room = kMaxRecordBytes - 1 - line.size();
    if (available == total) {
        size_t needed = 0;
        for (size_t i = 0; i < total && needed <= room; ++i) needed += EscapedSize(text[i]);
        if (needed <= room) {
            for (size_t i = 0; i < total; ++i) AppendEscaped(line, text[i]);
            return;
        }
    }
    // The marker's room is reserved for the longest count it can hold.
    const size_t budget = room - (sizeof kCutOpen - 1) - DecimalDigits(total) - (sizeof kCutClose - 1);
    const size_t start = line.size();
    size_t kept = 0;
    while (kept < available && line.size() - start + EscapedSize(text[kept]) <= budget) {
        AppendEscaped(line, text[kept]);
        ++kept;
    }
    // Never end inside a UTF-8 sequence: drop the part of a character that
    // did not fit (at most three continuation bytes and their lead byte).
    // Bytes that are not UTF-8 at all are cut where they fall.
    if (kept < available && IsUtf8Continuation(text[kept])) {
        size_t lead = kept;
        while (lead > 0 && kept - lead < 3 && IsUtf8Continuation(text[lead])) --lead;
        if (!IsUtf8Continuation(text[lead])) {
            line.resize(line.size() - (kept - lead));  // non-ASCII bytes are copied as they are
            kept = lead;
        }
    }
    line += kCutOpen;
    line += std::to_string(total - kept);
    line += kCutClose;
}

bool WriteAll(int fd, const char* data, size_t size) {
    // A regular file opened with O_APPEND takes the whole buffer in one call;
    // the loop only matters for pipes and terminals.
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

int DestinationLocked(Sink& sink) {
    const char* path = getenv("LUMORA_LOG_FILE");
    if (path == nullptr || *path == '\0') return STDERR_FILENO;
    if (sink.fd >= 0 && sink.path == path) return sink.fd;
    if (sink.fd >= 0) close(sink.fd);
    sink.fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    sink.path = path;
    // A log file that cannot be opened must not lose the record.
    return sink.fd >= 0 ? sink.fd : STDERR_FILENO;
}

int Emit(const std::string& line) {
    Sink& sink = TheSink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    int fd = DestinationLocked(sink);
    return WriteAll(fd, line.data(), line.size()) ? static_cast<int>(line.size()) : -1;
}

}  // namespace

extern "C" int log_print(lumora_log_priority prio, const char* tag, const char* fmt, ...) {
    if (static_cast<int>(prio) < ThresholdFromEnv() || fmt == nullptr) return 0;

    char head[128];
    int headLen = snprintf(head, sizeof head, "%c/%s(%d): ", PriorityLetter(prio), tag ? tag : "",
                           static_cast<int>(getpid()));
    if (headLen < 0) return -1;
    std::string line(head, static_cast<size_t>(headLen) < sizeof head ? headLen : sizeof head - 1);

    // Only the first kMaxRecordBytes of the text can ever be kept; vsnprintf
    // still tells the whole length, which the cut marker reports.
    char text[kMaxRecordBytes];
    va_list args;
    va_start(args, fmt);
    int textLen = vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (textLen < 0) {
        // A text that cannot be formatted (a wide character with no multibyte
        // form, more than INT_MAX bytes) still leaves a line saying so.
        int error = errno;
        line += "[the text of this record could not be formatted: ";
        line += strerror(error);
        line += "]";
    } else {
        size_t total = static_cast<size_t>(textLen);
        AppendText(line, text, total < sizeof text ? total : sizeof text - 1, total);
    }
    line.push_back('\n');
    return Emit(line);
}
