// lumora monitor: the context service's traffic on the bus, decoded from the
// wire contract: every call with its caller, type, request id, subject and
// input, and what is not the contract's as undecodable; its answer matched by
// caller and serial, with the latency; the "Response" signals, "HELLO" and
// "BYE" with their sender and receiver, and whether the sender owns the
// service's name. Through the bus daemon's monitoring interface, with match
// rules limited to the service and the bus's NameOwnerChanged.
#include <fcntl.h>
#include <glib-unix.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <lumora/ContextAutoLock.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Cli.h"
#include "JsonInput.h"
#include "internal/HandOff.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

namespace contract = lumora::contract;
using Args = std::vector<std::string>;

// A call nobody answers is reported once a caller with GDBus's default
// time-out would have given up; an answer after it is still shown.
constexpr gint64 kCallTimeoutUs = G_GINT64_CONSTANT(25) * G_USEC_PER_SEC;
// Timed-out calls kept for a late answer, the oldest dropped first beyond it.
constexpr size_t kMaxLateCalls = 4096;
// How long an event waits for the bus daemon's word on whom it concerns.
constexpr gint64 kIdentityWaitUs = G_USEC_PER_SEC;
constexpr const char* kBusDaemon = "org.freedesktop.DBus";
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";
// What could not be learnt of a process.
constexpr const char* kUnknown = "unknown";
constexpr const char* kTimelineFormat = "lumora-timeline";
constexpr int kTimelineVersion = 1;

struct MonitorOptions {
    bool json = false;
    bool summary = false;
    bool full = false;
    unsigned durationSeconds = 0;  // 0: until SIGINT/SIGTERM
    std::vector<std::string> subjects;
    std::vector<std::string> processes;
    std::string record;
};

// A message as the filter hands it to the main loop.
struct Seen {
    gint64 us = 0;  // monotonic
    GDBusMessage* message = nullptr;
};

struct PendingCall {
    gint64 us = 0;
    Json::Value call;      // the call's event, whose fields the answer repeats
    bool noReply = false;  // the caller asked for no answer: none is awaited
};

struct SubjectStats {
    std::map<std::string, unsigned> calls;  // by type
    unsigned errors = 0;                    // answers with another code than 0, and all below
    unsigned notCounted = 0;                // error and undecodable answers, time-outs: no latency
    std::vector<double> latenciesMs;        // of the answers
    unsigned signals = 0;
};

// The calls of the wire contract: each request method with the request types
// it carries. Any other pairing is refused by the service, and shown as what
// it is, not as the operation its type would be on another method.
struct ContractCall {
    const char* method;
    int requestType;
    const char* type;
};
constexpr ContractCall kContractCalls[] = {
    {contract::kMethodRequestSync, contract::kRequestRead, "read"},
    {contract::kMethodRequestSync, contract::kRequestSubscribe, "subscribe"},
    {contract::kMethodRequestSync, contract::kRequestUnsubscribe, "unsubscribe"},
    {contract::kMethodRequestAsync, contract::kRequestAsync, "request"},
    {contract::kMethodWrite, contract::kRequestWrite, "write"},
};

// What GDBus answers on every object it exports, the service's too: named as
// what they are, since tools such as gdbus and d-feet send them.
struct StandardCall {
    const char* interface;
    const char* member;
    const char* signature;
    const char* type;
};
constexpr StandardCall kStandardCalls[] = {
    {"org.freedesktop.DBus.Introspectable", "Introspect", "", "introspect"},
    {"org.freedesktop.DBus.Peer", "Ping", "", "ping"},
    {"org.freedesktop.DBus.Peer", "GetMachineId", "", "machine-id"},
    {"org.freedesktop.DBus.Properties", "Get", "ss", "properties"},
    {"org.freedesktop.DBus.Properties", "GetAll", "s", "properties"},
    {"org.freedesktop.DBus.Properties", "Set", "ssv", "properties"},
};

constexpr const char* kUndecodable = "undecodable";

std::string Text(const char* text) { return text != nullptr ? text : ""; }

// A message's body signature; GDBus gives none for an empty body.
std::string SignatureOf(GDBusMessage* message) { return Text(g_dbus_message_get_signature(message)); }

bool IsEmptyBody(GVariant* body) { return body == nullptr || g_variant_n_children(body) == 0; }

std::string ProcessName(guint32 pid) {
    if (pid == 0) return "";
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

// The process behind a connection, as far as it could be learnt.
struct Identity {
    guint32 pid = 0;      // 0: not known
    std::string process;  // empty: not known
};

// The processes behind the connections that the monitor sees, by unique
// name. A name is looked up the moment the monitor learns of it (the
// connection joins the bus or takes the service's name, or its first message
// arrives), on GDBus's worker thread: the main loop may be far behind (a
// slow terminal, a long answer), and a client that makes one call and exits
// is gone by the time the loop shows its call. The bus daemon answers for a
// connection as long as it is on the bus, and /proc for a process until it
// is reaped; the request tuple's pid is read at first sight too, in case
// the process is gone before the daemon's answer comes. What is learnt is
// kept until the connection leaves the bus.
class Identities {
public:
    // GLib's lock and condition rather than the C++ library's: its timed
    // wait is on the 64-bit monotonic clock everywhere, where libstdc++'s
    // goes through a timespec of the C library's time_t, 32 bits on armhf.
    // ContextAutoLock tells ThreadSanitizer of each acquire and release,
    // which it cannot see in GLib's futex.
    Identities() {
        g_mutex_init(&m_mutex);
        g_cond_init(&m_changed);
    }
    ~Identities() {
        Detach();
        g_cond_clear(&m_changed);
        g_mutex_clear(&m_mutex);
    }
    Identities(const Identities&) = delete;
    Identities& operator=(const Identities&) = delete;

    // lookup: a connection of the monitor's own, still an ordinary client.
    void Attach(GDBusConnection* lookup) {
        m_filter = g_dbus_connection_add_filter(lookup, &Identities::Filter, this, nullptr);
        ContextAutoLock lock(&m_mutex);
        m_lookup = lookup;
    }

    void Detach() {
        GDBusConnection* lookup = nullptr;
        {
            ContextAutoLock lock(&m_mutex);
            std::swap(lookup, m_lookup);
        }
        if (lookup != nullptr) g_dbus_connection_remove_filter(lookup, m_filter);
    }

    // name seen for the first time (any thread); claimedPid: the pid of its
    // request tuple, 0 when it sent none.
    void Notice(const char* name, gint32 claimedPid) {
        if (name == nullptr || name[0] != ':') return;
        ContextAutoLock lock(&m_mutex);
        if (m_lookup == nullptr) return;
        auto [entry, added] = m_entries.try_emplace(name);
        if (!added) return;
        if (claimedPid > 0) {
            entry->second.claimedPid = static_cast<guint32>(claimedPid);
            entry->second.claimedProcess = ProcessName(entry->second.claimedPid);
        }
        GDBusMessage* ask =
            g_dbus_message_new_method_call(kBusDaemon, kBusDaemonPath, kBusDaemon, "GetConnectionCredentials");
        g_dbus_message_set_body(ask, g_variant_new("(s)", name));
        guint32 serial = 0;
        // Sent without waiting: its answer is taken by Filter, on the worker thread.
        if (g_dbus_connection_send_message(m_lookup, ask, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr)) {
            m_requests[serial] = name;
        } else {
            entry->second.done = true;
        }
        g_object_unref(ask);
    }

    // What was learnt of name; waits for a look-up still under way, once: an
    // answer later than that still fills in the events after it.
    Identity Get(const std::string& name) {
        ContextAutoLock lock(&m_mutex);
        const gint64 until = g_get_monotonic_time() + kIdentityWaitUs;
        auto it = m_entries.find(name);
        while (it != m_entries.end() && !it->second.done) {
            // The wait lets go of the lock and takes it again inside GLib,
            // where ThreadSanitizer cannot see it: say so, as the lock does.
            lumora::internal::HandOffSend(&m_mutex);
            const bool signalled = g_cond_wait_until(&m_changed, &m_mutex, until);
            lumora::internal::HandOffReceive(&m_mutex);
            if (!signalled) break;
            it = m_entries.find(name);  // Forget may have run meanwhile
        }
        it = m_entries.find(name);
        if (it == m_entries.end()) return {};
        it->second.done = true;
        return it->second.identity;
    }

    // The connection left the bus; unique names are never given again.
    void Forget(const std::string& name) {
        ContextAutoLock lock(&m_mutex);
        m_entries.erase(name);
    }

private:
    struct Entry {
        bool done = false;
        Identity identity;
        guint32 claimedPid = 0;
        std::string claimedProcess;  // read at first sight
    };

    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) {
        if (!incoming) return message;
        GDBusMessageType kind = g_dbus_message_get_message_type(message);
        if (kind != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && kind != G_DBUS_MESSAGE_TYPE_ERROR) return message;
        auto* self = static_cast<Identities*>(data);
        std::string name;
        {
            ContextAutoLock lock(&self->m_mutex);
            auto request = self->m_requests.find(g_dbus_message_get_reply_serial(message));
            if (request == self->m_requests.end()) return message;  // an answer to a call of the monitor's own
            name = request->second;
            self->m_requests.erase(request);
        }
        self->Resolved(name, message);
        g_object_unref(message);
        return nullptr;
    }

    void Resolved(const std::string& name, GDBusMessage* reply) {
        guint32 pid = 0;
        GVariant* body = g_dbus_message_get_body(reply);
        if (g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN && body != nullptr &&
            g_variant_is_of_type(body, G_VARIANT_TYPE("(a{sv})"))) {
            GVariant* credentials = g_variant_get_child_value(body, 0);
            g_variant_lookup(credentials, "ProcessID", "u", &pid);
            g_variant_unref(credentials);
        }
        std::string process = ProcessName(pid);
        ContextAutoLock lock(&m_mutex);
        auto it = m_entries.find(name);
        if (it == m_entries.end()) return;  // it left meanwhile
        Entry& entry = it->second;
        // Gone from /proc already: the name read at first sight is its own
        // when the bus daemon names the same pid.
        if (process.empty() && pid != 0 && pid == entry.claimedPid) process = entry.claimedProcess;
        entry.identity = {pid, process};
        entry.done = true;
        g_cond_broadcast(&m_changed);
    }

    GDBusConnection* m_lookup = nullptr;
    guint m_filter = 0;
    GMutex m_mutex;   // guards m_lookup, m_entries and m_requests (the worker thread answers)
    GCond m_changed;  // a look-up was answered
    std::map<std::string, Entry> m_entries;     // by unique name
    std::map<guint32, std::string> m_requests;  // serial of a look-up -> the name it asks about
};

// The JSON value of a GVariant of the statistics payloads and others: arrays
// as arrays, tuples as arrays, numbers, strings and booleans as themselves.
Json::Value VariantJson(GVariant* value) {
    if (g_variant_is_container(value)) {
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {
            GVariant* inner = g_variant_get_variant(value);
            Json::Value json = VariantJson(inner);
            g_variant_unref(inner);
            return json;
        }
        Json::Value array(Json::arrayValue);
        gsize n = g_variant_n_children(value);
        for (gsize i = 0; i < n; ++i) {
            GVariant* child = g_variant_get_child_value(value, i);
            array.append(VariantJson(child));
            g_variant_unref(child);
        }
        return array;
    }
    switch (g_variant_classify(value)) {
        case G_VARIANT_CLASS_BOOLEAN:
            return Json::Value(static_cast<bool>(g_variant_get_boolean(value)));
        case G_VARIANT_CLASS_INT32:
            return Json::Value(g_variant_get_int32(value));
        case G_VARIANT_CLASS_UINT32:
            return Json::Value(g_variant_get_uint32(value));
        case G_VARIANT_CLASS_INT64:
            return Json::Value(static_cast<Json::Int64>(g_variant_get_int64(value)));
        case G_VARIANT_CLASS_UINT64:
            return Json::Value(static_cast<Json::UInt64>(g_variant_get_uint64(value)));
        case G_VARIANT_CLASS_DOUBLE:
            return Json::Value(g_variant_get_double(value));
        case G_VARIANT_CLASS_STRING:
        case G_VARIANT_CLASS_OBJECT_PATH:
        case G_VARIANT_CLASS_SIGNATURE:
            return Json::Value(g_variant_get_string(value, nullptr));
        default: {
            gchar* printed = g_variant_print(value, FALSE);
            Json::Value json(printed);
            g_free(printed);
            return json;
        }
    }
}

// The fields of an event. The events are the monitor's own, but what they
// carry came off the bus, and all of this runs in GLib callbacks: they are
// read through the checked layer, which falls back instead of throwing.
std::string TextOf(const Json::Value& event, const char* key) { return tools::JsonField(event)[key].TextOr(""); }
long long IntOf(const Json::Value& event, const char* key) { return tools::JsonField(event)[key].IntOr(0); }
double NumberOf(const Json::Value& event, const char* key) { return tools::JsonField(event)[key].NumberOr(0); }
bool BoolOf(const Json::Value& event, const char* key) { return tools::JsonField(event)[key].BoolOr(false); }

// data as an event carries it: its JSON when it is JSON, else the text (also
// when nested deeper than the tools take JSON).
Json::Value DataJson(const std::string& data) {
    Json::Value parsed;
    return ParseJsonInput(data, parsed) ? parsed : Json::Value(data);
}

std::string Compact(const Json::Value& value) {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder settings;
        settings["indentation"] = "";
        settings["emitUTF8"] = true;
        // As many significant digits as a double always keeps: the service's
        // numbers as it wrote them, 0.1 as 0.1.
        settings["precision"] = 15;
        return settings;
    }();
    return Json::writeString(builder, value);
}

std::string Clock(gint64 realUs) {
    GDateTime* time = g_date_time_new_from_unix_local(realUs / G_USEC_PER_SEC);
    gchar* text = g_date_time_format(time, "%H:%M:%S");
    char line[32];
    snprintf(line, sizeof line, "%s.%03d", text, static_cast<int>((realUs / 1000) % 1000));
    g_free(text);
    g_date_time_unref(time);
    return line;
}

// Microseconds as milliseconds with three decimals.
double Ms(gint64 us) { return static_cast<double>(us) / 1000.0; }

// The median of sorted values: the middle one, or the mean of the two
// middle ones of an even count.
double Median(const std::vector<double>& sorted) {
    size_t n = sorted.size();
    return n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
}

// The p-th percentile of sorted values by nearest rank: the smallest value
// that at least p of them do not exceed.
double NearestRank(const std::vector<double>& sorted, double p) {
    auto rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::min(std::max<size_t>(rank, 1), sorted.size()) - 1];
}

// An event or the summary as one line of JSON. The monitor's own figures,
// the real numbers it makes (t_ms, latency_ms, waited_ms, seconds, the
// percentiles, rates), are milliseconds or seconds with three decimals, never
// in exponent form; what came from the bus ("data", "records") is written as
// jsoncpp writes it.
// text as a JSON string the way jsoncpp writes it with emitUTF8: UTF-8 as it
// is; the quote, the backslash and the C0 controls escaped.
void AppendQuoted(const std::string& text, std::string& out) {
    out += '"';
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char hex[8];
                    snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned char>(c));
                    out += hex;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

void AppendJson(const Json::Value& value, bool figures, std::string& out) {
    if (figures && value.isObject()) {
        out += '{';
        bool first = true;
        for (const std::string& key : value.getMemberNames()) {
            if (!first) out += ',';
            first = false;
            AppendQuoted(key, out);
            out += ':';
            AppendJson(value[key], key != "data" && key != "records", out);
        }
        out += '}';
    } else if (figures && value.isArray()) {
        out += '[';
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            if (i > 0) out += ',';
            AppendJson(value[i], figures, out);
        }
        out += ']';
    } else if (figures && value.type() == Json::realValue) {
        double number = tools::JsonField(value).NumberOr(0);
        char text[64];
        snprintf(text, sizeof text, "%.3f", number);
        out += std::isfinite(number) ? text : "null";
    } else if (figures && value.isString()) {
        AppendQuoted(tools::JsonField(value).TextOr(""), out);
    } else if (figures && (value.isInt() || value.isUInt()) && !value.isBool()) {
        out += std::to_string(tools::JsonField(value).IntOr(0));
    } else {
        out += Compact(value);  // what came from the bus, as one; true, false, null
    }
}

std::string EventJson(const Json::Value& event) {
    std::string line;
    AppendJson(event, true, line);
    return line;
}

// Text from the bus for a terminal, one event one line: the C0 controls and
// DEL as \n, \r, \t or \xHH, the C1 controls as \u0080 to \u009f, and the
// backslash doubled, so that an escape cannot be passed off in the text
// itself. D-Bus strings are valid UTF-8 and hold no NUL.
std::string Escape(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    char hex[8];
    for (size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0 &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80) {
            snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned char>(text[++i]));
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Compact JSON as a terminal may show it: jsoncpp escapes the C0 controls in
// strings, not DEL nor the C1 controls, which can only stand inside strings
// and become \u escapes here.
std::string JsonSafe(const std::string& json) {
    std::string out;
    out.reserve(json.size());
    char hex[8];
    for (size_t i = 0; i < json.size(); ++i) {
        auto c = static_cast<unsigned char>(json[i]);
        if (c == 0x7f) {
            out += "\\u007f";
        } else if (c == 0xc2 && i + 1 < json.size() && static_cast<unsigned char>(json[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(json[i + 1]) < 0xa0) {
            snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned char>(json[++i]));
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// The columns text takes on a terminal: wide characters two, combining
// marks none.
size_t Width(const std::string& text) {
    size_t width = 0;
    for (const char* p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
        gunichar c = g_utf8_get_char(p);
        width += g_unichar_iszerowidth(c) ? 0 : g_unichar_iswide(c) ? 2 : 1;
    }
    return width;
}

// The longest start of text no wider than columns, cut between characters.
std::string Prefix(const std::string& text, size_t columns) {
    size_t width = 0;
    const char* p = text.c_str();
    for (; *p != '\0'; p = g_utf8_next_char(p)) {
        gunichar c = g_utf8_get_char(p);
        size_t w = g_unichar_iszerowidth(c) ? 0 : g_unichar_iswide(c) ? 2 : 1;
        if (width + w > columns) break;
        width += w;
    }
    return text.substr(0, static_cast<size_t>(p - text.c_str()));
}

struct Piece {
    std::string text;
    bool data = false;  // may be cut to fit
};

// One line of pieces no wider than columns (0: any width). Only the data
// pieces give way, each ending in "..." when cut: the narrower ones keep
// what they need, the wider ones share the rest evenly. When what is not
// data is wider than the terminal by itself, the data is "..." and the line
// is shown whole, to wrap: time, names, subject, code and latency are never
// cut.
std::string Fit(const std::vector<Piece>& pieces, size_t columns) {
    std::string whole;
    for (const Piece& piece : pieces) whole += piece.text;
    if (columns == 0 || Width(whole) <= columns) return whole;
    size_t fixed = 0;
    std::vector<std::pair<size_t, size_t>> data;  // (width, index), narrowest first
    for (size_t i = 0; i < pieces.size(); ++i) {
        size_t width = Width(pieces[i].text);
        if (pieces[i].data) {
            data.emplace_back(width, i);
        } else {
            fixed += width;
        }
    }
    std::sort(data.begin(), data.end());
    std::vector<size_t> allowed(pieces.size(), 0);
    size_t left = columns > fixed ? columns - fixed : 0;
    for (size_t n = 0; n < data.size(); ++n) {
        size_t share = left / (data.size() - n);
        allowed[data[n].second] = std::min(data[n].first, share);
        left -= allowed[data[n].second];
    }
    std::string line;
    for (size_t i = 0; i < pieces.size(); ++i) {
        const Piece& piece = pieces[i];
        if (!piece.data || Width(piece.text) <= allowed[i]) {
            line += piece.text;
        } else {
            line += Prefix(piece.text, allowed[i] > 3 ? allowed[i] - 3 : 0) + "...";
        }
    }
    return line;
}

class Monitor {
public:
    explicit Monitor(MonitorOptions options) : m_options(std::move(options)) {}
    ~Monitor() {
        if (m_timeoutSource != 0) g_source_remove(m_timeoutSource);
        if (m_connection != nullptr) {
            g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
            g_object_unref(m_connection);
        }
        if (m_lookup != nullptr) {
            g_dbus_connection_close_sync(m_lookup, nullptr, nullptr);
            m_identities.Detach();
            g_object_unref(m_lookup);
        }
    }

    int Run(GMainLoop* loop) {
        m_loop = loop;
        m_startUs = g_get_monotonic_time();
        m_startRealUs = g_get_real_time();
        if (!Connect()) return kFailed;
        // Once the bus lets the monitor watch: a refusal leaves no file, and
        // an earlier timeline of the same name as it was. What the bus sends
        // meanwhile waits on the main loop.
        if (!m_options.record.empty()) {
            m_record.open(m_options.record, std::ios::out | std::ios::trunc);
            if (!m_record) return Fail("cannot write the timeline " + m_options.record + ": " + g_strerror(errno));
            Json::Value header;
            header["format"] = kTimelineFormat;
            header["version"] = kTimelineVersion;
            m_record << Compact(header) << "\n" << std::flush;
        }
        // On stderr, so that standard output holds the events alone.
        fprintf(stderr, "lumora: monitoring %s on %s\n", contract::kBusName, BusAddress().c_str());
        m_timeoutSource = g_timeout_add(500, &Monitor::CheckTimeouts, this);
        if (m_options.durationSeconds > 0) {
            // To the millisecond from the start (g_timeout_add_seconds would
            // round to a whole second of GLib's own).
            gint64 leftMs =
                m_options.durationSeconds * G_GINT64_CONSTANT(1000) - (g_get_monotonic_time() - m_startUs) / 1000;
            g_timeout_add(static_cast<guint>(std::max<gint64>(leftMs, 0)), &Monitor::Quit, loop);
        }
        g_main_loop_run(loop);
        ReportTimeouts(true);
        if (m_options.summary) PrintSummary();
        return kOk;
    }

private:
    bool Connect() {
        std::string address = BusAddress();
        GError* error = nullptr;
        auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                       G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        m_connection = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
        if (m_connection != nullptr) {
            m_lookup = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
        }
        if (m_connection == nullptr || m_lookup == nullptr) {
            Fail("cannot connect to the bus " + address + ": " + (error != nullptr ? error->message : ""));
            if (error != nullptr) g_error_free(error);
            return false;
        }
        m_identities.Attach(m_lookup);
        m_serviceOwner = NameOwner(contract::kBusName);
        m_identities.Notice(m_serviceOwner.c_str(), 0);
        g_dbus_connection_add_filter(m_connection, &Monitor::Filter, this, nullptr);
        std::string calls = std::string("type='method_call',destination='") + contract::kBusName + "'";
        std::string returns = std::string("type='method_return',sender='") + contract::kBusName + "'";
        std::string errors = std::string("type='error',sender='") + contract::kBusName + "'";
        // The bus answers for a service that vanished with a call unanswered.
        std::string busErrors = "type='error',sender='org.freedesktop.DBus'";
        std::string signals =
            std::string("type='signal',interface='") + contract::kInterface + "',path='" + contract::kObjectPath + "'";
        // Who owns the service's name (a signal from anyone else is not the
        // service's), and which connections left the bus.
        std::string owners = std::string("type='signal',sender='") + kBusDaemon + "',interface='" + kBusDaemon +
                             "',member='NameOwnerChanged'";
        const gchar* rules[] = {calls.c_str(),   returns.c_str(), errors.c_str(), busErrors.c_str(),
                                signals.c_str(), owners.c_str(),  nullptr};
        GDBusMessage* become = g_dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                              "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
        g_dbus_message_set_body(become, g_variant_new("(^asu)", rules, 0u));
        guint32 serial = 0;
        m_becomeSerial.store(g_dbus_connection_get_last_serial(m_connection) + 1);
        GDBusMessage* answer = g_dbus_connection_send_message_with_reply_sync(
            m_connection, become, G_DBUS_SEND_MESSAGE_FLAGS_NONE, 5000, &serial, nullptr, &error);
        g_object_unref(become);
        GVariant* reply = nullptr;
        if (answer != nullptr && !g_dbus_message_to_gerror(answer, &error)) reply = g_variant_new("()");
        if (answer != nullptr) g_object_unref(answer);
        if (reply == nullptr) {
            if (error == nullptr) g_set_error_literal(&error, G_IO_ERROR, G_IO_ERROR_FAILED, "no answer");
            gchar* remote = g_dbus_error_get_remote_error(error);
            g_dbus_error_strip_remote_error(error);
            // dbus-daemon lets root and the user it runs as monitor, whatever
            // the bus's policy says.
            std::string why = remote != nullptr && strcmp(remote, "org.freedesktop.DBus.Error.AccessDenied") == 0
                                  ? " (the bus daemon lets only root and its own user monitor)"
                                  : "";
            Fail(std::string("the bus refused monitoring: ") + error->message + why);
            g_free(remote);
            g_error_free(error);
            return false;
        }
        g_variant_unref(g_variant_ref_sink(reply));
        return true;
    }

    // The unique name of name's owner, "" when it has none (asked once, before
    // monitoring starts; NameOwnerChanged tells the rest).
    std::string NameOwner(const char* name) {
        GVariant* reply = g_dbus_connection_call_sync(m_lookup, kBusDaemon, kBusDaemonPath, kBusDaemon, "GetNameOwner",
                                                      g_variant_new("(s)", name), G_VARIANT_TYPE("(s)"),
                                                      G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
        if (reply == nullptr) return "";
        const gchar* owner = nullptr;
        g_variant_get(reply, "(&s)", &owner);
        std::string text = owner;
        g_variant_unref(reply);
        return text;
    }

    // The connections a message concerns, looked up at once (see Identities).
    void NoticeParties(GDBusMessage* message) {
        const char* sender = g_dbus_message_get_sender(message);
        switch (g_dbus_message_get_message_type(message)) {
            case G_DBUS_MESSAGE_TYPE_METHOD_CALL: {
                gint32 claimedPid = 0;
                GVariant* body = g_dbus_message_get_body(message);
                if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestTuple))) {
                    GVariant* pid = g_variant_get_child_value(body, 0);
                    claimedPid = g_variant_get_int32(pid);
                    g_variant_unref(pid);
                }
                m_identities.Notice(sender, claimedPid);
                break;
            }
            case G_DBUS_MESSAGE_TYPE_SIGNAL: {
                if (g_strcmp0(sender, kBusDaemon) != 0) {
                    m_identities.Notice(sender, 0);
                    m_identities.Notice(g_dbus_message_get_destination(message), 0);
                    break;
                }
                // A connection joined the bus, or took the service's name:
                // looked up before it says anything, which a client that
                // calls once and goes may leave little time for.
                GVariant* body = g_dbus_message_get_body(message);
                if (g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") != 0 || body == nullptr ||
                    !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)")))
                    break;
                const gchar* newOwner = nullptr;
                g_variant_get(body, "(&s&s&s)", nullptr, nullptr, &newOwner);
                m_identities.Notice(newOwner, 0);
                break;
            }
            default:
                break;
        }
    }

    // GDBus's worker thread: every message the bus copies to the monitor.
    // Taken away from GDBus (a monitor must never answer) and handed to the
    // main loop, in order.
    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) {
        if (!incoming) return message;
        auto* self = static_cast<Monitor*>(data);
        // Until the bus answered BecomeMonitor (its answer comes before any
        // copy), messages are the connection's own.
        if (!self->m_monitoring.load()) {
            if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN &&
                g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0 &&
                g_dbus_message_get_reply_serial(message) == self->m_becomeSerial.load()) {
                self->m_monitoring.store(true);
            }
            return message;
        }
        gint64 us = g_get_monotonic_time();
        self->NoticeParties(message);
        auto* seen = new Seen{us, message};  // takes the filter's reference
        auto* pair = new std::pair<Monitor*, Seen*>(self, seen);
        lumora::internal::HandOffSend(pair);  // the main context's lock orders it; Handle receives it
        g_main_context_invoke_full(nullptr, G_PRIORITY_DEFAULT, &Monitor::Handle, pair, nullptr);
        return nullptr;
    }

    static gboolean Handle(gpointer data) {
        lumora::internal::HandOffReceive(data);
        std::unique_ptr<std::pair<Monitor*, Seen*>> pair(static_cast<std::pair<Monitor*, Seen*>*>(data));
        std::unique_ptr<Seen> seen(pair->second);
        pair->first->Take(seen->us, seen->message);
        g_object_unref(seen->message);
        return G_SOURCE_REMOVE;
    }

    static gboolean Quit(gpointer loop) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
    }

    static gboolean CheckTimeouts(gpointer data) {
        static_cast<Monitor*>(data)->ReportTimeouts(false);
        return G_SOURCE_CONTINUE;
    }

    void Take(gint64 us, GDBusMessage* message) {
        switch (g_dbus_message_get_message_type(message)) {
            case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
                TakeCall(us, message);
                break;
            case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
            case G_DBUS_MESSAGE_TYPE_ERROR:
                TakeAnswer(us, message);
                break;
            case G_DBUS_MESSAGE_TYPE_SIGNAL:
                TakeSignal(us, message);
                break;
            default:
                break;
        }
    }

    Json::Value Base(gint64 us, const char* event) {
        Json::Value json(Json::objectValue);
        json["time"] = Clock(m_startRealUs + (us - m_startUs));
        json["t_ms"] = Ms(us - m_startUs);
        json["event"] = event;
        return json;
    }

    // The call's type and fields from its member, interface and body: a call
    // of the contract gets its operation's name, a standard call of GDBus
    // its own, anything else is undecodable, with what could be read of it.
    std::string Decode(GDBusMessage* message, Json::Value& call, gint32& tuplePid) {
        std::string member = Text(g_dbus_message_get_member(message));
        std::string interface = Text(g_dbus_message_get_interface(message));
        std::string signature = SignatureOf(message);
        GVariant* body = g_dbus_message_get_body(message);
        bool ours = interface.empty() || interface == contract::kInterface;
        if (ours && member == contract::kMethodServiceEnable && IsEmptyBody(body)) return "enable";
        for (const StandardCall& standard : kStandardCalls) {
            if (interface != standard.interface || member != standard.member || signature != standard.signature)
                continue;
            call["member"] = member;
            if (!IsEmptyBody(body)) {
                gchar* printed = g_variant_print(body, FALSE);
                call["arguments"] = printed;
                g_free(printed);
            }
            return standard.type;
        }
        std::string type = kUndecodable;
        if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestTuple))) {
            gint32 requestType = 0, id = 0;
            const gchar *subject = nullptr, *input = nullptr;
            g_variant_get(body, "(iii&s&s)", &tuplePid, &requestType, &id, &subject, &input);
            for (const ContractCall& pair : kContractCalls) {
                if (ours && member == pair.method && requestType == pair.requestType) type = pair.type;
            }
            if (type == kUndecodable) call["request_type"] = requestType;
            call["id"] = id;
            call["subject"] = subject;
            call["input"] = input;
        }
        if (type == kUndecodable) {
            call["event"] = kUndecodable;
            call["member"] = member;
            call["signature"] = signature;
            if (!ours) call["interface"] = interface;
        }
        return type;
    }

    void TakeCall(gint64 us, GDBusMessage* message) {
        std::string sender = Text(g_dbus_message_get_sender(message));
        if (g_strcmp0(g_dbus_message_get_path(message), contract::kObjectPath) != 0) return;  // the simulator's control
        Json::Value call = Base(us, "call");
        call["sender"] = sender;
        call["serial"] = g_dbus_message_get_serial(message);
        bool noReply = (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
        if (noReply) call["no_reply"] = true;
        gint32 tuplePid = 0;  // none in a ServiceEnable
        call["type"] = Decode(message, call, tuplePid);
        // The caller is who the bus daemon says it is; the tuple's pid is
        // only its word, shown when it says another.
        Identity caller = m_identities.Get(sender);
        SetParty(call, "pid", "process", caller);
        if (tuplePid != 0 && static_cast<guint32>(tuplePid) != caller.pid) call["request_pid"] = tuplePid;
        // Every call is matched with its answer, the ones whose caller asked
        // for none too: a service may answer them all the same.
        m_pending[{sender, g_dbus_message_get_serial(message)}] = {us, call, noReply};
        Record(call);
        if (!Shown(call)) return;
        Count(call, "call");
        Emit(call);
    }

    // The answer's fields as the call's type has them, and in replayable
    // what the timeline alone keeps; false when its body does not fit the
    // call.
    static bool DecodeAnswer(const std::string& type, GVariant* body, Json::Value& answer, Json::Value& replayable) {
        if (type == "enable") {
            if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kServiceEnableReply)))
                return false;
            gboolean enabled = FALSE;
            const gchar* whiteList = nullptr;
            g_variant_get(body, "(b&s)", &enabled, &whiteList);
            answer["enabled"] = static_cast<bool>(enabled);
            answer["data"] = DataJson(whiteList);
            answer["text"] = whiteList;
            return true;
        }
        if (type == "read" || type == "subscribe" || type == "unsubscribe") {
            if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestSyncReply)))
                return false;
            gint32 code = 0;
            const gchar* text = nullptr;
            g_variant_get(body, "(i&s)", &code, &text);
            answer["code"] = code;
            answer["data"] = DataJson(text);
            answer["text"] = text;
            return true;
        }
        if (type == "request") {
            if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestAsyncReply)))
                return false;
            gint32 code = 0;
            GVariant* payload = nullptr;
            g_variant_get(body, "(i&sv)", &code, nullptr, &payload);
            answer["code"] = code;
            if (g_variant_is_of_type(payload, G_VARIANT_TYPE(contract::kTextPayload))) {
                const gchar* text = nullptr;
                g_variant_get(payload, "(&s)", &text);
                answer["data"] = DataJson(text);
                answer["text"] = text;
            } else {
                answer["records"] = VariantJson(payload);  // a statistics answer
                // With its types, which the records above do not all show.
                gchar* printed = g_variant_print(payload, TRUE);
                replayable["payload"] = printed;
                g_free(printed);
            }
            g_variant_unref(payload);
            return true;
        }
        if (type == "write" || type == "ping") return IsEmptyBody(body);
        if (type == "introspect") {
            if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(s)"))) return false;
            gsize length = 0;
            GVariant* xml = g_variant_get_child_value(body, 0);
            g_variant_get_string(xml, &length);
            g_variant_unref(xml);
            answer["bytes"] = static_cast<Json::UInt64>(length);
            return true;
        }
        if (type == "machine-id" || type == "properties" || type == kUndecodable) {
            // What came back, as GVariant text: none of it is the service's data.
            if (type == "machine-id" && (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(s)"))))
                return false;
            if (!IsEmptyBody(body)) {
                gchar* printed = g_variant_print(body, FALSE);
                answer["reply"] = printed;
                g_free(printed);
            }
            return true;
        }
        return false;
    }

    void TakeAnswer(gint64 us, GDBusMessage* message) {
        const char* destination = g_dbus_message_get_destination(message);
        std::pair<std::string, guint32> key{Text(destination), g_dbus_message_get_reply_serial(message)};
        // An answer after the monitor's time-out still reached a caller that
        // waited longer: it is shown, as late.
        bool late = false;
        auto it = m_pending.find(key);
        if (it == m_pending.end()) {
            it = m_late.find(key);
            if (it == m_late.end()) return;  // not a call to the service
            late = true;
        }
        PendingCall pending = it->second;
        (late ? m_late : m_pending).erase(it);
        Json::Value answer = pending.call;
        Json::Value base = Base(us, "answer");
        answer["event"] = "answer";
        answer["time"] = base["time"];
        answer["t_ms"] = base["t_ms"];
        answer["latency_ms"] = Ms(us - pending.us);
        if (late) answer["late"] = true;
        answer.removeMember("input");
        answer.removeMember("arguments");
        answer.removeMember("no_reply");
        Json::Value replayable(Json::objectValue);  // what the timeline alone keeps
        GVariant* body = g_dbus_message_get_body(message);
        std::string type = TextOf(pending.call, "type");
        if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR) {
            answer["event"] = "error";
            answer["error"] = Text(g_dbus_message_get_error_name(message));
            const gchar* text = nullptr;
            if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)")))
                g_variant_get(body, "(&s)", &text);
            answer["message"] = Text(text);
        } else if (type == kUndecodable) {
            answer["reply_signature"] = SignatureOf(message);
            DecodeAnswer(type, body, answer, replayable);
        } else if (!DecodeAnswer(type, body, answer, replayable)) {
            answer["event"] = kUndecodable;
            answer["reply_signature"] = SignatureOf(message);
        }
        Record(answer, replayable);
        if (!Shown(answer)) return;
        Count(answer, TextOf(answer, "event"));
        Emit(answer);
    }

    // The bus daemon's word: the service's name changed hands, or a
    // connection left the bus.
    void TakeOwnerChange(GDBusMessage* message) {
        GVariant* body = g_dbus_message_get_body(message);
        if (g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") != 0 || body == nullptr ||
            !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
            return;  // its word to the monitor itself (NameLost...), not a copy
        }
        const gchar *name = nullptr, *newOwner = nullptr;
        g_variant_get(body, "(&s&s&s)", &name, nullptr, &newOwner);
        if (strcmp(name, contract::kBusName) == 0) m_serviceOwner = newOwner;
        if (name[0] == ':' && newOwner[0] == '\0') {
            // Everything it sent was shown before this, in the bus's order.
            m_identities.Forget(name);
            for (auto it = m_late.begin(); it != m_late.end();)
                it = it->first.first == name ? m_late.erase(it) : std::next(it);
        }
    }

    void TakeSignal(gint64 us, GDBusMessage* message) {
        std::string sender = Text(g_dbus_message_get_sender(message));
        if (sender == kBusDaemon) return TakeOwnerChange(message);
        GVariant* body = g_dbus_message_get_body(message);
        Json::Value json;
        std::string subject;
        if (g_strcmp0(g_dbus_message_get_member(message), contract::kSignalResponse) != 0 || body == nullptr ||
            !g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kResponseSignal))) {
            json = Base(us, kUndecodable);
            json["member"] = Text(g_dbus_message_get_member(message));
            json["signature"] = SignatureOf(message);
        } else {
            const gchar *text = nullptr, *data = nullptr;
            g_variant_get(body, "(i&s&s)", nullptr, &text, &data);
            subject = text;
            if (subject == contract::kHello) {
                json = Base(us, "hello");
                json["data"] = DataJson(data);
            } else if (subject == contract::kBye) {
                json = Base(us, "bye");
            } else {
                json = Base(us, "signal");
                json["subject"] = subject;
                json["data"] = DataJson(data);
                json["text"] = data;
            }
        }
        // Anyone may send a signal with the service's interface and path; it
        // is the service's only when its sender owns the service's name.
        json["sender"] = sender;
        SetParty(json, "sender_pid", "sender_process", m_identities.Get(sender));
        bool fromService = !m_serviceOwner.empty() && sender == m_serviceOwner;
        json["from_service"] = fromService;
        const char* destination = g_dbus_message_get_destination(message);
        json["destination"] = destination != nullptr ? Json::Value(destination) : Json::Value();
        if (destination != nullptr) SetParty(json, "pid", "process", m_identities.Get(destination));
        // A replay plays the timeline as the service: what others sent is
        // not the service's to play.
        if (fromService) RecordSignal(json, message);
        if (!Shown(json)) return;
        if (json["event"] == "signal") ++m_subjects[subject].signals;
        Emit(json);
    }

    // A process's fields: null pid and "unknown" for what could not be learnt.
    static void SetParty(Json::Value& event, const char* pidKey, const char* processKey, const Identity& identity) {
        event[pidKey] = identity.pid != 0 ? Json::Value(identity.pid) : Json::Value();
        event[processKey] = identity.process.empty() ? kUnknown : identity.process;
    }

    // Calls without an answer after 25 s are reported as time-outs and kept
    // for an answer that may still come; at the end the open ones are
    // reported as unanswered. Calls whose caller asked for no answer are
    // dropped quietly: nothing is missing.
    void ReportTimeouts(bool all) {
        gint64 now = g_get_monotonic_time();
        for (auto it = m_pending.begin(); it != m_pending.end();) {
            if (!all && now - it->second.us < kCallTimeoutUs) {
                ++it;
                continue;
            }
            PendingCall pending = it->second;
            auto key = it->first;
            it = m_pending.erase(it);
            if (pending.noReply) continue;
            Json::Value json = pending.call;
            Json::Value base = Base(now, all ? "unanswered" : "timeout");
            json["event"] = base["event"];
            json["time"] = base["time"];
            json["t_ms"] = base["t_ms"];
            json["waited_ms"] = Ms(now - pending.us);
            json.removeMember("input");
            json.removeMember("arguments");
            if (!all) KeepForLateAnswer(key, pending);
            Record(json);
            if (!Shown(json)) continue;
            Count(json, "timeout");
            Emit(json);
        }
    }

    void KeepForLateAnswer(const std::pair<std::string, guint32>& key, const PendingCall& pending) {
        if (m_late.size() >= kMaxLateCalls) {
            auto oldest = std::min_element(m_late.begin(), m_late.end(),
                                           [](const auto& a, const auto& b) { return a.second.us < b.second.us; });
            m_late.erase(oldest);
        }
        m_late[key] = pending;
    }

    bool Shown(const Json::Value& event) const {
        if (!m_options.subjects.empty() && event.isMember("subject")) {
            std::string subject = TextOf(event, "subject");
            bool any = std::any_of(m_options.subjects.begin(), m_options.subjects.end(), [&](const std::string& glob) {
                return g_pattern_match_simple(glob.c_str(), subject.c_str());
            });
            if (!any) return false;
        }
        if (!m_options.subjects.empty() && !event.isMember("subject") && event["event"] != "hello" &&
            event["event"] != "bye") {
            return false;
        }
        if (!m_options.processes.empty()) {
            // The process of the call (its caller), of the signal (its
            // receiver and its sender).
            auto named = [&](const char* key) {
                return event.isMember(key) && std::find(m_options.processes.begin(), m_options.processes.end(),
                                                        TextOf(event, key)) != m_options.processes.end();
            };
            if (named("process") || named("sender_process")) return true;
            // The service's word to all its clients.
            return (event["event"] == "hello" || event["event"] == "bye") && BoolOf(event, "from_service");
        }
        return true;
    }

    void Count(const Json::Value& event, const std::string& what) {
        std::string type = TextOf(event, "type");
        std::string subject = event.isMember("subject") ? TextOf(event, "subject") : "(" + type + ")";
        SubjectStats& stats = m_subjects[subject];
        if (what == "call") {
            ++stats.calls[type];
            ++m_processes[TextOf(event, "process")][type];
        } else if (what == "answer") {
            stats.latenciesMs.push_back(NumberOf(event, "latency_ms"));
            if (event.isMember("code") && IntOf(event, "code") != 0) ++stats.errors;
        } else {
            // An error or undecodable answer, a time-out: in the errors, not
            // in the latency figures.
            ++stats.errors;
            ++stats.notCounted;
        }
    }

    // The timeline keeps every answer and signal of the service, and the
    // calls for reference, whatever the filters show. timelineOnly adds what
    // only a replay needs.
    void Record(const Json::Value& event, const Json::Value& timelineOnly = Json::Value()) {
        if (!m_record.is_open()) return;
        Json::Value line = event;
        line.removeMember("time");
        for (const std::string& key : timelineOnly.getMemberNames()) line[key] = timelineOnly[key];
        m_record << EventJson(line) << "\n" << std::flush;
    }

    // The service sends one change to each of its subscribers as a signal of
    // its own, and the bus shows the monitor every copy; the timeline has one
    // "signal" per change. A copy belongs to the change of the signal before
    // it when it comes from the same sender with the next serial (so nothing
    // else left the service in between), with the same subject and data, to
    // a receiver that change has not reached yet; it is kept as a "copy"
    // line, for reference. The same data sent again to the same receiver is
    // a change of its own, and so is every broadcast (one message reaches
    // everyone). The sender's serial goes with every signal line, so that
    // the rule can be checked in the timeline.
    struct RecordedChange {
        std::string sender;  // empty: none to continue
        guint32 lastSerial = 0;
        std::string subject;
        std::string data;
        std::vector<std::string> receivers;
    };
    RecordedChange m_lastChange;

    void RecordSignal(const Json::Value& event, GDBusMessage* message) {
        if (!m_record.is_open()) return;
        const char* sender = g_dbus_message_get_sender(message);
        const char* destination = g_dbus_message_get_destination(message);
        const guint32 serial = g_dbus_message_get_serial(message);
        Json::Value timelineOnly(Json::objectValue);
        timelineOnly["sender"] = sender != nullptr ? sender : "";
        timelineOnly["serial"] = serial;
        const bool change = TextOf(event, "event") == "signal" && sender != nullptr && destination != nullptr;
        const std::string subject = TextOf(event, "subject");
        const std::string data = TextOf(event, "text");
        RecordedChange& last = m_lastChange;
        if (change && !last.sender.empty() && last.sender == sender && serial == last.lastSerial + 1 &&
            last.subject == subject && last.data == data &&
            std::find(last.receivers.begin(), last.receivers.end(), destination) == last.receivers.end()) {
            last.lastSerial = serial;
            last.receivers.push_back(destination);
            Json::Value copy = event;
            copy["event"] = "copy";
            copy.removeMember("data");
            copy.removeMember("text");
            Record(copy, timelineOnly);
            return;
        }
        last = change ? RecordedChange{sender, serial, subject, data, {destination}} : RecordedChange{};
        Record(event, timelineOnly);
    }

    void Emit(const Json::Value& recorded) {
        // "text", the data exactly as it went, is for the timeline alone.
        Json::Value event = recorded;
        event.removeMember("text");
        if (m_options.json) {
            PrintText(JsonSafe(EventJson(event)));
            return;
        }
        // Pieces of one line; the data ones give way on a narrow terminal.
        std::vector<Piece> line;
        auto add = [&](std::string text) { line.push_back({std::move(text), false}); };
        auto addData = [&](const std::string& before, std::string text) {
            add(before);
            line.push_back({std::move(text), true});
        };
        std::string what = TextOf(event, "event");
        add(TextOf(event, "time") + " " + what + std::string(what.size() < 6 ? 6 - what.size() : 0, ' '));
        if (event.isMember("type")) {
            std::string type = TextOf(event, "type");
            if (type != what) add(" " + type);
            if (type == kUndecodable)
                add(" " + Escape(TextOf(event, "member")) + "(" + TextOf(event, "signature") + ")");
            add(" " + Party(event, "process", "pid"));
            if (event.isMember("request_type")) add(" type " + std::to_string(IntOf(event, "request_type")));
            if (event.isMember("id")) add(" #" + std::to_string(IntOf(event, "id")));
        } else if (event.isMember("member")) {  // a signal that is not the service's
            add(" " + Escape(TextOf(event, "member")) + "(" + TextOf(event, "signature") + ")");
        }
        if (event.isMember("subject")) add(" " + Escape(TextOf(event, "subject")));
        if (!TextOf(event, "input").empty()) addData(" ", Escape(TextOf(event, "input")));
        if (event.isMember("arguments")) addData(" ", Escape(TextOf(event, "arguments")));
        if (event.isMember("error")) {
            add(" " + Escape(TextOf(event, "error")));
            if (!TextOf(event, "message").empty()) addData(" ", Escape(TextOf(event, "message")));
        }
        if (event.isMember("code")) add(" -> " + std::to_string(IntOf(event, "code")));
        if (event.isMember("enabled")) add(BoolOf(event, "enabled") ? " -> enabled" : " -> disabled");
        if (event.isMember("bytes")) add(" -> " + std::to_string(IntOf(event, "bytes")) + " bytes");
        if (event.isMember("reply")) addData(" -> ", Escape(TextOf(event, "reply")));
        if (event.isMember("data")) addData(" ", JsonSafe(Compact(event["data"])));
        if (event.isMember("records")) addData(" ", JsonSafe(Compact(event["records"])));
        if (event.isMember("reply_signature")) add(" reply (" + TextOf(event, "reply_signature") + ")");
        if (event.isMember("from_service")) {
            if (event["destination"].isString()) add(" -> " + Party(event, "process", "pid"));
            add(" from " + TextOf(event, "sender") + " " + Party(event, "sender_process", "sender_pid"));
            if (!BoolOf(event, "from_service")) add(" (not from the service)");
        }
        if (BoolOf(event, "late")) add(" late");
        if (event.isMember("latency_ms")) add(Millis(" (", NumberOf(event, "latency_ms"), " ms)"));
        if (event.isMember("waited_ms")) add(Millis(" (no answer after ", NumberOf(event, "waited_ms"), " ms)"));
        PrintText(Fit(line, TerminalColumns()));
    }

    // NAME[PID], NAME when the pid is not known (NAME is "unknown" when
    // that is not known either).
    static std::string Party(const Json::Value& event, const char* processKey, const char* pidKey) {
        std::string party = Escape(TextOf(event, processKey));
        if (!event[pidKey].isNull()) party += "[" + std::to_string(IntOf(event, pidKey)) + "]";
        return party;
    }

    static std::string Millis(const char* before, double ms, const char* after) {
        char text[64];
        snprintf(text, sizeof text, "%s%.1f%s", before, ms, after);
        return text;
    }

    // The terminal's width when lines are fitted to it: not with --full, nor
    // into a pipe or a file (0: no limit).
    size_t TerminalColumns() const {
        if (m_options.full || !isatty(STDOUT_FILENO)) return 0;
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return 0;
        return size.ws_col;
    }

    void PrintSummary() {
        double seconds = static_cast<double>(g_get_monotonic_time() - m_startUs) / 1e6;
        for (auto& [subject, stats] : m_subjects) std::sort(stats.latenciesMs.begin(), stats.latenciesMs.end());
        if (m_options.json) {
            Json::Value summary(Json::objectValue);
            summary["event"] = "summary";
            summary["seconds"] = seconds;
            for (const auto& [subject, stats] : m_subjects) {
                Json::Value& row = summary["subjects"][subject];
                for (const auto& [type, n] : stats.calls) row["calls"][type] = n;
                row["errors"] = stats.errors;
                Json::Value& latency = row["latency_ms"];
                const std::vector<double>& ms = stats.latenciesMs;
                latency["p50"] = ms.empty() ? Json::Value() : Json::Value(Median(ms));
                latency["p95"] = ms.empty() ? Json::Value() : Json::Value(NearestRank(ms, 0.95));
                latency["max"] = ms.empty() ? Json::Value() : Json::Value(ms.back());
                latency["answers"] = static_cast<Json::UInt64>(ms.size());
                latency["not_counted"] = stats.notCounted;
                row["signals"] = stats.signals;
                row["signals_per_s"] = seconds > 0 ? stats.signals / seconds : 0.0;
            }
            for (const auto& [process, calls] : m_processes)
                for (const auto& [type, n] : calls) summary["processes"][process][type] = n;
            PrintText(JsonSafe(EventJson(summary)));
            return;
        }
        printf("\n%-44s %-30s %6s  %-58s %9s\n", "subject", "calls", "errors", "latency in ms", "signals/s");
        for (const auto& [subject, stats] : m_subjects) {
            std::string calls;
            for (const auto& [type, n] : stats.calls)
                calls += (calls.empty() ? "" : " ") + type + ":" + std::to_string(n);
            const std::vector<double>& ms = stats.latenciesMs;
            char latency[160];
            int used = snprintf(latency, sizeof latency, "%zu answers, %u not counted", ms.size(), stats.notCounted);
            if (!ms.empty() && used > 0 && static_cast<size_t>(used) < sizeof latency) {
                snprintf(latency + used, sizeof latency - static_cast<size_t>(used), ": p50 %.1f p95 %.1f max %.1f",
                         Median(ms), NearestRank(ms, 0.95), ms.back());
            }
            printf("%-44s %-30s %6u  %-58s %9.2f\n", Escape(subject).c_str(), calls.empty() ? "-" : calls.c_str(),
                   stats.errors, latency, seconds > 0 ? stats.signals / seconds : 0.0);
        }
        printf("(latency of the answers; error and undecodable answers and time-outs are errors, not counted in it)\n");
        printf("\n%-24s %s\n", "process", "calls");
        for (const auto& [process, calls] : m_processes) {
            std::string text;
            for (const auto& [type, n] : calls) text += (text.empty() ? "" : " ") + type + ":" + std::to_string(n);
            printf("%-24s %s\n", Escape(process).c_str(), text.c_str());
        }
        fflush(stdout);
    }

    MonitorOptions m_options;
    GMainLoop* m_loop = nullptr;
    GDBusConnection* m_connection = nullptr;
    GDBusConnection* m_lookup = nullptr;  // for the bus's credentials of the connections seen
    guint m_timeoutSource = 0;
    std::atomic<bool> m_monitoring{false};
    std::atomic<guint32> m_becomeSerial{0};
    gint64 m_startUs = 0;
    gint64 m_startRealUs = 0;
    std::ofstream m_record;
    std::map<std::pair<std::string, guint32>, PendingCall> m_pending;  // by (caller, serial)
    std::map<std::pair<std::string, guint32>, PendingCall> m_late;     // timed out, an answer may still come
    Identities m_identities;
    std::string m_serviceOwner;  // the unique name that owns the service's name, "" when none
    std::map<std::string, SubjectStats> m_subjects;
    std::map<std::string, std::map<std::string, unsigned>> m_processes;
};

int Usage(const std::string& reason) {
    fprintf(stderr, "lumora: %s\n", reason.c_str());
    fprintf(stderr,
            "usage: lumora monitor [--json] [--subject GLOB]... [--process NAME]... [--duration SECONDS]\n"
            "                      [--summary] [--full] [--record FILE]\n");
    return kUsage;
}

}  // namespace

int RunMonitor(const Options&, const Args& args) {
    MonitorOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        bool hasValue = i + 1 < args.size();
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--summary") {
            options.summary = true;
        } else if (arg == "--full") {
            options.full = true;
        } else if (arg == "--subject" && hasValue) {
            options.subjects.push_back(args[++i]);
        } else if (arg == "--process" && hasValue) {
            options.processes.push_back(args[++i]);
        } else if (arg == "--record" && hasValue) {
            options.record = args[++i];
        } else if (arg == "--duration" && hasValue) {
            if (!ParseWholeSeconds(args[++i], options.durationSeconds))
                return Usage("--duration takes whole seconds from 1 to " + std::to_string(kMaxTimeoutSeconds));
        } else {
            return Usage("monitor does not take " + arg + (hasValue ? "" : " (or it lacks its value)"));
        }
    }
    // Lines as they come, also into a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return FollowUntilStopped([&](GMainLoop* loop) { return Monitor(options).Run(loop); });
}

}  // namespace lumora::cli
