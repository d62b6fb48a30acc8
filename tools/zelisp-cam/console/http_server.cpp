// http_server.cpp - libmicrohttpd's daemon with the console's limits.
#include "http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "access_log.h"
#include "timers.h"

namespace zcam {

namespace {

using Clock = std::chrono::steady_clock;

// libmicrohttpd keeps a connection's request line, headers and read buffer
// in one pool of this size: headers that do not fit are answered 431 by the
// library itself. It is twice our own limit, so that headers just over the
// limit reach us and get the console's own 431 with a JSON reason.
constexpr size_t kConnectionPool = 32 * 1024;
// An oversized body is read and dropped up to this much, so that a client
// that sends its whole body before it reads gets its 413; beyond it the
// connection is closed.
constexpr uint64_t kDiscardedBodyCap = 16 * 1024 * 1024;
// How often the request deadline is checked.
constexpr auto kSweepPeriod = std::chrono::milliseconds(250);

std::string address_text(const sockaddr *address)
{
    char text[INET6_ADDRSTRLEN] = "?";
    if (address == nullptr)
        return text;
    if (address->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text, sizeof text);
    else if (address->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr, text, sizeof text);
    return text;
}

HttpResponse error_response(int status, const std::string &message)
{
    HttpResponse response = json_error_response(status, message);
    response.headers.emplace_back("Connection", "close");
    return response;
}

} // namespace

// One accepted connection, watched for the request deadline.
struct ConnectionClock {
    int fd;
    Clock::time_point since;  // the start of the request being received
    bool receiving = true;    // a request is on its way (or the connection idles between requests)
    bool shut_down = false;
};

// What one request carries between libmicrohttpd's calls.
struct RequestState {
    std::shared_ptr<HttpExchange> exchange;
    size_t body_limit = 0;
    uint64_t body_received = 0;
    bool too_large = false;
    bool routed = false;
};

class HttpDaemon {
public:
    static MHD_Result on_request(void *server, MHD_Connection *connection, const char *url, const char *method,
                                 const char *version, const char *upload, size_t *upload_size, void **state);
    static void on_completed(void *server, MHD_Connection *connection, void **state,
                             MHD_RequestTerminationCode code);
    static void on_connection(void *server, MHD_Connection *connection, void **context,
                              MHD_ConnectionNotificationCode code);
    static void on_log(void *server, const char *format, va_list arguments);

    static void answer_now(HttpExchange &exchange, HttpResponse response)
    {
        std::lock_guard<std::mutex> lock(exchange.mutex_);
        exchange.queue_locked(std::move(response));
    }
    static void attach(HttpExchange &exchange, MHD_Connection *connection, int socket)
    {
        exchange.connection_ = connection;
        exchange.socket_ = socket;
    }
    static void route_returned(HttpExchange &exchange) { exchange.route_returned(); }
    static void abandon(HttpExchange &exchange) { exchange.abandon(); }
    static void end_if_client_left(HttpExchange &exchange) { exchange.end_if_client_left(); }
    static std::shared_ptr<StreamSource> finish(HttpExchange &exchange) { return exchange.finish(); }
    static int status(const HttpExchange &exchange) { return exchange.status_; }
    static uint64_t bytes(const HttpExchange &exchange) { return exchange.bytes_; }
    static Clock::time_point started(const HttpExchange &exchange) { return exchange.started_; }
};

struct HttpServer::Impl {
    HttpLimits limits;
    Route route;
    Timers &timers;
    AccessLog *log;
    Notice notice;
    bool tls = false;
    MHD_Daemon *daemon = nullptr;

    std::mutex mutex; // guards the two sets and `stopping`
    std::set<ConnectionClock *> connections;
    std::set<std::shared_ptr<HttpExchange>> exchanges;
    bool stopping = false;

    std::atomic<uint64_t> requests{0}, too_slow{0}, headers_too_large{0}, bodies_too_large{0};
    // Diagnostics are passed on at most this often, so an attack does not flood the event log.
    Clock::time_point last_notice{};

    Impl(HttpLimits l, Route r, Timers &t, AccessLog *a, Notice n)
        : limits(std::move(l)), route(std::move(r)), timers(t), log(a), notice(std::move(n))
    {
    }

    HttpRequest read_request(MHD_Connection *connection, const char *url, const char *method,
                             const char *version) const
    {
        HttpRequest request;
        request.method = method;
        request.version = version;
        request.path = url;
        request.tls = tls;
        MHD_get_connection_values(
            connection, MHD_HEADER_KIND,
            [](void *out, MHD_ValueKind, const char *key, const char *value) {
                static_cast<HeaderList *>(out)->emplace_back(key, value ? value : "");
                return MHD_YES;
            },
            &request.headers);
        MHD_get_connection_values(
            connection, MHD_GET_ARGUMENT_KIND,
            [](void *out, MHD_ValueKind, const char *key, const char *value) {
                static_cast<std::map<std::string, std::string> *>(out)->emplace(key, value ? value : "");
                return MHD_YES;
            },
            &request.query);
        const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
        request.peer = address_text(info ? info->client_addr : nullptr);
        return request;
    }

    static size_t header_bytes(const HttpRequest &request)
    {
        size_t bytes = request.method.size() + request.path.size() + request.version.size() + 4;
        for (const auto &[name, value] : request.headers)
            bytes += name.size() + value.size() + 4;
        for (const auto &[name, value] : request.query)
            bytes += name.size() + value.size() + 2;
        return bytes;
    }

    static ConnectionClock *clock_of(MHD_Connection *connection)
    {
        const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        return info ? static_cast<ConnectionClock *>(info->socket_context) : nullptr;
    }

    void received(MHD_Connection *connection)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (ConnectionClock *clock = clock_of(connection))
            clock->receiving = false;
    }

    // Closes every connection whose request has taken longer than the
    // deadline. A per-read timeout would not do: one byte every few seconds
    // keeps a connection alive forever. Ends the waiting streams whose
    // clients have hung up. An exchange leaves the set, under this mutex,
    // before libmicrohttpd closes its socket.
    void sweep()
    {
        auto now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto &exchange : exchanges)
            HttpDaemon::end_if_client_left(*exchange);
        for (ConnectionClock *clock : connections)
            if (clock->receiving && !clock->shut_down && now - clock->since > limits.request_deadline) {
                ::shutdown(clock->fd, SHUT_RDWR); // the event loop sees the end and closes it
                clock->shut_down = true;
                ++too_slow;
            }
    }

    void tell(const std::string &text)
    {
        auto now = Clock::now();
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (now - last_notice < std::chrono::seconds(1))
                return;
            last_notice = now;
        }
        if (notice)
            notice(text);
    }

    MHD_Result first_call(MHD_Connection *connection, const char *url, const char *method, const char *version,
                          void **state)
    {
        auto request_state = std::make_unique<RequestState>();
        HttpRequest request = read_request(connection, url, method, version);
        request_state->body_limit = limits.body_limit ? limits.body_limit(request.method, request.path)
                                                      : limits.body_bytes;
        size_t headers = header_bytes(request);
        std::string length = request.header("Content-Length");
        request_state->exchange = std::make_shared<HttpExchange>(std::move(request));
        HttpExchange &exchange = *request_state->exchange;
        ConnectionClock *clock = clock_of(connection);
        HttpDaemon::attach(exchange, connection, clock ? clock->fd : -1);
        {
            std::lock_guard<std::mutex> lock(mutex);
            exchanges.insert(request_state->exchange);
            if (stopping)
                HttpDaemon::abandon(exchange); // a request that came as the server stops: 503
        }
        *state = request_state.release();
        // Answered before the body is read: libmicrohttpd then drops the
        // rest of the request and closes the connection.
        if (headers > limits.header_bytes) {
            ++headers_too_large;
            HttpDaemon::answer_now(exchange, error_response(431, "request headers over " +
                                                                     std::to_string(limits.header_bytes) + " bytes"));
        } else if (!length.empty() && length.find_first_not_of("0123456789") == std::string::npos &&
                   (length.size() > 12 || std::stoull(length) > static_cast<RequestState *>(*state)->body_limit)) {
            return too_large(exchange, static_cast<RequestState *>(*state)->body_limit);
        }
        return MHD_YES;
    }

    MHD_Result too_large(HttpExchange &exchange, size_t limit)
    {
        ++bodies_too_large;
        HttpDaemon::answer_now(exchange, error_response(413, "request body over " + std::to_string(limit) + " bytes"));
        return MHD_YES;
    }

    MHD_Result body_part(RequestState &state, const char *upload, size_t *upload_size)
    {
        uint64_t total = state.body_received + *upload_size;
        if (!state.too_large && total <= state.body_limit)
            const_cast<HttpRequest &>(state.exchange->request()).body.append(upload, *upload_size);
        else
            state.too_large = true;
        state.body_received = total;
        *upload_size = 0;
        return total > kDiscardedBodyCap ? MHD_NO : MHD_YES;
    }

    MHD_Result dispatch(MHD_Connection *connection, RequestState &state)
    {
        received(connection);
        if (state.routed)
            return MHD_YES;
        state.routed = true;
        HttpExchange &exchange = *state.exchange;
        if (state.too_large)
            return too_large(exchange, state.body_limit);
        if (exchange.answered())
            return MHD_YES; // 431: answered at the headers
        route(state.exchange);
        HttpDaemon::route_returned(exchange);
        return MHD_YES;
    }
};

MHD_Result HttpDaemon::on_request(void *server, MHD_Connection *connection, const char *url, const char *method,
                                  const char *version, const char *upload, size_t *upload_size, void **state)
{
    auto *impl = static_cast<HttpServer::Impl *>(server);
    if (*state == nullptr)
        return impl->first_call(connection, url, method, version, state);
    auto &request_state = *static_cast<RequestState *>(*state);
    if (*upload_size != 0)
        return impl->body_part(request_state, upload, upload_size);
    return impl->dispatch(connection, request_state);
}

void HttpDaemon::on_completed(void *server, MHD_Connection *connection, void **state, MHD_RequestTerminationCode)
{
    auto *impl = static_cast<HttpServer::Impl *>(server);
    std::unique_ptr<RequestState> request_state(static_cast<RequestState *>(*state));
    *state = nullptr;
    {
        std::lock_guard<std::mutex> lock(impl->mutex);
        if (ConnectionClock *clock = HttpServer::Impl::clock_of(connection)) {
            clock->receiving = true; // from now on, waiting for the next request
            clock->since = Clock::now();
        }
        if (request_state)
            impl->exchanges.erase(request_state->exchange);
    }
    if (!request_state)
        return;
    HttpExchange &exchange = *request_state->exchange;
    std::shared_ptr<StreamSource> source = finish(exchange);
    if (source)
        source->ended();
    ++impl->requests;
    if (impl->log)
        impl->log->record(exchange.request(), status(exchange), bytes(exchange), Clock::now() - started(exchange));
}

void HttpDaemon::on_connection(void *server, MHD_Connection *connection, void **context,
                               MHD_ConnectionNotificationCode code)
{
    auto *impl = static_cast<HttpServer::Impl *>(server);
    std::lock_guard<std::mutex> lock(impl->mutex);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        auto *clock = new ConnectionClock{info ? info->connect_fd : -1, Clock::now()};
        impl->connections.insert(clock);
        *context = clock;
    } else if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        // libmicrohttpd closes the socket only after this: the sweep, which
        // holds the same mutex, never shuts down a reused descriptor.
        auto *clock = static_cast<ConnectionClock *>(*context);
        impl->connections.erase(clock);
        delete clock;
        *context = nullptr;
    }
}

void HttpDaemon::on_log(void *server, const char *format, va_list arguments)
{
    char text[256];
    vsnprintf(text, sizeof text, format, arguments);
    std::string line = text;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
        line.pop_back();
    static_cast<HttpServer::Impl *>(server)->tell("http: " + line);
}

HttpServer::HttpServer(HttpLimits limits, Route route, Timers &timers, AccessLog *log, Notice notice)
    : impl_(std::make_unique<Impl>(std::move(limits), std::move(route), timers, log, std::move(notice)))
{
}

HttpServer::~HttpServer()
{
    stop();
}

std::string HttpServer::start(int listen_fd, const std::optional<TlsCredentials> &tls)
{
    Impl &impl = *impl_;
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    impl.tls = tls.has_value();
    if (impl.tls) {
        if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
            ::close(listen_fd);
            return "this libmicrohttpd has no TLS";
        }
        flags |= MHD_USE_TLS;
    }
    std::vector<MHD_OptionItem> options = {
        // First, so that every message of the library reaches it.
        {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(&HttpDaemon::on_log), &impl},
        {MHD_OPTION_LISTEN_SOCKET, listen_fd, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, impl.limits.max_connections, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, impl.limits.max_per_address, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, impl.limits.idle_seconds, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, intptr_t(kConnectionPool), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(&HttpDaemon::on_completed), &impl},
        {MHD_OPTION_NOTIFY_CONNECTION, intptr_t(&HttpDaemon::on_connection), &impl},
    };
    if (tls) {
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char *>(tls->key_pem.c_str())});
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char *>(tls->certificate_pem.c_str())});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    impl.daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &HttpDaemon::on_request, &impl, MHD_OPTION_ARRAY,
                                   options.data(), MHD_OPTION_END);
    if (impl.daemon == nullptr) {
        ::close(listen_fd);
        return impl.tls ? "the HTTP server did not start (is the TLS key or certificate malformed?)"
                        : "the HTTP server did not start";
    }
    impl.timers.every(kSweepPeriod, [&impl] { impl.sweep(); });
    return "";
}

void HttpServer::stop()
{
    Impl &impl = *impl_;
    if (impl.daemon == nullptr)
        return;
    // No new connections; then every parked request is answered and every
    // stream ended, since libmicrohttpd must not be stopped with a
    // connection suspended.
    MHD_socket listener = MHD_quiesce_daemon(impl.daemon);
    {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.stopping = true;
        for (const auto &exchange : impl.exchanges)
            HttpDaemon::abandon(*exchange);
    }
    MHD_stop_daemon(impl.daemon);
    impl.daemon = nullptr;
    if (listener != MHD_INVALID_SOCKET)
        ::close(listener);
}

HttpServer::Figures HttpServer::figures() const
{
    Figures figures;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        figures.connections = impl_->connections.size();
    }
    figures.requests = impl_->requests;
    figures.too_slow = impl_->too_slow;
    figures.headers_too_large = impl_->headers_too_large;
    figures.bodies_too_large = impl_->bodies_too_large;
    return figures;
}

} // namespace zcam
