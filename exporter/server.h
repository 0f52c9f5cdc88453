// The exporter's HTTP side: the landing page at "/", the metrics at the
// telemetry path, 404 for anything else; basic authentication and TLS from
// the web configuration. Every scrape is answered from one reading of the
// system, which the collector (collector.h) takes on its own thread through
// the one MvFCoEIni the server holds: HTTP handlers never call the library.
#ifndef MIRVAK_EXPORTER_SERVER_H
#define MIRVAK_EXPORTER_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "collector.h"
#include "metrics.h"
#include "web_config.h"

class MvFCoEIni;
struct mg_context;
struct mg_connection;

namespace mv::exporter {

struct ServerOptions {
    std::string listen_address = "127.0.0.1:9847";  // host:port; port 0 picks a free one
    std::string telemetry_path = "/metrics";
    std::chrono::milliseconds min_interval{5000};    // scrapes that come faster get the last reading
    // How long a scrape waits for a fresh reading: the timeout the scraper
    // announces (X-Prometheus-Scrape-Timeout-Seconds) less the offset, or,
    // without one, scrape_timeout.
    std::chrono::milliseconds scrape_timeout{9500};
    std::chrono::milliseconds timeout_offset{500};
    CollectOptions collect;
    std::function<void()> heartbeat;                 // the collector's heartbeat (see collector.h)
    std::chrono::milliseconds heartbeat_interval{0};
    WebConfig web;
    unsigned threads = 4;
};

struct ServerError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Server {
public:
    // Starts listening; throws ServerError when the address cannot be had
    // or TLS cannot be set up.
    Server(MvFCoEIni& facade, ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The port listened on (useful with port 0).
    int port() const { return port_; }
    // Readings of the system taken so far.
    uint64_t readings() const { return collector_.readings(); }

    // The exposition a scrape gets now (taken afresh or the last one), for a
    // scraper that announced this timeout in seconds (negative: none).
    std::string scrape(double announced_timeout = -1);

private:
    static int on_request(mg_connection* conn);
    static int on_init_ssl(void* ssl_ctx, void* user_data);
    static int on_log(const mg_connection* conn, const char* message);
    int handle(mg_connection* conn);

    MvFCoEIni& facade_;
    ServerOptions options_;
    PasswordCheck passwords_;
    mg_context* ctx_ = nullptr;
    int port_ = 0;

    Collector collector_;
    std::atomic<uint64_t> auth_failures_{0};
};

}  // namespace mv::exporter

#endif
