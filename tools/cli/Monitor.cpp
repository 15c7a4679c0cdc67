// lumora monitor: the context service's traffic on the bus, decoded from the
// wire contract: every call with its caller, type, request id, subject and
// input; its answer matched by serial, with the latency; the service's
// "Response" signals, "HELLO" and "BYE". Through the bus daemon's monitoring
// interface, with match rules limited to the service.
#include <fcntl.h>
#include <glib-unix.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
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

// A call nobody answers is reported once the bus itself would have given up.
constexpr gint64 kCallTimeoutUs = 25 * G_USEC_PER_SEC;
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
    Json::Value call;  // the call's event, whose fields the answer repeats
};

struct SubjectStats {
    std::map<std::string, unsigned> calls;  // by type
    unsigned errors = 0;
    std::vector<double> latenciesMs;
    unsigned signals = 0;
};

const char* TypeName(int type, const std::string& member) {
    if (member == contract::kMethodServiceEnable) return "enable";
    switch (type) {
        case contract::kRequestRead:
            return "read";
        case contract::kRequestWrite:
            return "write";
        case contract::kRequestSubscribe:
            return "subscribe";
        case contract::kRequestUnsubscribe:
            return "unsubscribe";
        case contract::kRequestAsync:
            return "request";
        default:
            return "other";
    }
}

std::string ProcessName(int pid) {
    if (pid <= 0) return "";
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

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
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["precision"] = 6;
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

double Percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
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
        if (m_lookup != nullptr) g_object_unref(m_lookup);
    }

    int Run(GMainLoop* loop) {
        m_loop = loop;
        m_startUs = g_get_monotonic_time();
        m_startRealUs = g_get_real_time();
        if (!m_options.record.empty()) {
            m_record.open(m_options.record, std::ios::out | std::ios::trunc);
            if (!m_record) return Fail("cannot write the timeline " + m_options.record + ": " + g_strerror(errno));
            Json::Value header;
            header["format"] = kTimelineFormat;
            header["version"] = kTimelineVersion;
            m_record << Compact(header) << "\n" << std::flush;
        }
        if (!Connect()) return kFailed;
        // On stderr, so that standard output holds the events alone.
        fprintf(stderr, "lumora: monitoring %s on %s\n", contract::kBusName, BusAddress().c_str());
        m_timeoutSource = g_timeout_add(500, &Monitor::CheckTimeouts, this);
        if (m_options.durationSeconds > 0) g_timeout_add_seconds(m_options.durationSeconds, &Monitor::Quit, loop);
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
        g_dbus_connection_add_filter(m_connection, &Monitor::Filter, this, nullptr);
        std::string calls = std::string("type='method_call',destination='") + contract::kBusName + "'";
        std::string returns = std::string("type='method_return',sender='") + contract::kBusName + "'";
        std::string errors = std::string("type='error',sender='") + contract::kBusName + "'";
        // The bus answers for a service that vanished with a call unanswered.
        std::string busErrors = "type='error',sender='org.freedesktop.DBus'";
        std::string signals =
            std::string("type='signal',interface='") + contract::kInterface + "',path='" + contract::kObjectPath + "'";
        const gchar* rules[] = {calls.c_str(),     returns.c_str(), errors.c_str(),
                                busErrors.c_str(), signals.c_str(), nullptr};
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
            std::string why = remote != nullptr && strcmp(remote, "org.freedesktop.DBus.Error.AccessDenied") == 0
                                  ? " (on a system bus only root may monitor; run it as root, or on a private bus)"
                                  : "";
            Fail(std::string("the bus refused monitoring: ") + error->message + why);
            g_free(remote);
            g_error_free(error);
            return false;
        }
        g_variant_unref(g_variant_ref_sink(reply));
        return true;
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
        auto* seen = new Seen{g_get_monotonic_time(), message};  // takes the filter's reference
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

    void Undecodable(gint64 us, GDBusMessage* message) {
        Json::Value json = Base(us, "undecodable");
        const char* member = g_dbus_message_get_member(message);
        const char* signature = g_dbus_message_get_signature(message);
        json["member"] = member != nullptr ? member : "";
        json["signature"] = signature != nullptr ? signature : "";
        const char* sender = g_dbus_message_get_sender(message);
        json["sender"] = sender != nullptr ? sender : "";
        Emit(json);
    }

    void TakeCall(gint64 us, GDBusMessage* message) {
        std::string member = g_dbus_message_get_member(message) != nullptr ? g_dbus_message_get_member(message) : "";
        std::string sender = g_dbus_message_get_sender(message) != nullptr ? g_dbus_message_get_sender(message) : "";
        if (g_strcmp0(g_dbus_message_get_path(message), contract::kObjectPath) != 0) return;  // the simulator's control
        GVariant* body = g_dbus_message_get_body(message);
        Json::Value call = Base(us, "call");
        call["sender"] = sender;
        call["serial"] = g_dbus_message_get_serial(message);
        int pid = 0;  // none in a ServiceEnable
        if (member == contract::kMethodServiceEnable && (body == nullptr || g_variant_n_children(body) == 0)) {
            call["type"] = "enable";
        } else if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestTuple))) {
            gint32 tuplePid = 0, type = 0, id = 0;
            const gchar *subject = nullptr, *input = nullptr;
            g_variant_get(body, "(iii&s&s)", &tuplePid, &type, &id, &subject, &input);
            call["type"] = TypeName(type, member);
            call["id"] = id;
            call["subject"] = subject;
            call["input"] = input;
            pid = tuplePid;
        } else {
            return Undecodable(us, message);
        }
        // The tuple's pid is the caller's word; when it names no process, the
        // bus's credentials of the caller.
        std::string name = ProcessName(pid);
        if (name.empty()) {
            pid = static_cast<int>(CallerPid(sender));
            name = ProcessName(pid);
        }
        call["pid"] = pid;
        call["process"] = name;
        if (!name.empty()) m_names[sender] = name;
        if (TextOf(call, "type") != "write") m_pending[{sender, g_dbus_message_get_serial(message)}] = {us, call};
        Record(call);
        if (!Shown(call)) return;
        Count(call, "call");
        Emit(call);
    }

    void TakeAnswer(gint64 us, GDBusMessage* message) {
        const char* destination = g_dbus_message_get_destination(message);
        auto it = m_pending.find({destination != nullptr ? destination : "", g_dbus_message_get_reply_serial(message)});
        if (it == m_pending.end()) return;  // not a call to the service
        PendingCall pending = it->second;
        m_pending.erase(it);
        Json::Value answer = pending.call;
        Json::Value base = Base(us, "answer");
        answer["event"] = "answer";
        answer["time"] = base["time"];
        answer["t_ms"] = base["t_ms"];
        answer["latency_ms"] = Ms(us - pending.us);
        answer.removeMember("input");
        Json::Value replayable(Json::objectValue);  // what the timeline alone keeps
        GVariant* body = g_dbus_message_get_body(message);
        std::string type = TextOf(pending.call, "type");
        if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR) {
            answer["event"] = "error";
            answer["error"] =
                g_dbus_message_get_error_name(message) != nullptr ? g_dbus_message_get_error_name(message) : "";
            const gchar* text = nullptr;
            if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)")))
                g_variant_get(body, "(&s)", &text);
            answer["message"] = text != nullptr ? text : "";
        } else if (type == "enable" && body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(bs)"))) {
            gboolean enabled = FALSE;
            const gchar* whiteList = nullptr;
            g_variant_get(body, "(b&s)", &enabled, &whiteList);
            answer["enabled"] = static_cast<bool>(enabled);
            answer["data"] = DataJson(whiteList);
            answer["text"] = whiteList;
        } else if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestSyncReply))) {
            gint32 code = 0;
            const gchar* text = nullptr;
            g_variant_get(body, "(i&s)", &code, &text);
            answer["code"] = code;
            answer["data"] = DataJson(text);
            answer["text"] = text;
        } else if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kRequestAsyncReply))) {
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
        } else {
            answer["event"] = "undecodable";
            answer["signature"] =
                g_dbus_message_get_signature(message) != nullptr ? g_dbus_message_get_signature(message) : "";
        }
        Record(answer, replayable);
        if (!Shown(answer)) return;
        Count(answer, TextOf(answer, "event"));
        Emit(answer);
    }

    void TakeSignal(gint64 us, GDBusMessage* message) {
        // The bus's own word to the monitor (it lost its names), not a copy.
        if (g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0) return;
        GVariant* body = g_dbus_message_get_body(message);
        if (g_strcmp0(g_dbus_message_get_member(message), contract::kSignalResponse) != 0 || body == nullptr ||
            !g_variant_is_of_type(body, G_VARIANT_TYPE(contract::kResponseSignal))) {
            return Undecodable(us, message);
        }
        const gchar *subject = nullptr, *data = nullptr;
        g_variant_get(body, "(i&s&s)", nullptr, &subject, &data);
        Json::Value json;
        if (strcmp(subject, contract::kHello) == 0) {
            json = Base(us, "hello");
            json["data"] = DataJson(data);
        } else if (strcmp(subject, contract::kBye) == 0) {
            json = Base(us, "bye");
        } else {
            json = Base(us, "signal");
            json["subject"] = subject;
            json["data"] = DataJson(data);
            json["text"] = data;
        }
        const char* destination = g_dbus_message_get_destination(message);
        json["destination"] = destination != nullptr ? Json::Value(destination) : Json::Value();
        if (destination != nullptr && m_names.count(destination) != 0) json["process"] = m_names[destination];
        RecordSignal(json, message);
        if (!Shown(json)) return;
        if (json["event"] == "signal") ++m_subjects[subject].signals;
        Emit(json);
    }

    // The caller's pid as the bus daemon knows it (cached per connection).
    guint32 CallerPid(const std::string& sender) {
        auto cached = m_pids.find(sender);
        if (cached != m_pids.end()) return cached->second;
        GVariant* reply = g_dbus_connection_call_sync(m_lookup, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                      "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                                      g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(u)"),
                                                      G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
        guint32 pid = 0;
        if (reply != nullptr) {
            g_variant_get(reply, "(u)", &pid);
            g_variant_unref(reply);
        }
        m_pids[sender] = pid;
        return pid;
    }

    void ReportTimeouts(bool all) {
        gint64 now = g_get_monotonic_time();
        for (auto it = m_pending.begin(); it != m_pending.end();) {
            if (!all && now - it->second.us < kCallTimeoutUs) {
                ++it;
                continue;
            }
            Json::Value json = it->second.call;
            Json::Value base = Base(now, all ? "unanswered" : "timeout");
            json["event"] = base["event"];
            json["time"] = base["time"];
            json["t_ms"] = base["t_ms"];
            json["waited_ms"] = Ms(now - it->second.us);
            json.removeMember("input");
            it = m_pending.erase(it);
            if (!Shown(json)) continue;
            Count(json, "timeout");
            Emit(json);
        }
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
            if (!event.isMember("process")) return event["event"] == "hello" || event["event"] == "bye";
            return std::find(m_options.processes.begin(), m_options.processes.end(), TextOf(event, "process")) !=
                   m_options.processes.end();
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
            ++stats.errors;  // an error answer, a time-out
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
        m_record << Compact(line) << "\n" << std::flush;
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
            PrintText(Compact(event));
            return;
        }
        std::string what = TextOf(event, "event");
        std::string line = TextOf(event, "time") + "  " + what;
        line.resize(std::max<size_t>(line.size(), 26), ' ');
        if (event.isMember("type")) {
            std::string type = TextOf(event, "type");
            type.resize(std::max<size_t>(type.size(), 12), ' ');
            line += type;
            line += TextOf(event, "process") + "[" + std::to_string(IntOf(event, "pid")) + "]";
            if (event.isMember("id")) line += " #" + std::to_string(IntOf(event, "id"));
        }
        if (event.isMember("subject")) line += " " + TextOf(event, "subject");
        if (event.isMember("input") && !TextOf(event, "input").empty()) line += " " + TextOf(event, "input");
        if (event.isMember("error")) line += " " + TextOf(event, "error") + " " + TextOf(event, "message");
        if (event.isMember("code")) line += " -> " + std::to_string(IntOf(event, "code"));
        if (event.isMember("enabled")) line += BoolOf(event, "enabled") ? " -> enabled" : " -> disabled";
        if (event.isMember("data")) line += " " + Compact(event["data"]);
        if (event.isMember("records")) line += " " + Compact(event["records"]);
        if (event.isMember("process") && !event.isMember("type")) line += " -> " + TextOf(event, "process");
        if (event.isMember("signature")) line += " signature " + TextOf(event, "signature");
        if (event.isMember("latency_ms")) line += Millis(" (", NumberOf(event, "latency_ms"), " ms)");
        if (event.isMember("waited_ms")) line += Millis(" (no answer after ", NumberOf(event, "waited_ms"), " ms)");
        PrintText(Cut(line));
    }

    static std::string Millis(const char* before, double ms, const char* after) {
        char text[64];
        snprintf(text, sizeof text, "%s%.1f%s", before, ms, after);
        return text;
    }

    // A line no wider than the terminal, unless --full or not a terminal.
    std::string Cut(const std::string& line) const {
        if (m_options.full || !isatty(STDOUT_FILENO)) return line;
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return line;
        if (line.size() <= size.ws_col) return line;
        return line.substr(0, size.ws_col - 3) + "...";
    }

    void PrintSummary() {
        double seconds = static_cast<double>(g_get_monotonic_time() - m_startUs) / 1e6;
        if (m_options.json) {
            Json::Value summary(Json::objectValue);
            summary["event"] = "summary";
            summary["seconds"] = seconds;
            for (const auto& [subject, stats] : m_subjects) {
                Json::Value& row = summary["subjects"][subject];
                for (const auto& [type, n] : stats.calls) row["calls"][type] = n;
                row["errors"] = stats.errors;
                row["latency_ms"]["p50"] = Percentile(stats.latenciesMs, 0.5);
                row["latency_ms"]["p95"] = Percentile(stats.latenciesMs, 0.95);
                row["latency_ms"]["max"] = Percentile(stats.latenciesMs, 1.0);
                row["signals"] = stats.signals;
                row["signals_per_s"] = seconds > 0 ? stats.signals / seconds : 0;
            }
            for (const auto& [process, calls] : m_processes)
                for (const auto& [type, n] : calls) summary["processes"][process][type] = n;
            PrintText(Compact(summary));
            return;
        }
        printf("\n%-44s %-36s %6s %8s %8s %8s %9s\n", "subject", "calls", "errors", "p50 ms", "p95 ms", "max ms",
               "signals/s");
        for (const auto& [subject, stats] : m_subjects) {
            std::string calls;
            for (const auto& [type, n] : stats.calls)
                calls += (calls.empty() ? "" : " ") + type + ":" + std::to_string(n);
            printf("%-44s %-36s %6u %8.1f %8.1f %8.1f %9.2f\n", subject.c_str(), calls.empty() ? "-" : calls.c_str(),
                   stats.errors, Percentile(stats.latenciesMs, 0.5), Percentile(stats.latenciesMs, 0.95),
                   Percentile(stats.latenciesMs, 1.0), seconds > 0 ? stats.signals / seconds : 0.0);
        }
        printf("\n%-24s %s\n", "process", "calls");
        for (const auto& [process, calls] : m_processes) {
            std::string text;
            for (const auto& [type, n] : calls) text += (text.empty() ? "" : " ") + type + ":" + std::to_string(n);
            printf("%-24s %s\n", process.empty() ? "(unknown)" : process.c_str(), text.c_str());
        }
        fflush(stdout);
    }

    MonitorOptions m_options;
    GMainLoop* m_loop = nullptr;
    GDBusConnection* m_connection = nullptr;
    GDBusConnection* m_lookup = nullptr;  // for the bus's credentials of callers
    guint m_timeoutSource = 0;
    std::atomic<bool> m_monitoring{false};
    std::atomic<guint32> m_becomeSerial{0};
    gint64 m_startUs = 0;
    gint64 m_startRealUs = 0;
    std::ofstream m_record;
    std::map<std::pair<std::string, guint32>, PendingCall> m_pending;  // by (caller, serial)
    std::map<std::string, std::string> m_names;                        // unique name -> process
    std::map<std::string, guint32> m_pids;                             // unique name -> pid
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
