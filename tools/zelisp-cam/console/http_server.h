/*
 * http_server.h - the console's HTTP server, on libmicrohttpd: one event
 * loop thread (epoll) serves every connection, so an idle or slow client
 * costs a socket, not a thread. The library enforces the connection caps
 * (in all and per address), the idle timeout and the size of the request
 * headers (its per-connection memory pool); this file adds what it leaves
 * to the application: a 16 KiB header limit answered with 431, body caps
 * that count chunked bodies too (413), and a deadline for the whole
 * request, which a client sending one byte at a time cannot stretch.
 */
#ifndef ZELISP_CAM_CONSOLE_HTTP_SERVER_H
#define ZELISP_CAM_CONSOLE_HTTP_SERVER_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "http_exchange.h"

namespace zcam {

class AccessLog;
class Timers;

struct HttpLimits {
    size_t header_bytes = 16 * 1024; // request line and headers; more is answered 431
    size_t body_bytes = 4096;        // a request body, decoded; more is answered 413
    // A larger cap for some requests (an SDP offer); null: body_bytes for all.
    std::function<size_t(const std::string &method, const std::string &path)> body_limit;
    std::chrono::seconds request_deadline{10}; // from its first byte to its last
    unsigned idle_seconds = 10;                // a connection that moves nothing is closed
    unsigned max_connections = 1000;
    unsigned max_per_address = 64;
};

struct TlsCredentials {
    std::string key_pem;
    std::string certificate_pem;
};

class HttpServer {
public:
    using Route = std::function<void(const std::shared_ptr<HttpExchange> &)>;
    // Diagnostics of the server (refused connections, closed slow clients).
    using Notice = std::function<void(const std::string &)>;

    HttpServer(HttpLimits limits, Route route, Timers &timers, AccessLog *log, Notice notice);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    // Serves on `listen_fd`, a bound and listening socket the server takes
    // over. "" or why it could not start.
    std::string start(int listen_fd, const std::optional<TlsCredentials> &tls);
    // Answers every waiting request with 503, ends the streams, and closes
    // every connection. Safe to call twice.
    void stop();

    struct Figures {
        uint64_t connections = 0;       // open now
        uint64_t requests = 0;          // answered since the start
        uint64_t too_slow = 0;          // closed at the request deadline
        uint64_t headers_too_large = 0; // answered 431
        uint64_t bodies_too_large = 0;  // answered 413
    };
    Figures figures() const;

private:
    friend class HttpDaemon; // libmicrohttpd's callbacks (http_server.cpp)
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace zcam

#endif
