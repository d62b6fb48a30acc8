// http_exchange.cpp - answering a request now or later, and feeding an
// endless answer, on libmicrohttpd's suspend and resume.
//
// libmicrohttpd lets a response be queued by the event loop thread while it
// runs the route, or by any thread once the connection is suspended. So an
// answer given while the route still runs is kept for the loop to queue
// when the route returns; one given later finds the connection parked
// (suspended), queues it and resumes the connection. The exchange's mutex
// orders the two. A stream's source is read under the same mutex, so a
// wake() that comes while the reader finds nothing waits until the
// connection is parked, and then resumes it: no wake is lost.
#include "http_exchange.h"

#include <microhttpd.h>
#include <poll.h>

#include <algorithm>
#include <cctype>

#include <nlohmann/json.hpp>

namespace zcam {

std::string json_error_body(const std::string &message) { return nlohmann::json{{"error", message}}.dump(); }

HttpResponse json_error_response(int status, const std::string &message)
{
    HttpResponse response;
    response.status = status;
    response.body = json_error_body(message);
    return response;
}

namespace {

constexpr size_t kStreamBlock = 64 * 1024;

bool same_name(const std::string &a, const std::string &b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

HttpResponse stopping_response()
{
    HttpResponse response;
    response.status = 503;
    response.body = R"({"error":"the console is stopping"})";
    return response;
}

void add_headers(MHD_Response *response, const HeaderList &headers)
{
    for (const auto &[name, value] : headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
}

} // namespace

std::string HttpRequest::header(const std::string &name) const
{
    for (const auto &[key, value] : headers)
        if (same_name(key, name))
            return value;
    return "";
}

std::string HttpRequest::arg(const std::string &name) const
{
    auto it = query.find(name);
    return it == query.end() ? "" : it->second;
}

HttpExchange::HttpExchange(HttpRequest request) : request_(std::move(request)) {}

bool HttpExchange::answered() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return state_ != State::InRoute && state_ != State::Parked;
}

void HttpExchange::reply(HttpResponse response)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::InRoute) {
        if (!pending_ && !pending_stream_)
            pending_ = std::move(response);
    } else if (state_ == State::Parked) {
        queue_locked(std::move(response));
        MHD_resume_connection(connection_);
    }
    // Otherwise answered already, or the client is gone.
}

void HttpExchange::stream(int status, const std::string &type, HeaderList headers,
                          std::shared_ptr<StreamSource> source)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (pending_ || pending_stream_ || (state_ != State::InRoute && state_ != State::Parked))
        return;
    headers.emplace_back(MHD_HTTP_HEADER_CONTENT_TYPE, type);
    pending_stream_ = PendingStream{status, type, std::move(headers)};
    source_ = std::move(source);
    if (state_ == State::Parked) {
        queue_stream_locked();
        MHD_resume_connection(connection_);
    }
}

void HttpExchange::wake()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::StreamParked) {
        state_ = State::StreamRunning;
        MHD_resume_connection(connection_);
    }
}

void HttpExchange::queue_locked(HttpResponse response)
{
    state_ = State::Answered;
    status_ = response.status;
    MHD_Response *answer = nullptr;
    if (response.shared_body) {
        // The response keeps the shared body alive until it is sent.
        auto *holder = new std::shared_ptr<const std::string>(std::move(response.shared_body));
        bytes_ = (*holder)->size();
        answer = MHD_create_response_from_buffer_with_free_callback_cls(
            (*holder)->size(), const_cast<char *>((*holder)->data()),
            [](void *body) { delete static_cast<std::shared_ptr<const std::string> *>(body); }, holder);
        if (answer == nullptr)
            delete holder;
    } else {
        bytes_ = response.body.size();
        answer = MHD_create_response_from_buffer(response.body.size(), response.body.data(), MHD_RESPMEM_MUST_COPY);
    }
    if (answer == nullptr)
        return;
    if (response.status != 204 && response.status != 303)
        MHD_add_response_header(answer, MHD_HTTP_HEADER_CONTENT_TYPE, response.type.c_str());
    add_headers(answer, response.headers);
    MHD_queue_response(connection_, unsigned(response.status), answer);
    MHD_destroy_response(answer);
}

void HttpExchange::queue_stream_locked()
{
    state_ = State::StreamRunning;
    status_ = pending_stream_->status;
    // The response holds the exchange until libmicrohttpd releases it.
    auto *holder = new std::shared_ptr<HttpExchange>(shared_from_this());
    MHD_Response *answer =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlock, read_stream, holder, release_stream);
    if (answer == nullptr) {
        delete holder;
        return;
    }
    add_headers(answer, pending_stream_->headers);
    MHD_queue_response(connection_, unsigned(pending_stream_->status), answer);
    MHD_destroy_response(answer);
    pending_stream_.reset();
}

ssize_t HttpExchange::read_stream(void *exchange, uint64_t, char *out, size_t max)
{
    return (*static_cast<std::shared_ptr<HttpExchange> *>(exchange))->pull(out, max);
}

void HttpExchange::release_stream(void *exchange)
{
    delete static_cast<std::shared_ptr<HttpExchange> *>(exchange);
}

ssize_t HttpExchange::pull(char *out, size_t max)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || client_left_ || state_ == State::Finished)
        return MHD_CONTENT_READER_END_OF_STREAM;
    long count = source_->read(out, max);
    if (count < 0)
        return MHD_CONTENT_READER_END_OF_STREAM;
    if (count > 0) {
        bytes_ += uint64_t(count);
        return count;
    }
    // Nothing to send: park until the source wakes us (libmicrohttpd asks
    // again once the connection is resumed).
    MHD_suspend_connection(connection_);
    state_ = State::StreamParked;
    return 0;
}

void HttpExchange::route_returned()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (pending_) {
        queue_locked(std::move(*pending_));
    } else if (pending_stream_) {
        queue_stream_locked();
    } else if (stopping_) {
        queue_locked(stopping_response());
    } else {
        MHD_suspend_connection(connection_);
        state_ = State::Parked;
    }
}

void HttpExchange::abandon()
{
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    if (state_ == State::Parked) {
        queue_locked(stopping_response());
        MHD_resume_connection(connection_);
    } else if (state_ == State::StreamParked) {
        state_ = State::StreamRunning;
        MHD_resume_connection(connection_); // the reader then ends the stream
    }
}

// libmicrohttpd does not watch a suspended connection, so a client that
// hangs up on a stream waiting for its next picture is noticed only when
// that picture comes, which may be never (a stopped or unplugged camera):
// until then it would hold its stream slot and its socket. The socket tells
// at once: the peer's end of sending shows as POLLRDHUP even behind unread
// bytes (a TLS client's closing alert).
void HttpExchange::end_if_client_left()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::StreamParked || socket_ < 0)
        return;
    pollfd look{socket_, POLLRDHUP, 0};
    if (poll(&look, 1, 0) <= 0 || (look.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0)
        return;
    client_left_ = true;
    state_ = State::StreamRunning;
    MHD_resume_connection(connection_); // the reader then ends the stream
}

std::shared_ptr<StreamSource> HttpExchange::finish()
{
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = State::Finished;
    connection_ = nullptr;
    socket_ = -1;
    pending_.reset();
    pending_stream_.reset();
    return std::move(source_);
}

} // namespace zcam
