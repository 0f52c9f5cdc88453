// mirvak-hba-exporter: serves the adapters, ports, virtual ports, remote
// ports and LUNs of the mirvak FCoE HBAs to Prometheus.
//
// It holds one MvFCoEIni for its lifetime, as a management agent does, and
// calls the library from one thread only, the collector's. The library's own
// diagnostic lines (printed on standard output) are dropped; the exporter's
// messages go to standard error.
//
// SIGHUP re-reads the web configuration and never ends it; SIGTERM and
// SIGINT end it at once, even with the collector stuck in a driver call
// (that thread is not waited for). Under systemd (Type=notify) it reports
// ready, and, with WatchdogSec= set, the collector's heartbeat: a collector
// stuck in the library for longer than WatchdogSec sends none, and systemd
// restarts the service.
#include <fcntl.h>
#include <unistd.h>

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <CLI/CLI.hpp>

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

// The web configuration at start or on SIGHUP, with a warning when it asks
// for passwords without TLS (they would cross the network readable).
bool read_config(const std::string& path, mv::exporter::WebConfig& out) {
    try {
        out = mv::exporter::read_web_config(path);
    } catch (const mv::exporter::WebConfigError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return false;
    }
    if (!out.users.empty() && !out.tls())
        std::fprintf(stderr,
                     "mirvak-hba-exporter: warning: %s: basic_auth_users without tls_server_config: passwords "
                     "cross the network in clear text\n",
                     path.c_str());
    return true;
}

// Without --web.config.file, a credential named web.yml that systemd hands
// over (LoadCredential=web.yml:...) is the web configuration.
std::string credential_web_config() {
    const char* dir = std::getenv("CREDENTIALS_DIRECTORY");
    if (dir == nullptr || *dir == '\0') return "";
    const std::string path = std::string(dir) + "/web.yml";
    return access(path.c_str(), F_OK) == 0 ? path : "";
}

// SIGHUP: the web configuration again; one that cannot be used leaves the
// one in use in place.
void reload(mv::exporter::Server& server, const std::string& path) {
    if (path.empty()) {
        std::fprintf(stderr, "mirvak-hba-exporter: SIGHUP: no web configuration file to re-read\n");
        return;
    }
    mv::exporter::WebConfig fresh;
    if (!read_config(path, fresh)) {
        std::fprintf(stderr, "mirvak-hba-exporter: reload failed, keeping the web configuration in use\n");
        return;
    }
    try {
        server.reload(std::move(fresh));
        std::fprintf(stderr, "mirvak-hba-exporter: reloaded %s\n", path.c_str());
    } catch (const mv::exporter::ServerError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s; reload failed, keeping the web configuration in use\n",
                     e.what());
    }
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

// Reloads on their own thread: a reload closes the connections open at the
// time and waits for their answers, and a scrape may be waiting for a
// reading while a driver call hangs; SIGTERM must not wait behind it.
class Reloader {
public:
    Reloader(mv::exporter::Server& server, std::string path)
        : server_(server), path_(std::move(path)), thread_([this] { run(); }) {
        thread_.detach();  // (the process ends by _Exit, never by joining it)
    }
    void request() {
        std::lock_guard<std::mutex> lock(mutex_);
        wanted_ = true;
        wake_.notify_one();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return wanted_; });
            wanted_ = false;
            lock.unlock();
            reload(server_, path_);
            lock.lock();
        }
    }
    mv::exporter::Server& server_;
    const std::string path_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool wanted_ = false;
    std::thread thread_;
};

// Waits for SIGTERM or SIGINT; SIGHUP asks for a reload and does not end
// the exporter.
int wait_for_stop(const sigset_t& signals, Reloader& reloader) {
    for (;;) {
        int sig = 0;
        if (sigwait(&signals, &sig) != 0) continue;
        if (sig != SIGHUP) return sig;
        reloader.request();
    }
}

// The end of --help (and of the man page made from it; its signals and
// the watchdog are in mirvak-hba-exporter.h2m).
const char kFooter[] =
    "Readings: one thread reads the system; a scrape that wants a fresh reading waits at most the timeout its "
    "scraper announces (X-Prometheus-Scrape-Timeout-Seconds) less --scrape.timeout-offset, or --scrape.timeout "
    "without one, and then gets the last complete reading. Besides the system's series it serves "
    "mirvak_exporter_scrape_duration_seconds, mirvak_exporter_last_scrape_success, mirvak_exporter_adapters, "
    "mirvak_exporter_library_results_total, mirvak_exporter_http_auth_failures_total, "
    "mirvak_exporter_reading_age_seconds (seconds since the reading served completed) and "
    "mirvak_exporter_collection_stalled (1 while a reading runs past the deadline of the scrape that asked for "
    "it, as when a driver call does not return).";

// The command line's text flags, checked after parsing.
struct Flags {
    std::string min_interval = "5s", scrape_timeout = "9500ms", timeout_offset = "500ms", web_config,
                request_timeout = "10s";
    bool no_luns = false;
};

void define_flags(CLI::App& app, mv::exporter::ServerOptions& options, Flags& f) {
    app.add_option("--web.listen-address", options.listen_address,
                   "Address to listen on, host:port (default 127.0.0.1:10847)")
        ->capture_default_str();
    app.add_option("--web.telemetry-path", options.telemetry_path, "Path under which the metrics are served")
        ->capture_default_str();
    app.add_option("--web.config.file", f.web_config,
                   "Web configuration file (YAML): TLS certificate and key, versions and cipher suites, basic-auth "
                   "users with bcrypt hashes, answer headers; re-read on SIGHUP. Default: web.yml in "
                   "$CREDENTIALS_DIRECTORY when systemd hands one over");
    app.add_option("--web.max-connections", options.limits.max_connections,
                   "Connections open at once, in all, at most 960 (more wait in the listening queue until one "
                   "ends)")
        ->capture_default_str()
        ->check(CLI::Range(1u, mv::exporter::kMaxConnectionsCap));
    app.add_option("--web.max-connections-per-client", options.limits.max_connections_per_client,
                   "Connections open at once from one client address (more are closed at once)")
        ->capture_default_str()
        ->check(CLI::Range(1u, mv::exporter::kMaxConnectionsCap));
    app.add_option("--web.request-timeout", f.request_timeout,
                   "Time a client has to send a whole request, TLS handshake and headers included, from connecting "
                   "or from its previous answer (e.g. 10s, 500ms); also the longest an answer may stall")
        ->capture_default_str();
    app.add_option("--scrape.min-interval", f.min_interval,
                   "Scrapes that come sooner after a reading of the system get that reading (e.g. 0s, 500ms, 5s)")
        ->capture_default_str();
    app.add_option("--scrape.timeout", f.scrape_timeout,
                   "How long a scrape that announces no timeout waits for a fresh reading before it gets the last "
                   "complete one (e.g. 9500ms, 5s)")
        ->capture_default_str();
    app.add_option("--scrape.timeout-offset", f.timeout_offset,
                   "Taken off the timeout a scraper announces (X-Prometheus-Scrape-Timeout-Seconds) to make the "
                   "wait for a fresh reading (e.g. 500ms)")
        ->capture_default_str();
    app.add_flag("--no-collector.luns", f.no_luns, "Leave out the mirvak_lun_* series (hosts with very many LUNs)");
}

// The text flags into options; false (with a message) when one is wrong.
bool apply_flags(Flags& f, mv::exporter::ServerOptions& options) {
    if (!duration_flag("--scrape.min-interval", f.min_interval, options.min_interval) ||
        !duration_flag("--scrape.timeout", f.scrape_timeout, options.scrape_timeout) ||
        !duration_flag("--scrape.timeout-offset", f.timeout_offset, options.timeout_offset))
        return false;
    const long long timeout_ms = parse_duration_ms(f.request_timeout);
    if (timeout_ms < 100 || timeout_ms > 3600 * 1000) {
        std::fprintf(stderr, "mirvak-hba-exporter: --web.request-timeout %s: not a duration from 100ms to 1h\n",
                     f.request_timeout.c_str());
        return false;
    }
    options.limits.request_timeout = std::chrono::milliseconds(timeout_ms);
    options.collect.luns = !f.no_luns;
    watchdog(options);
    if (f.web_config.empty()) f.web_config = credential_web_config();
    return f.web_config.empty() || read_config(f.web_config, options.web);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Prometheus exporter of the mirvak FCoE HBAs: adapters, physical and virtual ports, remote ports, "
                 "their counters, and LUNs."};
    app.name("mirvak-hba-exporter");
    app.footer(kFooter);
    mv::exporter::ServerOptions options;
    Flags flags;
    define_flags(app, options, flags);
    app.set_version_flag("--version", std::string("mirvak-hba-exporter ") + MIRVAK_VERSION, "Print the version and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    if (!apply_flags(flags, options)) return 2;

    // SIGTERM and SIGINT end the exporter, SIGHUP re-reads the web
    // configuration; a client that goes away mid-answer must not end it.
    // The signals are blocked before any thread starts, so that only sigwait
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
        // (With port 0, the port the system chose.)
        const std::string address = options.listen_address.substr(0, options.listen_address.rfind(':') + 1) +
                                    std::to_string(server.port());
        std::fprintf(stderr, "mirvak-hba-exporter: listening on %s%s, metrics at %s\n", address.c_str(),
                     options.web.tls() ? " (TLS)" : "", options.telemetry_path.c_str());
        Reloader reloader(server, flags.web_config);
        sd_notify(0, "READY=1");
        const int sig = wait_for_stop(stop, reloader);
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
