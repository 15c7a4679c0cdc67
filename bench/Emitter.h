// The signal_emitter process that the notification benchmarks drive: it emits
// the service's "Response" signal in bursts, one burst per line written to
// its standard input ("COUNT SUBJECT").
#ifndef LUMORA_BENCH_EMITTER_H
#define LUMORA_BENCH_EMITTER_H

#include <gio/gio.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace lumora::bench {

class Emitter {
public:
    Emitter() = default;
    ~Emitter() { Stop(); }
    Emitter(const Emitter&) = delete;
    Emitter& operator=(const Emitter&) = delete;

    /// Starts the emitter on the bus at address.
    bool Start(const std::string& address) {
        gchar* argv[] = {const_cast<gchar*>(LUMORA_SIGNAL_EMITTER), const_cast<gchar*>(address.c_str()), nullptr};
        gint input = -1;
        GError* error = nullptr;
        if (!g_spawn_async_with_pipes(nullptr, argv, nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &m_pid,
                                      &input, nullptr, nullptr, &error)) {
            fprintf(stderr, "cannot start %s: %s\n", LUMORA_SIGNAL_EMITTER, error->message);
            g_error_free(error);
            return false;
        }
        m_input = fdopen(input, "w");
        return m_input != nullptr;
    }

    /// Asks for count signals of subject, sent at once.
    void Burst(long count, const char* subject) {
        fprintf(m_input, "%ld %s\n", count, subject);
        fflush(m_input);
    }

    /// Its input ends, so it ends.
    void Stop() {
        if (m_input == nullptr) return;
        fclose(m_input);
        m_input = nullptr;
        int status = 0;
        waitpid(m_pid, &status, 0);
        g_spawn_close_pid(m_pid);
    }

private:
    FILE* m_input = nullptr;
    GPid m_pid = 0;
};

}  // namespace lumora::bench

#endif
