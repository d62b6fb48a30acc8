// console.cpp - starting, serving and stopping the web console.
#include "console.h"

#include <arpa/inet.h>
#include <gst/gst.h>
#include <netdb.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <sstream>

#include "console_routes.h"
#include "tool_errors.h"

namespace zcam {

namespace {

constexpr int kExitUnavailable = 69; // EX_UNAVAILABLE: the address cannot be listened on
constexpr unsigned kPictureThreads = 2;

// Every connection is a descriptor: allow as many as the hard limit lets us.
void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

std::string read_file(const std::string &path, std::string *text)
{
    std::ifstream file(path);
    if (!file)
        return strerror(errno);
    std::stringstream content;
    content << file.rdbuf();
    *text = content.str();
    return "";
}

std::string shown_host(const std::string &host)
{
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

} // namespace

bool is_loopback_address(const std::string &host)
{
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1)
        return (ntohl(v4.s_addr) >> 24) == 127;
    return host == "::1" || host == "localhost";
}

Console::Console(ServeOptions given) : options(std::move(given)) {}

Console::~Console()
{
    stop_all();
}

PreviewFeed *Console::feed(int camera, int view, bool full) const
{
    auto it = feeds_.find({camera, view, full});
    return it == feeds_.end() ? nullptr : it->second.get();
}

SnapshotDesk *Console::desk(int camera, int view) const
{
    auto it = desks_.find({camera, view});
    return it == desks_.end() ? nullptr : it->second.get();
}

// A bound, listening socket on --listen: "port 0" takes any free port.
int Console::listen_socket(int *fd)
{
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    std::string port = std::to_string(options.port);
    int error = getaddrinfo(options.host.c_str(), port.c_str(), &hints, &found);
    if (error != 0) {
        fprintf(stderr, "zelisp-cam: cannot listen on %s: %s\n", options.listen.c_str(), gai_strerror(error));
        return kExitUnavailable;
    }
    *fd = socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, 0);
    int one = 1;
    if (*fd >= 0)
        setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (*fd < 0 || bind(*fd, found->ai_addr, found->ai_addrlen) != 0 || listen(*fd, 128) != 0) {
        int why = errno;
        freeaddrinfo(found);
        if (*fd >= 0)
            ::close(*fd);
        fprintf(stderr, "zelisp-cam: cannot listen on %s: %s\n", options.listen.c_str(), strerror(why));
        return kExitUnavailable;
    }
    freeaddrinfo(found);
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(*fd, reinterpret_cast<sockaddr *>(&bound), &length);
    options.port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
                                                     : reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
    return kExitOk;
}

// A preview feed at the tile size and one at the view's own size, and a
// snapshot desk, for each camera's views.
void Console::make_pictures()
{
    for (const CameraHub::CameraLayout &camera : hub.layout())
        for (const CameraHub::ViewLayout &view : camera.views) {
            for (bool full : {false, true}) {
                uint32_t width = full ? 65535 : uint32_t(options.preview_width);
                auto feed = std::make_shared<PreviewFeed>(camera.camera, view.view, width, options.quality, workers,
                                                          timers);
                feeds_[{camera.camera, view.view, full}] = feed;
                workers.enlist(feed);
                hub.attach(camera.camera, view.view, feed);
            }
            auto desk = std::make_shared<SnapshotDesk>(camera.camera, view.view, workers, timers);
            desks_[{camera.camera, view.view}] = desk;
            workers.enlist(desk);
            hub.attach(camera.camera, view.view, desk);
        }
}

int Console::run()
{
    raise_descriptor_limit();
    gst_init(nullptr, nullptr);
    std::optional<TlsCredentials> tls;
    if (!options.tls_certificate.empty()) {
        tls.emplace();
        std::string error = read_file(options.tls_certificate, &tls->certificate_pem);
        if (error.empty())
            error = read_file(options.tls_key, &tls->key_pem);
        if (!error.empty())
            return report_usage("cannot read the TLS certificate or key: " + error);
    }
    if (!options.access_log.empty()) {
        std::string error = access_log.open(options.access_log);
        if (!error.empty())
            return report_output_failure(options.access_log, error);
    }
    int listener = -1;
    int status = listen_socket(&listener);
    if (status != kExitOk)
        return status;
    events.start();
    status = hub.start();
    if (status != kExitOk) {
        ::close(listener);
        return status;
    }
    make_pictures();

    AccessPolicy policy;
    policy.token = options.token;
    policy.listen_address = options.host;
    policy.port = options.port;
    policy.tls = tls.has_value();
    policy.allowed_hosts = options.allowed_hosts;
    policy.trusted_origins = options.trusted_origins;
    rules = std::make_unique<AccessRules>(policy);

    WebRtcSettings video;
    video.bitrate_kbps = options.webrtc_bitrate_kbps;
    video.addresses = options.webrtc_addresses;
    if (video.addresses.empty() && options.host != "0.0.0.0" && options.host != "::")
        video.addresses.push_back(options.host); // where the page reached us
    // The live view may run as the console's other threads do when the
    // capture thread runs ahead of them; else below it, with the pictures.
    video.niceness = hub.priority_raised() ? 0 : kPictureNiceness;
    video.min_port = options.webrtc_min_port;
    video.max_port = options.webrtc_max_port;
    webrtc = std::make_unique<WebRtcViewers>(hub, timers, events, slots, choose_encoder(video));

    routes_ = std::make_unique<ConsoleRoutes>(*this);
    HttpLimits limits;
    limits.max_connections = options.max_connections;
    limits.max_per_address = options.max_per_address;
    limits.body_limit = [this](const std::string &method, const std::string &path) {
        return routes_->body_limit(method, path);
    };
    server = std::make_unique<HttpServer>(
        limits, [this](const std::shared_ptr<HttpExchange> &exchange) { routes_->route(exchange); }, timers,
        options.access_log.empty() ? nullptr : &access_log,
        [this](const std::string &notice) { events.note("warning", notice); });
    std::string error = server->start(listener, tls);
    if (!error.empty()) {
        fprintf(stderr, "zelisp-cam: cannot serve on %s: %s\n", options.listen.c_str(), error.c_str());
        stop_all();
        return kExitUnavailable;
    }

    std::string base = std::string(tls ? "https://" : "http://") + shown_host(options.host) + ":" +
                       std::to_string(options.port) + "/";
    if (options.token_generated)
        printf("zelisp-cam: this run's token (the console listens beyond loopback): open %slogin?token=%s\n",
               base.c_str(), options.token.c_str());
    printf("zelisp-cam: serving %zu camera%s on %s%s\n", hub.cameras().size(), hub.cameras().size() == 1 ? "" : "s",
           base.c_str(), options.token.empty() || options.token_generated ? "" : " (open /login?token=TOKEN first)");
    fflush(stdout);
    if (!hub.priority_raised())
        events.note("warning", "the capture thread runs at the priority of the console's other threads: the "
                               "system refused a higher one (it needs root or CAP_SYS_NICE)");
    events.note("info", "serving on " + base + "; video for WebRTC: " +
                            (webrtc->settings().encoder.empty()
                                 ? std::string("none (no H.264 encoder)")
                                 : webrtc->settings().encoder + (webrtc->settings().hardware ? " (hardware)" : " (software)")));

    // SIGINT and SIGTERM are blocked in every thread (serve_command.cpp):
    // this thread takes them here.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    int signal = 0;
    sigwait(&stop_signals, &signal);
    // A second Ctrl-C does not wait for a clean stop.
    std::thread([stop_signals]() mutable {
        int again = 0;
        sigwait(&stop_signals, &again);
        fprintf(stderr, "zelisp-cam: stopped at once, without closing the cameras\n");
        _exit(128 + again);
    }).detach();
    stop_all();
    printf("zelisp-cam: stopped; every camera closed\n");
    return kExitOk;
}

// In the reverse order of the start: no request is answered once the
// server is gone, no timer fires into a stopped part, no frame is taken
// once the taps are gone.
void Console::stop_all()
{
    if (server)
        server->stop();
    timers.stop();
    if (webrtc)
        webrtc->stop();
    hub.stop();
    workers.stop();
    events.stop();
    access_log.close();
}

} // namespace zcam
