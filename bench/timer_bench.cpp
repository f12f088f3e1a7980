// timer_bench.cpp - the timer engine against its peers, measured in one run.
//
// A shared machine makes absolute times say little, so every figure printed at the end is
// a ratio to a peer or a floor measured in the same run, one right after the other:
//
//   1. CPU per firing of 2000 periodic 100 ms engine timers against 2000 timerfds with a
//      100 ms interval served by one epoll thread.  Both sides do the same work per
//      firing: a call through a function pointer that increments a shared counter.  CPU is
//      taken over the same wall time from the thread that serves the timers (the engine's
//      driver thread, the epoll thread; pthread_getcpuclockid) and from the whole process
//      (CLOCK_PROCESS_CPUTIME_ID).  The timers are armed either back to back, as an
//      application arms them at start-up, or spread over ten 10 ms phases of the period.
//   2. The engine's idle cost with no timer: the driver thread's CPU over wall time, and
//      against a bare thread that only sleeps in 10 ms select() steps (the floor of any
//      10 ms tick).
//   3. Lateness of a periodic 100 ms timer beyond its period of k + 1 = 11 ticks (110 ms):
//      the median and the 99th percentile of (interval - 110 ms), in ms and in ticks.
//
// The engine is one per process: every benchmark that starts it stops it before it ends.
// A figure never fails the run; a benchmark that cannot set itself up reports an error
// and the figures that depend on it are left out.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qel_os_adapter.h"

namespace {

constexpr int kTimers = 2000;
constexpr uint32_t kIntervalMs = 100;
constexpr int kPhases = 10;       // spread arming: 10 phases of one tick
constexpr double kWarmUpS = 0.3;  // after arming, before the window opens
constexpr double kFiringWindowS = 3.0;
constexpr double kIdleWindowS = 2.0;
constexpr int kLatenessIntervals = 100;
constexpr double kTickMs = 10.0;
constexpr double kRequiredPeriodMs = 110.0;  // 100 ms = 10 ticks, fired every 10 + 1 ticks

// Figures gathered by the benchmarks and printed after the table, by key.
std::map<std::string, double> g_results;

double read_clock(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double monotonic_s() { return read_clock(CLOCK_MONOTONIC); }

void sleep_s(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

std::optional<clockid_t> cpu_clock_of(pthread_t thread) {
    clockid_t clock;
    if (pthread_getcpuclockid(thread, &clock) != 0) return std::nullopt;
    return clock;
}

// The work done per firing on both sides: one call through a pointer, one increment.
void count_firing(void *arg) {
    static_cast<std::atomic<uint64_t> *>(arg)->fetch_add(1, std::memory_order_relaxed);
}

// CPU of the serving thread and of the process, wall time and firings over one window.
struct Window {
    double wall_s = 0;
    double thread_cpu_s = 0;
    double process_cpu_s = 0;
    uint64_t firings = 0;
};

Window measure(clockid_t thread_clock, const std::atomic<uint64_t> &firings, double seconds) {
    const uint64_t f0 = firings.load();
    const double w0 = monotonic_s();
    const double t0 = read_clock(thread_clock);
    const double p0 = read_clock(CLOCK_PROCESS_CPUTIME_ID);
    sleep_s(seconds);
    Window w;
    w.thread_cpu_s = read_clock(thread_clock) - t0;
    w.process_cpu_s = read_clock(CLOCK_PROCESS_CPUTIME_ID) - p0;
    w.wall_s = monotonic_s() - w0;
    w.firings = firings.load() - f0;
    return w;
}

void report_firings(benchmark::State &state, const std::string &key, const Window &w) {
    state.SetIterationTime(w.wall_s);
    const double firings = static_cast<double>(std::max<uint64_t>(w.firings, 1));
    state.counters["firings"] = static_cast<double>(w.firings);
    state.counters["firings_per_s"] = static_cast<double>(w.firings) / w.wall_s;
    state.counters["thread_cpu_us_per_firing"] = w.thread_cpu_s * 1e6 / firings;
    state.counters["process_cpu_us_per_firing"] = w.process_cpu_s * 1e6 / firings;
    state.counters["thread_cpu_share"] = w.thread_cpu_s / w.wall_s;
    if (w.firings == 0) {
        state.SkipWithError("no timer fired");
        return;
    }
    g_results[key + "/thread"] = w.thread_cpu_s / firings;
    g_results[key + "/process"] = w.process_cpu_s / firings;
}

// ---- 1. CPU per firing -------------------------------------------------------------

// 2000 periodic engine timers of 100 ms, armed back to back or spread over ten ticks.
void BM_EngineFirings(benchmark::State &state, bool spread) {
    std::atomic<uint64_t> firings{0};
    for (auto _ : state) {
        std::vector<void *> timers;
        timers.reserve(kTimers);
        for (int i = 0; i < kTimers; ++i) {
            void *timer =
                ZEPO_CreateRelTimerM(count_firing, ZEPO_TIMER_PERIODIC, __LINE__, __FILE__);
            if (timer == nullptr) break;
            timers.push_back(timer);
        }
        bool armed = timers.size() == kTimers;
        for (int i = 0; armed && i < kTimers; ++i) {
            if (spread && i > 0 && i % (kTimers / kPhases) == 0) sleep_s(kTickMs / 1000.0);
            armed = ZEPO_StartRelTimer(timers[i], kIntervalMs, &firings) == 0;
        }
        const auto clock = cpu_clock_of(static_cast<pthread_t>(petimer_getTreadId()));
        if (!armed || !clock) {
            ZEPO_StopTimerTask();
            state.SkipWithError("could not create and start 2000 timers");
            break;
        }
        sleep_s(kWarmUpS);
        const Window w = measure(*clock, firings, kFiringWindowS);
        ZEPO_StopTimerTask();  // frees every timer
        report_firings(state, spread ? "engine/spread" : "engine/together", w);
    }
}

// One timerfd per timer on one epoll thread.
struct TimerfdEntry {
    int fd = -1;
    ZEPO_TIMEOUT_FUNC fn = nullptr;
    void *arg = nullptr;
};

void serve_timerfds(int epoll_fd, int stop_fd) {
    std::array<epoll_event, 256> events;
    for (;;) {
        const int n = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        for (int i = 0; i < n; ++i) {
            auto *entry = static_cast<TimerfdEntry *>(events[i].data.ptr);
            if (entry->fd == stop_fd) return;
            uint64_t expirations = 0;
            if (read(entry->fd, &expirations, sizeof expirations) != sizeof expirations) continue;
            for (uint64_t e = 0; e < expirations; ++e) entry->fn(entry->arg);
        }
    }
}

void BM_TimerfdFirings(benchmark::State &state, bool spread) {
    std::atomic<uint64_t> firings{0};
    for (auto _ : state) {
        std::vector<TimerfdEntry> entries(kTimers + 1);
        const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        const int stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        bool ready = epoll_fd >= 0 && stop_fd >= 0;
        entries[kTimers].fd = stop_fd;
        for (int i = 0; ready && i <= kTimers; ++i) {
            if (i < kTimers) {
                entries[i].fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
                entries[i].fn = count_firing;
                entries[i].arg = &firings;
            }
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.ptr = &entries[i];
            ready = entries[i].fd >= 0 &&
                    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, entries[i].fd, &event) == 0;
        }
        std::thread server;
        if (ready) server = std::thread(serve_timerfds, epoll_fd, stop_fd);
        for (int i = 0; ready && i < kTimers; ++i) {
            itimerspec period{};
            const long phase_ms =
                spread ? (i / (kTimers / kPhases)) * static_cast<long>(kTickMs) : 0;
            period.it_interval.tv_nsec = kIntervalMs * 1000000L;
            period.it_value.tv_nsec = (kIntervalMs + phase_ms) * 1000000L;
            ready = timerfd_settime(entries[i].fd, 0, &period, nullptr) == 0;
        }
        const auto clock = server.joinable() ? cpu_clock_of(server.native_handle()) : std::nullopt;
        std::optional<Window> window;
        if (ready && clock) {
            sleep_s(kWarmUpS);
            window = measure(*clock, firings, kFiringWindowS);
        }
        if (server.joinable()) {
            const uint64_t one = 1;
            if (write(stop_fd, &one, sizeof one) != sizeof one) std::perror("eventfd write");
            server.join();
        }
        for (const TimerfdEntry &entry : entries) {
            if (entry.fd >= 0) close(entry.fd);
        }
        if (epoll_fd >= 0) close(epoll_fd);
        if (!window) {
            state.SkipWithError("could not set up 2000 timerfds on epoll");
            break;
        }
        report_firings(state, spread ? "timerfd/spread" : "timerfd/together", *window);
    }
}

// ---- 2. Idle cost ------------------------------------------------------------------

void BM_EngineIdle(benchmark::State &state) {
    for (auto _ : state) {
        if (ZEPO_StartTimerTask(nullptr, nullptr) != 0) {
            state.SkipWithError("the engine did not start");
            break;
        }
        const auto clock = cpu_clock_of(static_cast<pthread_t>(petimer_getTreadId()));
        std::optional<Window> window;
        std::atomic<uint64_t> none{0};
        if (clock) {
            sleep_s(0.2);
            window = measure(*clock, none, kIdleWindowS);
        }
        ZEPO_StopTimerTask();
        if (!window) {
            state.SkipWithError("no CPU clock for the driver thread");
            break;
        }
        state.SetIterationTime(window->wall_s);
        state.counters["thread_cpu_share"] = window->thread_cpu_s / window->wall_s;
        g_results["idle/engine"] = window->thread_cpu_s / window->wall_s;
    }
}

// The floor: a thread that does nothing but sleep in 10 ms select() steps.
void BM_SelectLoopIdle(benchmark::State &state) {
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::thread ticker([&stop] {
            while (!stop.load(std::memory_order_relaxed)) {
                timeval tick{0, static_cast<suseconds_t>(kTickMs * 1000)};
                select(0, nullptr, nullptr, nullptr, &tick);
            }
        });
        const auto clock = cpu_clock_of(ticker.native_handle());
        std::optional<Window> window;
        std::atomic<uint64_t> none{0};
        if (clock) {
            sleep_s(0.2);
            window = measure(*clock, none, kIdleWindowS);
        }
        stop = true;
        ticker.join();
        if (!window) {
            state.SkipWithError("no CPU clock for the ticking thread");
            break;
        }
        state.SetIterationTime(window->wall_s);
        state.counters["thread_cpu_share"] = window->thread_cpu_s / window->wall_s;
        g_results["idle/select"] = window->thread_cpu_s / window->wall_s;
    }
}

// ---- 3. Lateness -------------------------------------------------------------------

struct FiringLog {
    std::array<double, kLatenessIntervals + 1> at_s{};
    std::atomic<int> count{0};
};

void log_firing(void *arg) {
    auto *log = static_cast<FiringLog *>(arg);
    const int n = log->count.load(std::memory_order_relaxed);
    if (n >= static_cast<int>(log->at_s.size())) return;
    log->at_s[n] = monotonic_s();
    log->count.store(n + 1, std::memory_order_release);
}

double nearest_rank(const std::vector<double> &sorted, double fraction) {
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

void BM_EngineLateness(benchmark::State &state) {
    for (auto _ : state) {
        FiringLog log;
        void *timer = ZEPO_CreateRelTimerM(log_firing, ZEPO_TIMER_PERIODIC, __LINE__, __FILE__);
        const double start = monotonic_s();
        if (timer == nullptr || ZEPO_StartRelTimer(timer, kIntervalMs, &log) != 0) {
            ZEPO_StopTimerTask();
            state.SkipWithError("could not start the timer");
            break;
        }
        const int wanted = static_cast<int>(log.at_s.size());
        const double deadline = start + 3.0 * wanted * kRequiredPeriodMs / 1000.0;
        while (log.count.load(std::memory_order_acquire) < wanted && monotonic_s() < deadline) {
            sleep_s(0.02);
        }
        ZEPO_StopTimerTask();
        const int got = log.count.load(std::memory_order_acquire);
        state.SetIterationTime(monotonic_s() - start);
        if (got < 2) {
            state.SkipWithError("the timer did not fire");
            break;
        }
        std::vector<double> late_ms;
        for (int i = 1; i < got; ++i) {
            late_ms.push_back((log.at_s[i] - log.at_s[i - 1]) * 1000.0 - kRequiredPeriodMs);
        }
        const double mean_ms =
            ((log.at_s[got - 1] - log.at_s[0]) * 1000.0) / (got - 1) - kRequiredPeriodMs;
        std::sort(late_ms.begin(), late_ms.end());
        const double median_ms =
            late_ms.size() % 2 == 1
                ? late_ms[late_ms.size() / 2]
                : (late_ms[late_ms.size() / 2 - 1] + late_ms[late_ms.size() / 2]) / 2;
        state.counters["intervals"] = static_cast<double>(late_ms.size());
        state.counters["late_median_ms"] = median_ms;
        state.counters["late_p99_ms"] = nearest_rank(late_ms, 0.99);
        state.counters["late_max_ms"] = late_ms.back();
        state.counters["late_min_ms"] = late_ms.front();
        state.counters["late_mean_ms"] = mean_ms;
        g_results["late/median"] = median_ms;
        g_results["late/p99"] = nearest_rank(late_ms, 0.99);
        g_results["late/mean"] = mean_ms;
        g_results["late/intervals"] = static_cast<double>(late_ms.size());
    }
}

// ---- Figures -----------------------------------------------------------------------

std::optional<double> result(const std::string &key) {
    const auto found = g_results.find(key);
    if (found == g_results.end()) return std::nullopt;
    return found->second;
}

void print_ratio(const char *label, const std::string &numerator, const std::string &denominator) {
    const auto top = result(numerator);
    const auto bottom = result(denominator);
    if (!top || !bottom || *bottom <= 0) return;
    std::printf("%s: %.2f\n", label, *top / *bottom);
}

void print_figures() {
    std::printf("\nfigures (ratios measured in this run)\n");
    print_ratio(
        "engine CPU per firing / timerfd+epoll CPU per firing (armed together, serving thread)",
        "engine/together/thread", "timerfd/together/thread");
    print_ratio(
        "engine CPU per firing / timerfd+epoll CPU per firing (armed together, whole process)",
        "engine/together/process", "timerfd/together/process");
    print_ratio(
        "engine CPU per firing / timerfd+epoll CPU per firing (spread over 10 ticks, serving "
        "thread)",
        "engine/spread/thread", "timerfd/spread/thread");
    print_ratio(
        "engine CPU per firing / timerfd+epoll CPU per firing (spread over 10 ticks, whole "
        "process)",
        "engine/spread/process", "timerfd/spread/process");
    if (const auto idle = result("idle/engine")) {
        std::printf("engine idle CPU / one core (driver thread, no timer): %.5f\n", *idle);
    }
    print_ratio("engine idle CPU / bare 10 ms select() loop CPU", "idle/engine", "idle/select");
    const auto median = result("late/median");
    const auto p99 = result("late/p99");
    const auto mean = result("late/mean");
    const auto intervals = result("late/intervals");
    if (median && p99 && mean && intervals) {
        std::printf(
            "lateness beyond 110 ms of a periodic 100 ms timer, median of %.0f intervals: "
            "%.2f ms = %.3f tick\n",
            *intervals, *median, *median / kTickMs);
        std::printf(
            "lateness beyond 110 ms of a periodic 100 ms timer, p99 of %.0f intervals: "
            "%.2f ms = %.3f tick\n",
            *intervals, *p99, *p99 / kTickMs);
        std::printf(
            "lateness beyond 110 ms of a periodic 100 ms timer, mean over %.0f intervals: "
            "%.3f ms = %.4f tick\n",
            *intervals, *mean, *mean / kTickMs);
    }
}

// 2001 descriptors for the timerfd side: raise the soft limit as far as the hard one.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void configure(benchmark::internal::Benchmark *b) {
    b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char **argv) {
    raise_descriptor_limit();
    // Peers run back to back, so that they see the same machine.
    configure(benchmark::RegisterBenchmark(
        "engine_2000_timers/armed_together",
        [](benchmark::State &state) { BM_EngineFirings(state, false); }));
    configure(benchmark::RegisterBenchmark(
        "timerfd_epoll_2000_timers/armed_together",
        [](benchmark::State &state) { BM_TimerfdFirings(state, false); }));
    configure(benchmark::RegisterBenchmark(
        "engine_2000_timers/spread",
        [](benchmark::State &state) { BM_EngineFirings(state, true); }));
    configure(benchmark::RegisterBenchmark(
        "timerfd_epoll_2000_timers/spread",
        [](benchmark::State &state) { BM_TimerfdFirings(state, true); }));
    configure(benchmark::RegisterBenchmark("engine_idle", BM_EngineIdle));
    configure(benchmark::RegisterBenchmark("select_10ms_loop_idle", BM_SelectLoopIdle));
    configure(benchmark::RegisterBenchmark("engine_lateness_100ms_periodic", BM_EngineLateness));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    print_figures();
    return 0;
}
