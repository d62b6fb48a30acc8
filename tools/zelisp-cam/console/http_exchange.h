/*
 * http_exchange.h - one HTTP request and its answer, as the console's routes
 * see them. A route answers at once, or later from any thread (a camera
 * command, a picture being encoded): meanwhile the connection is parked in
 * the server's event loop and holds no thread. Endless answers (MJPEG
 * streams) are pulled from a source whenever the client can take more; a
 * source with nothing to send parks the connection until it is woken.
 */
#ifndef ZELISP_CAM_CONSOLE_HTTP_EXCHANGE_H
#define ZELISP_CAM_CONSOLE_HTTP_EXCHANGE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/types.h>
#include <string>
#include <utility>
#include <vector>

struct MHD_Connection;

namespace zcam {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string method;
    std::string version; // "HTTP/1.1"
    std::string path;                         // decoded, without the query
    std::map<std::string, std::string> query; // decoded arguments
    HeaderList headers;                       // as sent
    std::string body;
    std::string peer; // the client's address
    bool tls = false;

    // The value of a header, whatever the case of its name; "" when absent.
    std::string header(const std::string &name) const;
    bool has_arg(const std::string &name) const { return query.count(name) != 0; }
    std::string arg(const std::string &name) const;
};

struct HttpResponse {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    // A body shared with other answers (a picture many ask for), sent
    // without a copy; when set, `body` is not used.
    std::shared_ptr<const std::string> shared_body;
    HeaderList headers;
};

// {"error": message} as JSON text, quoted and escaped: a message can carry
// GStreamer's error text, which quotes element names.
std::string json_error_body(const std::string &message);
// An answer of `status` with that body.
HttpResponse json_error_response(int status, const std::string &message);

// Where an endless answer comes from.
class StreamSource {
public:
    virtual ~StreamSource() = default;
    // Copies up to `max` bytes of the answer to `out`: the count, 0 when
    // there is nothing to send now (the exchange then waits for wake()),
    // or -1 when the answer is complete. Runs on the server's thread and
    // must not block.
    virtual long read(char *out, size_t max) = 0;
    // The answer ended: the client went away, the source ended it, or the
    // server is stopping. Called once.
    virtual void ended() {}
};

class HttpExchange : public std::enable_shared_from_this<HttpExchange> {
public:
    explicit HttpExchange(HttpRequest request);
    HttpExchange(const HttpExchange &) = delete;
    HttpExchange &operator=(const HttpExchange &) = delete;

    const HttpRequest &request() const { return request_; }
    // Answers the request, once, from any thread; later answers are ignored,
    // as are answers to a request whose client is gone.
    void reply(HttpResponse response);
    // Answers with an endless body pulled from `source`.
    void stream(int status, const std::string &type, HeaderList headers, std::shared_ptr<StreamSource> source);
    // The stream's source has more to send.
    void wake();
    bool answered() const;

private:
    friend class HttpDaemon;
    enum class State { InRoute, Parked, Answered, StreamRunning, StreamParked, Finished };

    void queue_locked(HttpResponse response);
    void queue_stream_locked();
    // libmicrohttpd's reader of an endless answer, and its release.
    static ssize_t read_stream(void *exchange, uint64_t position, char *out, size_t max);
    static void release_stream(void *exchange);
    ssize_t pull(char *out, size_t max);
    // The route has returned: queue what it answered, or park the connection.
    void route_returned();
    // The server is stopping: a parked request gets 503, a stream ends.
    void abandon();
    // Ends a stream that waits for its source if its client has hung up.
    void end_if_client_left();
    // The server is done with the connection. Returns the stream's source to
    // be told outside the lock.
    std::shared_ptr<StreamSource> finish();

    HttpRequest request_;
    mutable std::mutex mutex_;
    State state_ = State::InRoute;
    MHD_Connection *connection_ = nullptr;
    int socket_ = -1; // the connection's, open while the exchange is the server's
    std::optional<HttpResponse> pending_;
    struct PendingStream {
        int status;
        std::string type;
        HeaderList headers;
    };
    std::optional<PendingStream> pending_stream_;
    std::shared_ptr<StreamSource> source_;
    bool stopping_ = false;
    bool client_left_ = false;
    // For the access log.
    int status_ = 0;
    uint64_t bytes_ = 0;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

} // namespace zcam

#endif
