// mirvak-hba-exporter: serves the adapters, ports, virtual ports, remote
// ports and LUNs of the mirvak FCoE HBAs to Prometheus.
//
// It holds one MvFCoEIni for its lifetime, as a management agent does, and
// calls the library from one thread only, the collector's. The library's own
// diagnostic lines (printed on standard output) are dropped; the exporter's
// messages go to standard error.
//
// SIGTERM and SIGINT end it at once, even with the collector stuck in a
// driver call (that thread is not waited for); SIGHUP does not end it.
// Under systemd (Type=notify) it reports ready, and, with WatchdogSec= set,
// the collector's heartbeat: a collector stuck in the library for longer
// than WatchdogSec sends none, and systemd restarts the service.
#include <fcntl.h>
#include <unistd.h>

#include <systemd/sd-daemon.h>

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>

#include "mirvak/mv_fcoe_ini.h"
#include "server.h"

namespace {

// "15s", "500ms", "0.5s", "2m", "0"; -1 when not a duration.
long long parse_duration_ms(const std::string& text) {
    std::size_t used = 0;
    double n = 0;
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text[0])))) return -1;
    try {
        n = std::stod(text, &used);
    } catch (const std::exception&) {
        return -1;
    }
    const std::string number = text.substr(0, used);
    if (number.find_first_not_of("0123456789.") != std::string::npos || n > 1e9) return -1;
    const std::string unit = text.substr(used);
    if (unit == "ms") return static_cast<long long>(n);
    if (unit == "s" || (unit.empty() && n == 0)) return static_cast<long long>(n * 1000);
    if (unit == "m") return static_cast<long long>(n * 60 * 1000);
    return -1;
}

// A duration flag into options; false (with a message) when it is not one.
bool duration_flag(const char* flag, const std::string& text, std::chrono::milliseconds& out) {
    const long long ms = parse_duration_ms(text);
    if (ms < 0) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s %s: not a duration (0s, 500ms, 0.5s, 5s, 1m)\n", flag, text.c_str());
        return false;
    }
    out = std::chrono::milliseconds(ms);
    return true;
}

// systemd's watchdog: the collector's heartbeat, twice per WatchdogSec.
void watchdog(mv::exporter::ServerOptions& options) {
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) return;
    options.heartbeat = [] { sd_notify(0, "WATCHDOG=1"); };
    options.heartbeat_interval = std::chrono::milliseconds(std::max<uint64_t>(usec / 2000, 1));
}

// Waits for SIGTERM or SIGINT; SIGHUP is taken and does not end the
// exporter.
int wait_for_stop(const sigset_t& signals) {
    for (;;) {
        int sig = 0;
        if (sigwait(&signals, &sig) != 0) continue;
        if (sig != SIGHUP) return sig;
        std::fprintf(stderr, "mirvak-hba-exporter: SIGHUP: nothing to reload, still serving\n");
    }
}

// The end of --help (and of the man page made from it).
const char kFooter[] =
    "Readings: one thread reads the system; a scrape that wants a fresh reading waits at most the timeout its "
    "scraper announces (X-Prometheus-Scrape-Timeout-Seconds) less --scrape.timeout-offset, or --scrape.timeout "
    "without one, and then gets the last complete reading. Besides the system's series it serves "
    "mirvak_exporter_scrape_duration_seconds, mirvak_exporter_last_scrape_success, mirvak_exporter_adapters, "
    "mirvak_exporter_library_results_total, mirvak_exporter_http_auth_failures_total, "
    "mirvak_exporter_reading_age_seconds (seconds since the reading served completed) and "
    "mirvak_exporter_collection_stalled (1 while a reading runs past the deadline of the scrape that asked for "
    "it, as when a driver call does not return).\n\n"
    "Signals: SIGTERM and SIGINT end it at once, even while a driver call hangs; SIGHUP does not end it. Under "
    "systemd it reports ready (Type=notify) and, with WatchdogSec= set, sends the watchdog a heartbeat while "
    "the driver keeps answering: a driver call stuck for longer than WatchdogSec (2 minutes in the shipped "
    "unit) gets the service restarted.";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Prometheus exporter of the mirvak FCoE HBAs: adapters, physical and virtual ports, remote ports, "
                 "their counters, and LUNs."};
    app.name("mirvak-hba-exporter");
    app.footer(kFooter);
    mv::exporter::ServerOptions options;
    std::string min_interval = "5s", scrape_timeout = "9500ms", timeout_offset = "500ms", web_config;
    bool no_luns = false;
    app.add_option("--web.listen-address", options.listen_address,
                   "Address to listen on, host:port (default 127.0.0.1:9847)")
        ->capture_default_str();
    app.add_option("--web.telemetry-path", options.telemetry_path, "Path under which the metrics are served")
        ->capture_default_str();
    app.add_option("--web.config.file", web_config,
                   "Web configuration file (YAML): TLS certificate and key, basic-auth users with bcrypt hashes")
        ->check(CLI::ExistingFile);
    app.add_option("--scrape.min-interval", min_interval,
                   "Scrapes that come sooner after a reading of the system get that reading (e.g. 0s, 500ms, 5s)")
        ->capture_default_str();
    app.add_option("--scrape.timeout", scrape_timeout,
                   "How long a scrape that announces no timeout waits for a fresh reading before it gets the last "
                   "complete one (e.g. 9500ms, 5s)")
        ->capture_default_str();
    app.add_option("--scrape.timeout-offset", timeout_offset,
                   "Taken off the timeout a scraper announces (X-Prometheus-Scrape-Timeout-Seconds) to make the "
                   "wait for a fresh reading (e.g. 500ms)")
        ->capture_default_str();
    app.add_flag("--no-collector.luns", no_luns, "Leave out the mirvak_lun_* series (hosts with very many LUNs)");
    app.set_version_flag("--version", std::string("mirvak-hba-exporter ") + MIRVAK_VERSION, "Print the version and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    if (!duration_flag("--scrape.min-interval", min_interval, options.min_interval) ||
        !duration_flag("--scrape.timeout", scrape_timeout, options.scrape_timeout) ||
        !duration_flag("--scrape.timeout-offset", timeout_offset, options.timeout_offset))
        return 2;
    options.collect.luns = !no_luns;
    watchdog(options);
    try {
        if (!web_config.empty()) options.web = mv::exporter::load_web_config(web_config);
    } catch (const mv::exporter::WebConfigError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return 2;
    }

    // SIGTERM and SIGINT end the exporter, SIGHUP is taken without ending
    // it; a client that goes away mid-answer must not end it either. The
    // signals are blocked before any thread starts, so that only sigwait
    // below takes them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    // The library prints its diagnostics on standard output.
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }

    MvFCoEIni facade;
    try {
        mv::exporter::Server server(facade, options);
        std::fprintf(stderr, "mirvak-hba-exporter: listening on %s%s, metrics at %s\n", options.listen_address.c_str(),
                     options.web.tls() ? " (TLS)" : "", options.telemetry_path.c_str());
        sd_notify(0, "READY=1");
        const int sig = wait_for_stop(stop);
        sd_notify(0, "STOPPING=1");
        std::fprintf(stderr, "mirvak-hba-exporter: stopping (signal %d)\n", sig);
        // Not a return through the destructors: the collector may be stuck
        // in a driver call that never returns, and nothing here has to be
        // written out but the messages.
        std::fflush(stderr);
        std::_Exit(0);
    } catch (const mv::exporter::ServerError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return 1;
    }
}
