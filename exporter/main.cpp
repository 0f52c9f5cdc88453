// mirvak-hba-exporter: serves the adapters, ports, virtual ports, remote
// ports and LUNs of the mirvak FCoE HBAs to Prometheus.
//
// It holds one MvFCoEIni for its lifetime, as a management agent does, and
// calls the library from one thread at a time. The library's own
// diagnostic lines (printed on standard output) are dropped; the exporter's
// messages go to standard error.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "mirvak/mv_fcoe_ini.h"
#include "server.h"

namespace {

// "15s", "500ms", "2m", "0"; nullopt-like -1 when not a duration.
long long parse_duration_ms(const std::string& text) {
    std::size_t used = 0;
    long long n = 0;
    try {
        n = std::stoll(text, &used, 10);
    } catch (const std::exception&) {
        return -1;
    }
    if (n < 0) return -1;
    const std::string unit = text.substr(used);
    if (unit == "ms") return n;
    if (unit == "s" || (unit.empty() && n == 0)) return n * 1000;
    if (unit == "m") return n * 60 * 1000;
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Prometheus exporter of the mirvak FCoE HBAs: adapters, physical and virtual ports, remote ports, "
                 "their counters, and LUNs."};
    app.name("mirvak-hba-exporter");
    mv::exporter::ServerOptions options;
    std::string min_interval = "5s", web_config;
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
    app.add_flag("--no-collector.luns", no_luns, "Leave out the mirvak_lun_* series (hosts with very many LUNs)");
    app.set_version_flag("--version", std::string("mirvak-hba-exporter ") + MIRVAK_VERSION, "Print the version and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    const long long ms = parse_duration_ms(min_interval);
    if (ms < 0) {
        std::fprintf(stderr, "mirvak-hba-exporter: --scrape.min-interval %s: not a duration (0s, 500ms, 5s, 1m)\n",
                     min_interval.c_str());
        return 2;
    }
    options.min_interval = std::chrono::milliseconds(ms);
    options.collect.luns = !no_luns;
    try {
        if (!web_config.empty()) options.web = mv::exporter::load_web_config(web_config);
    } catch (const mv::exporter::WebConfigError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return 2;
    }

    // SIGTERM and SIGINT end the exporter cleanly; a client that goes away
    // mid-answer must not.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
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
        int sig = 0;
        sigwait(&stop, &sig);
        std::fprintf(stderr, "mirvak-hba-exporter: stopping (signal %d)\n", sig);
    } catch (const mv::exporter::ServerError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return 1;
    }
    return 0;
}
