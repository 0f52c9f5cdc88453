#include "server.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "mirvak/mv_fcoe_ini.h"

namespace mv::exporter {

namespace {

std::string html_escape(const std::string& s) {
    std::string out;
    for (const char c : s) {
        switch (c) {
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '&': out += "&amp;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

// The timeout Prometheus announces, in seconds; -1 when none (or not a
// positive number).
double announced_timeout(const std::string& header) {
    if (header.empty()) return -1;
    char* end = nullptr;
    const double v = std::strtod(header.c_str(), &end);
    if (end == header.c_str() || *end != '\0' || !std::isfinite(v) || v <= 0) return -1;
    return v;
}

CollectorOptions collector_options(const ServerOptions& o) {
    CollectorOptions c;
    c.collect = o.collect;
    c.min_interval = o.min_interval;
    c.heartbeat = o.heartbeat;
    c.heartbeat_interval = o.heartbeat_interval;
    return c;
}

}  // namespace

// What the HTTP side needs of a web configuration: the certificate and key
// as read, the TLS versions and suites, the users and the answer headers.
static HttpSecurity security_of(WebConfig& web) {
    try {
        read_tls_files(web);
    } catch (const WebConfigError& e) {
        throw ServerError(e.what());
    }
    HttpSecurity s;
    s.cert_pem = web.cert_pem;
    s.key_pem = web.key_pem;
    if (web.tls()) s.tls_priorities = tls_priorities(web);
    s.users = web.users;
    s.headers = web.headers;
    return s;
}

Server::Server(MvFCoEIni& facade, ServerOptions options)
    : facade_(facade), options_(std::move(options)), collector_(facade_, collector_options(options_)) {
    if (options_.telemetry_path.empty() || options_.telemetry_path[0] != '/' || options_.telemetry_path == "/")
        throw ServerError("--web.telemetry-path must start with / and name a path other than /");
    HttpOptions http;
    http.listen_address = options_.listen_address;
    http.limits = options_.limits;
    http.security = security_of(options_.web);
    try {
        http_ = std::make_unique<HttpServer>(http, [this](const HttpRequest& r) { return handle(r); });
    } catch (const HttpError& e) {
        throw ServerError(e.what());
    }
    http_->on_auth_failure([this] { ++auth_failures_; });
    port_ = http_->port();
}

// The HTTP side stops first: its threads answer with the members below it.
Server::~Server() { http_.reset(); }

void Server::reload(WebConfig web) {
    HttpSecurity security = security_of(web);
    try {
        http_->reload(std::move(security));
    } catch (const HttpError& e) {
        throw ServerError(e.what());
    }
    options_.web = std::move(web);
}

std::string Server::scrape(double announced_timeout) {
    // A scraper's own timeout, less the offset that leaves it time to
    // receive the answer; bounded to an hour.
    std::chrono::duration<double> wait = options_.scrape_timeout;
    if (announced_timeout >= 0)
        wait = std::chrono::duration<double>(std::min(announced_timeout, 3600.0)) - options_.timeout_offset;
    if (wait.count() < 0) wait = std::chrono::duration<double>(0);
    const std::string body = collector_.scrape(wait);
    prometheus::MetricFamily f;
    f.name = "mirvak_exporter_http_auth_failures_total";
    f.help = "Requests refused for missing or wrong credentials.";
    f.type = prometheus::MetricType::Counter;
    prometheus::ClientMetric m;
    m.counter.value = static_cast<double>(auth_failures_.load());
    f.metric.push_back(m);
    return body + exposition({f});
}

HttpAnswer Server::handle(const HttpRequest& request) {
    HttpAnswer a;
    if (request.path != "/" && request.path != options_.telemetry_path) {
        a.status = 404;
        a.body = "404 page not found\n";
        return a;
    }
    if (request.path == "/") {
        const std::string path = html_escape(options_.telemetry_path);
        a.content_type = "text/html; charset=utf-8";
        a.body =
            "<!DOCTYPE html>\n<html>\n<head><title>mirvak-hba exporter</title></head>\n<body>\n"
            "<h1>mirvak-hba exporter</h1>\n<p>Adapters, ports, virtual ports, remote ports and LUNs of the mirvak "
            "FCoE HBAs, for Prometheus.</p>\n<p><a href=\"" +
            path + "\">Metrics</a></p>\n</body>\n</html>\n";
        return a;
    }
    a.content_type = "text/plain; version=0.0.4; charset=utf-8";
    a.body = scrape(announced_timeout(request.header("X-Prometheus-Scrape-Timeout-Seconds")));
    return a;
}

}  // namespace mv::exporter
