// mirvak-hba-exporter: serves the adapters, ports, virtual ports, remote
// ports and LUNs of the mirvak FCoE HBAs to Prometheus.
//
// It holds one MvFCoEIni for its lifetime, as a management agent does, and
// calls the library from one thread at a time. The library's own
// diagnostic lines (printed on standard output) are dropped; the exporter's
// messages go to standard error. SIGHUP re-reads the web configuration.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
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

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Prometheus exporter of the mirvak FCoE HBAs: adapters, physical and virtual ports, remote ports, "
                 "their counters, and LUNs."};
    app.name("mirvak-hba-exporter");
    mv::exporter::ServerOptions options;
    std::string min_interval = "5s", web_config, request_timeout = "10s";
    bool no_luns = false;
    app.add_option("--web.listen-address", options.listen_address,
                   "Address to listen on, host:port (default 127.0.0.1:10847)")
        ->capture_default_str();
    app.add_option("--web.telemetry-path", options.telemetry_path, "Path under which the metrics are served")
        ->capture_default_str();
    app.add_option("--web.config.file", web_config,
                   "Web configuration file (YAML): TLS certificate and key, versions and cipher suites, basic-auth "
                   "users with bcrypt hashes, answer headers; re-read on SIGHUP. Default: web.yml in "
                   "$CREDENTIALS_DIRECTORY when systemd hands one over");
    app.add_option("--web.max-connections", options.limits.max_connections,
                   "Connections open at once, in all (more wait in the listening queue until one ends)")
        ->capture_default_str()
        ->check(CLI::Range(1u, 65536u));
    app.add_option("--web.max-connections-per-client", options.limits.max_connections_per_client,
                   "Connections open at once from one client address (more are closed at once)")
        ->capture_default_str()
        ->check(CLI::Range(1u, 65536u));
    app.add_option("--web.request-timeout", request_timeout,
                   "Time a client has to send a whole request, TLS handshake and headers included, from connecting "
                   "or from its previous answer (e.g. 10s, 500ms); also the longest an answer may stall")
        ->capture_default_str();
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
    const long long timeout_ms = parse_duration_ms(request_timeout);
    if (timeout_ms < 100 || timeout_ms > 3600 * 1000) {
        std::fprintf(stderr, "mirvak-hba-exporter: --web.request-timeout %s: not a duration from 100ms to 1h\n",
                     request_timeout.c_str());
        return 2;
    }
    options.limits.request_timeout = std::chrono::milliseconds(timeout_ms);
    options.collect.luns = !no_luns;
    if (web_config.empty()) web_config = credential_web_config();
    if (!web_config.empty() && !read_config(web_config, options.web)) return 2;

    // SIGTERM and SIGINT end the exporter cleanly; a client that goes away
    // mid-answer must not. SIGHUP re-reads the web configuration.
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
        int sig = 0;
        while (sigwait(&stop, &sig) == 0 && sig == SIGHUP) reload(server, web_config);
        std::fprintf(stderr, "mirvak-hba-exporter: stopping (signal %d)\n", sig);
    } catch (const mv::exporter::ServerError& e) {
        std::fprintf(stderr, "mirvak-hba-exporter: %s\n", e.what());
        return 1;
    }
    return 0;
}
