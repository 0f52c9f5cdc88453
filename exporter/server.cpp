#include "server.h"

#include <cstdio>

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

Server::Server(MvFCoEIni& facade, ServerOptions options) : facade_(facade), options_(std::move(options)) {
    if (options_.telemetry_path.empty() || options_.telemetry_path[0] != '/' || options_.telemetry_path == "/")
        throw ServerError("--web.telemetry-path must start with / and name a path other than /");
    HttpOptions http;
    http.listen_address = options_.listen_address;
    http.threads = options_.threads;
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

std::string Server::scrape() {
    std::string body;
    {
        std::lock_guard<std::mutex> lock(library_);
        const auto now = std::chrono::steady_clock::now();
        if (!have_reading_ || now - taken_ >= options_.min_interval) {
            Reading r = collect_system(facade_, options_.collect);
            for (const auto& [code, n] : r.results) results_total_[code] += n;
            add_own_series(r.families, r, results_total_);
            last_ = exposition(r.families);
            taken_ = std::chrono::steady_clock::now();
            have_reading_ = true;
            ++readings_;
        }
        body = last_;
    }
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
    a.body = scrape();
    return a;
}

}  // namespace mv::exporter
