#include "server.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <civetweb.h>
#include <openssl/ssl.h>

#include "mirvak/mv_fcoe_ini.h"

namespace mv::exporter {

namespace {

const char kRealm[] = "mirvak-hba-exporter";

void reply(mg_connection* conn, int status, const char* reason, const char* type, const std::string& body,
           bool head, const char* extra = "") {
    mg_printf(conn,
              "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\nCache-Control: no-store\r\n%s\r\n",
              status, reason, type, body.size(), extra);
    if (!head && !body.empty()) mg_write(conn, body.data(), body.size());
}

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

// civetweb's form of the listening address: "127.0.0.1:9847" as it is,
// ":9847" for every interface; an "s" after the port asks for TLS.
std::string listening_ports(const std::string& address, bool tls) {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon + 1 == address.size())
        throw ServerError("--web.listen-address " + address + ": give host:port (e.g. 127.0.0.1:9847)");
    const std::string port = address.substr(colon + 1);
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 || std::stoul(port) > 65535)
        throw ServerError("--web.listen-address " + address + ": the port is not a number from 0 to 65535");
    std::string host = address.substr(0, colon);
    if (host == "localhost") host = "127.0.0.1";
    const std::string listening = host.empty() ? port : host + ":" + port;
    return tls ? listening + "s" : listening;
}

// The timeout Prometheus announces, in seconds; -1 when none (or not a
// positive number).
double announced_timeout(const char* header) {
    if (header == nullptr) return -1;
    char* end = nullptr;
    const double v = std::strtod(header, &end);
    if (end == header || *end != '\0' || !std::isfinite(v) || v <= 0) return -1;
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

Server::Server(MvFCoEIni& facade, ServerOptions options)
    : facade_(facade),
      options_(std::move(options)),
      passwords_(options_.web.users),
      collector_(facade_, collector_options(options_)) {
    if (options_.telemetry_path.empty() || options_.telemetry_path[0] != '/' || options_.telemetry_path == "/")
        throw ServerError("--web.telemetry-path must start with / and name a path other than /");
    const bool tls = options_.web.tls();
    mg_init_library(tls ? MG_FEATURES_TLS : 0);
    const std::string ports = listening_ports(options_.listen_address, tls);
    const std::string threads = std::to_string(options_.threads);
    std::vector<const char*> opts = {"listening_ports", ports.c_str(), "num_threads", threads.c_str(),
                                     "request_timeout_ms", "30000", "enable_keep_alive", "yes"};
    opts.push_back(nullptr);
    mg_callbacks callbacks;
    std::memset(&callbacks, 0, sizeof callbacks);
    callbacks.begin_request = &Server::on_request;
    callbacks.log_message = &Server::on_log;
    if (tls) callbacks.init_ssl = &Server::on_init_ssl;
    ctx_ = mg_start(&callbacks, this, opts.data());
    if (ctx_ == nullptr) {
        mg_exit_library();
        throw ServerError("cannot listen on " + options_.listen_address + (tls ? " with TLS" : "") +
                          " (address in use, not local, or the certificate cannot be used)");
    }
    mg_server_port bound[4];
    std::memset(bound, 0, sizeof bound);
    if (mg_get_server_ports(ctx_, 4, bound) > 0) port_ = bound[0].port;
}

Server::~Server() {
    if (ctx_ != nullptr) mg_stop(ctx_);
    mg_exit_library();
}

int Server::on_init_ssl(void* ssl_ctx, void* user_data) {
    auto* self = static_cast<Server*>(user_data);
    auto* ctx = static_cast<SSL_CTX*>(ssl_ctx);
    const WebConfig& w = self->options_.web;
    if (SSL_CTX_use_certificate_chain_file(ctx, w.cert_file.c_str()) != 1) {
        std::fprintf(stderr, "mirvak-hba-exporter: cannot use the certificate %s\n", w.cert_file.c_str());
        return -1;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, w.key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1) {
        std::fprintf(stderr, "mirvak-hba-exporter: cannot use the key %s with the certificate\n", w.key_file.c_str());
        return -1;
    }
    return 1;
}

int Server::on_log(const mg_connection*, const char* message) {
    std::fprintf(stderr, "mirvak-hba-exporter: %s\n", message);
    return 1;
}

int Server::on_request(mg_connection* conn) {
    auto* self = static_cast<Server*>(mg_get_request_info(conn)->user_data);
    return self->handle(conn);
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

int Server::handle(mg_connection* conn) {
    const mg_request_info* req = mg_get_request_info(conn);
    const std::string method = req->request_method != nullptr ? req->request_method : "";
    const std::string uri = req->local_uri != nullptr ? req->local_uri : "";
    const bool head = method == "HEAD";

    if (passwords_.required()) {
        std::string user, password;
        const bool given = parse_basic_auth(mg_get_header(conn, "Authorization"), user, password);
        if (!given || !passwords_.check(user, password)) {
            ++auth_failures_;
            std::fprintf(stderr, "mirvak-hba-exporter: refused %s %s from %s: %s\n", method.c_str(), uri.c_str(),
                         req->remote_addr, given ? ("wrong password for user \"" + user + "\"").c_str()
                                                 : "no credentials");
            const std::string extra = std::string("WWW-Authenticate: Basic realm=\"") + kRealm + "\"\r\n";
            reply(conn, 401, "Unauthorized", "text/plain; charset=utf-8", "Unauthorized\n", head, extra.c_str());
            return 401;
        }
    }
    if (uri != "/" && uri != options_.telemetry_path) {
        reply(conn, 404, "Not Found", "text/plain; charset=utf-8", "404 page not found\n", head);
        return 404;
    }
    if (method != "GET" && method != "HEAD") {
        reply(conn, 405, "Method Not Allowed", "text/plain; charset=utf-8", "Method Not Allowed\n", head,
              "Allow: GET, HEAD\r\n");
        return 405;
    }
    if (uri == "/") {
        const std::string path = html_escape(options_.telemetry_path);
        const std::string page =
            "<!DOCTYPE html>\n<html>\n<head><title>mirvak-hba exporter</title></head>\n<body>\n"
            "<h1>mirvak-hba exporter</h1>\n<p>Adapters, ports, virtual ports, remote ports and LUNs of the mirvak "
            "FCoE HBAs, for Prometheus.</p>\n<p><a href=\"" +
            path + "\">Metrics</a></p>\n</body>\n</html>\n";
        reply(conn, 200, "OK", "text/html; charset=utf-8", page, head);
        return 200;
    }
    const std::string body = scrape(announced_timeout(mg_get_header(conn, "X-Prometheus-Scrape-Timeout-Seconds")));
    reply(conn, 200, "OK", "text/plain; version=0.0.4; charset=utf-8", body, head);
    return 200;
}

}  // namespace mv::exporter
