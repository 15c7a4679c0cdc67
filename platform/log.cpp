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

// Keeps a record on one line: line breaks inside the text become "\n".
void EscapeLineBreaks(std::string& line, size_t from) {
    for (size_t i = from; i < line.size(); ++i) {
        if (line[i] == '\n' || line[i] == '\r') {
            line.replace(i, 1, line[i] == '\n' ? "\\n" : "\\r");
            ++i;
        }
    }
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
    size_t textStart = line.size();

    char body[1024];
    va_list args;
    va_start(args, fmt);
    int bodyLen = vsnprintf(body, sizeof body, fmt, args);
    va_end(args);
    if (bodyLen < 0) return -1;
    if (static_cast<size_t>(bodyLen) < sizeof body) {
        line.append(body, static_cast<size_t>(bodyLen));
    } else {
        line.resize(textStart + static_cast<size_t>(bodyLen) + 1);
        va_start(args, fmt);
        vsnprintf(&line[textStart], static_cast<size_t>(bodyLen) + 1, fmt, args);
        va_end(args);
        line.resize(textStart + static_cast<size_t>(bodyLen));
    }
    EscapeLineBreaks(line, textStart);
    line.push_back('\n');
    return Emit(line);
}
