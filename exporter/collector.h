// The exporter's collector: the one thread that calls the library. Scrapes
// never do; they ask the collector for a reading and wait for it at most
// their deadline, then answer with the last complete reading, saying how
// old it is and whether a reading is running past its deadline (a driver
// call that does not return). A reading younger than the minimum interval
// is served as it is.
#ifndef MIRVAK_EXPORTER_COLLECTOR_H
#define MIRVAK_EXPORTER_COLLECTOR_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "metrics.h"

class MvFCoEIni;

namespace mv::exporter {

struct CollectorOptions {
    CollectOptions collect;
    std::chrono::milliseconds min_interval{5000};  // a reading this young is served to the next scrape as it is
    // Called from the collector thread at least every heartbeat_interval
    // while it waits, and while a reading runs as long as the library keeps
    // answering (systemd's watchdog); none when empty.
    std::function<void()> heartbeat;
    std::chrono::milliseconds heartbeat_interval{0};
};

class Collector {
public:
    // Starts the collector thread; it reads the system only when a scrape
    // asks.
    Collector(MvFCoEIni& facade, CollectorOptions options);
    // Stops the thread. A thread stuck in the library is left behind (it
    // holds only state it shares with nobody else): a process that is
    // ending must not wait for a driver that does not answer.
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // The exposition a scrape gets: a fresh reading when the last one is
    // older than the minimum interval and one completes within `wait`,
    // else the last complete reading; the reading's own series with its age
    // and the stalled flag follow.
    std::string scrape(std::chrono::duration<double> wait);

    // Readings of the system completed so far.
    uint64_t readings() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace mv::exporter

#endif
