#include "collector.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace mv::exporter {

namespace {

using Clock = std::chrono::steady_clock;

// How long stopping waits for a reading that runs.
constexpr auto kLetEnd = std::chrono::seconds(3);

prometheus::MetricFamily gauge_family(const char* name, const char* help, double value) {
    prometheus::MetricFamily f;
    f.name = name;
    f.help = help;
    f.type = prometheus::MetricType::Gauge;
    prometheus::ClientMetric m;
    m.gauge.value = value;
    f.metric.push_back(m);
    return f;
}

// Whole milliseconds, in seconds: an age has no use for more, and a tiny
// one would be written with an exponent.
double seconds_to_ms(Clock::duration d) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()) / 1000.0;
}

}  // namespace

// Everything the thread and the scrapes share. The thread holds it too, so
// that a thread left behind in the library never touches freed memory.
struct Collector::State {
    MvFCoEIni& facade;
    CollectorOptions options;

    std::mutex mutex;
    std::condition_variable wake;  // the thread: a reading is wanted, or stop
    std::condition_variable done;  // the scrapes: a reading completed
    bool stop = false;
    bool wanted = false;
    bool running = false;
    Clock::time_point deadline;  // of the reading that runs: the latest deadline of a scrape waiting for it
    bool have_reading = false;
    Clock::time_point taken;     // when the last complete reading ended
    std::string last;            // its exposition, with its own series but without age and stalled
    std::map<int, uint64_t> results_total;
    uint64_t readings = 0;

    Clock::time_point last_beat;

    State(MvFCoEIni& f, CollectorOptions o) : facade(f), options(std::move(o)) {
        // While a reading runs, every answered request is progress: a beat
        // goes out when the interval has passed. A driver call that does
        // not return stops the beats.
        if (options.heartbeat)
            options.collect.progress = [this] {
                const auto now = Clock::now();
                if (now - last_beat < options.heartbeat_interval) return;
                last_beat = now;
                options.heartbeat();
            };
    }

    void loop();
    void store(Reading r);
};

void Collector::State::loop() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (options.heartbeat) {
            options.heartbeat();
            last_beat = Clock::now();
        }
        const auto pending = [this] { return stop || wanted; };
        if (options.heartbeat && options.heartbeat_interval.count() > 0) {
            wake.wait_for(lock, options.heartbeat_interval, pending);
        } else {
            wake.wait(lock, pending);
        }
        if (stop) return;
        if (!wanted) continue;
        wanted = false;
        running = true;
        lock.unlock();
        Reading r = collect_system(facade, options.collect);
        lock.lock();
        running = false;
        store(std::move(r));
        done.notify_all();
    }
}

void Collector::State::store(Reading r) {
    for (const auto& [code, n] : r.results) results_total[code] += n;
    add_own_series(r.families, r, results_total);
    last = exposition(r.families);
    taken = Clock::now();
    have_reading = true;
    ++readings;
}

Collector::Collector(MvFCoEIni& facade, CollectorOptions options)
    : state_(std::make_shared<State>(facade, std::move(options))) {
    std::thread([s = state_] { s->loop(); }).detach();
}

Collector::~Collector() {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stop = true;
    state_->wake.notify_all();
    // A reading that is about to end is let end (it uses the facade the
    // owner is about to release); one stuck in the driver is not waited for.
    state_->done.wait_for(lock, kLetEnd, [this] { return !state_->running; });
}

uint64_t Collector::readings() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->readings;
}

std::string Collector::scrape(std::chrono::duration<double> wait) {
    State& s = *state_;
    std::unique_lock<std::mutex> lock(s.mutex);
    const auto now = Clock::now();
    const auto deadline = now + std::chrono::duration_cast<Clock::duration>(wait);
    if (!s.have_reading || now - s.taken >= s.options.min_interval) {
        // One reading serves every scrape waiting when it completes.
        const uint64_t before = s.readings;
        if (!s.running) {
            s.wanted = true;
            s.deadline = deadline;
            s.wake.notify_all();
        } else if (deadline > s.deadline) {
            s.deadline = deadline;
        }
        s.done.wait_until(lock, deadline, [&] { return s.readings != before; });
    }
    const auto at = Clock::now();
    const bool stalled = s.running && at > s.deadline;
    std::vector<prometheus::MetricFamily> own;
    if (s.have_reading)
        own.push_back(gauge_family("mirvak_exporter_reading_age_seconds",
                                   "Seconds since the reading served here completed.",
                                   seconds_to_ms(at - s.taken)));
    own.push_back(gauge_family("mirvak_exporter_collection_stalled",
                               "1 while a reading of the system runs past the deadline of the scrape that asked for "
                               "it (a driver call that does not return), else 0.",
                               stalled ? 1 : 0));
    if (s.have_reading) return s.last + exposition(own);
    // Nothing read yet: the exporter's own series say so.
    Reading none;
    none.success = false;
    std::vector<prometheus::MetricFamily> families;
    add_own_series(families, none, s.results_total);
    return exposition(families) + exposition(own);
}

}  // namespace mv::exporter
