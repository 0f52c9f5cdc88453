// The system as Prometheus metrics: every adapter, physical port, virtual
// port, remote port and LUN the library knows, read through the management
// facade, in the Prometheus text exposition format. Shared by the exporter
// (mirvak-hba-exporter) and `mirvak-hba metrics`.
//
// Where the values come from: the adapters and their port lists from one
// request each (their result codes feed the adapter's up series and the
// result-code counter; the whole-system snapshot drops an adapter it cannot
// open without saying why), then everything else from one whole-system
// snapshot (GetFCoEAll), which walks the host's sysfs once. Objects are
// asked one by one only for what the snapshot leaves out or gives otherwise
// than their own requests do (metrics.cpp says which, where it does so),
// and a system with a port of more than 35 discovered ports and a virtual
// port, where the snapshot pauses five seconds on purpose, is read object
// by object throughout.
#ifndef MIRVAK_EXPORTER_METRICS_H
#define MIRVAK_EXPORTER_METRICS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <prometheus/metric_family.h>

class MvFCoEIni;

namespace mv::exporter {

struct CollectOptions {
    bool luns = true;      // false: no mirvak_lun_* series (hosts with very many LUNs)
    bool snapshot = true;  // false: every object asked on its own (the reference the snapshot reading is
                           // checked against)
    std::function<void()> progress;  // called after every answered request (the collector's heartbeat)
};

// One reading of the system.
struct Reading {
    std::vector<prometheus::MetricFamily> families;  // the system's series
    std::map<int, uint64_t> results;                 // facade result codes answered, by code
    uint32_t adapters = 0;                           // adapters seen
    bool success = true;                             // every request answered, or answered "nothing there"
    std::chrono::duration<double> duration{0};
};

// Reads the whole system through the facade. The caller holds the only
// right to call the library while this runs.
Reading collect_system(MvFCoEIni& facade, const CollectOptions& options);

// The exporter's own series about one reading: scrape duration, last scrape
// success, adapters seen, and the library's result codes added up by code
// (`results_total` is the running total the caller keeps).
void add_own_series(std::vector<prometheus::MetricFamily>& out, const Reading& reading,
                    const std::map<int, uint64_t>& results_total);

// The families as Prometheus text (format version 0.0.4).
std::string exposition(const std::vector<prometheus::MetricFamily>& families);

// "0x2100001b9ea10000", as the host's sysfs port_name shows a WWN.
std::string wwn_label(const uint8_t* wwn);

}  // namespace mv::exporter

#endif
