// The exporter's answers: the landing page at "/", the metrics at the
// telemetry path, 404 for anything else; served by HttpServer (connection
// limits, request deadline, basic authentication and TLS from the web
// configuration). Every scrape is answered from one reading of the system,
// which the collector (collector.h) takes on its own thread through the one
// MvFCoEIni the server holds: HTTP handlers never call the library.
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
#include "http_server.h"
#include "metrics.h"
#include "web_config.h"

class MvFCoEIni;

namespace mv::exporter {

struct ServerOptions {
    std::string listen_address = "127.0.0.1:10847";  // host:port; port 0 picks a free one
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
    HttpLimits limits;
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

    // Takes a new web configuration (read_web_config's); throws ServerError
    // and keeps the one in use when it cannot be used.
    void reload(WebConfig web);

private:
    HttpAnswer handle(const HttpRequest& request);

    MvFCoEIni& facade_;
    ServerOptions options_;
    std::unique_ptr<HttpServer> http_;
    int port_ = 0;

    Collector collector_;
    std::atomic<uint64_t> auth_failures_{0};
};

}  // namespace mv::exporter

#endif
