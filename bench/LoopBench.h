// Helpers of the benchmarks whose iteration handles a batch of items (a burst
// of notifications, requests in flight) and runs the default main context on
// the benchmark's thread until all of them arrived.
#ifndef LUMORA_BENCH_LOOPBENCH_H
#define LUMORA_BENCH_LOOPBENCH_H

#include <benchmark/benchmark.h>
#include <glib.h>
#include <sys/resource.h>
#include <time.h>

namespace lumora::bench {

/// Per-item figures: wall time, CPU time of the whole process and CPU time of
/// the thread that runs the main loop, each divided by the number of items,
/// as the counters wall_ns, cpu_ns and loop_ns; and how often that thread
/// went to sleep waiting, as loop_sleeps.
class PerItemClocks {
public:
    /// Construct on the main-loop thread right before the timed loop.
    PerItemClocks()
        : m_wall(Now(CLOCK_MONOTONIC)),
          m_process(Now(CLOCK_PROCESS_CPUTIME_ID)),
          m_loop(Now(CLOCK_THREAD_CPUTIME_ID)),
          m_sleeps(Sleeps()) {}

    /// Call on the same thread right after the timed loop.
    void Report(benchmark::State& state, double items) const {
        if (items <= 0) return;
        state.counters["wall_ns"] = (Now(CLOCK_MONOTONIC) - m_wall) / items;
        state.counters["cpu_ns"] = (Now(CLOCK_PROCESS_CPUTIME_ID) - m_process) / items;
        state.counters["loop_ns"] = (Now(CLOCK_THREAD_CPUTIME_ID) - m_loop) / items;
        state.counters["loop_sleeps"] = (Sleeps() - m_sleeps) / items;
    }

private:
    static double Now(clockid_t clock) {
        timespec ts{};
        clock_gettime(clock, &ts);
        return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
    }

    // Voluntary context switches of the calling thread.
    static double Sleeps() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return static_cast<double>(usage.ru_nvcsw);
    }

    double m_wall;
    double m_process;
    double m_loop;
    double m_sleeps;
};

/// Notices, from a timer on the default main context, when a count of
/// arrivals stops growing for a whole period: a lost message would otherwise
/// leave the loop waiting for ever.
class ProgressWatch {
public:
    ProgressWatch(const long& count, guint periodMs) : m_count(count), m_id(g_timeout_add(periodMs, &Check, this)) {}
    ~ProgressWatch() { g_source_remove(m_id); }
    ProgressWatch(const ProgressWatch&) = delete;
    ProgressWatch& operator=(const ProgressWatch&) = delete;

    bool Stalled() const { return m_stalled; }

    /// Runs the default main context until count reaches target; false when
    /// it stalled first.
    bool RunUntil(long target) const {
        while (m_count < target) {
            g_main_context_iteration(nullptr, TRUE);
            if (m_stalled) return false;
        }
        return true;
    }

private:
    static gboolean Check(gpointer data) {
        auto* self = static_cast<ProgressWatch*>(data);
        if (self->m_count == self->m_seen) self->m_stalled = true;
        self->m_seen = self->m_count;
        return G_SOURCE_CONTINUE;
    }

    const long& m_count;
    long m_seen = -1;
    bool m_stalled = false;
    guint m_id;
};

}  // namespace lumora::bench

#endif  // LUMORA_BENCH_LOOPBENCH_H
