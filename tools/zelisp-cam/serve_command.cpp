// serve_command.cpp - "zelisp-cam serve": the web console's options, and
// its run from the listening socket to a clean stop on Ctrl-C.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <thread>

#include "commands.h"
#include "serve_http.h"
#include "tool_errors.h"

namespace zcam {
namespace {

constexpr int kExitUnavailable = 69; // EX_UNAVAILABLE: the address cannot be listened on

struct ServeArguments {
    ServeOptions options;
    std::vector<std::string> trigger;
};

// ADDR:PORT, [IPV6]:PORT or :PORT (loopback).
bool parse_listen(const std::string &text, std::string *host, int *port)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    *host = text.substr(0, colon);
    if (host->size() >= 2 && host->front() == '[' && host->back() == ']')
        *host = host->substr(1, host->size() - 2);
    if (host->empty())
        *host = "127.0.0.1";
    std::string digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *port = std::stoi(digits);
    return *port <= 65535;
}

bool loopback(const std::string &host)
{
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

int run_serve(ServeArguments &arguments)
{
    ServeOptions &options = arguments.options;
    std::string host;
    int port = 0;
    if (!parse_listen(options.listen, &host, &port))
        return report_usage("--listen takes ADDR:PORT, for example 0.0.0.0:8080 (port 0: any free port)");
    if (!loopback(host) && options.token.empty())
        return report_usage("--token is needed to listen on " + host +
                            ": every request from the network must carry it");
    if (options.token.find_first_of(" ;,\"\\") != std::string::npos)
        return report_usage("--token may not contain spaces, ';', ',', '\"' or '\\'");
    if (options.cameras.size() > 8 && options.group)
        return report_usage("a group takes at most 8 cameras");
    if (std::set<int>(options.cameras.begin(), options.cameras.end()).size() != options.cameras.size())
        return report_usage("a camera is named twice in --cameras");
    std::sort(options.views.begin(), options.views.end());
    options.views.erase(std::unique(options.views.begin(), options.views.end()), options.views.end());
    if (options.views.empty())
        return report_usage("--views needs at least one view");
    if (!arguments.trigger.empty()) {
        TriggerSetting trigger;
        std::string error;
        if (!parse_trigger(arguments.trigger, &trigger, &error))
            return report_usage(error);
        options.trigger = trigger;
    }

    // Ctrl-C is taken by a thread of its own (below), so every other thread
    // starts with it blocked; the capture thread never sleeps long, so it
    // needs no signal to notice the stop.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    CameraHub hub(options);
    ConsoleServer server(hub, options);
    int bound = 0;
    std::string error = server.bind(host, port, &bound);
    if (!error.empty()) {
        fprintf(stderr, "zelisp-cam: cannot listen on %s: %s\n", options.listen.c_str(), error.c_str());
        return kExitUnavailable;
    }
    int status = hub.start();
    if (status != kExitOk)
        return status;

    std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    printf("zelisp-cam: serving %zu camera%s on http://%s:%d/%s\n", hub.cameras().size(),
           hub.cameras().size() == 1 ? "" : "s", shown.c_str(), bound,
           options.token.empty() ? "" : " (open /login?token=TOKEN first)");
    fflush(stdout);

    std::thread waiter([&server, &stop_signals] {
        int signal = 0;
        sigwait(&stop_signals, &signal);
        server.stop();
    });
    server.serve();
    // serve() ends only through stop(): the waiter has its signal.
    waiter.join();
    hub.stop();
    printf("zelisp-cam: stopped; every camera closed\n");
    return kExitOk;
}

} // namespace

void add_serve_command(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<ServeArguments>();
    ServeOptions &options = arguments->options;
    CLI::App *serve = app.add_subcommand(
        "serve", "Serve a web console: live previews of every camera, tuning and timing, and a JSON API.");
    serve->add_option("--listen", options.listen,
                      "Address and port to listen on; an address other than loopback needs --token")
        ->type_name("ADDR:PORT")
        ->capture_default_str();
    serve->add_option("--cameras", options.cameras, "Camera numbers, comma separated (default: the platform's list)")
        ->type_name("N[,N...]")
        ->delimiter(',')
        ->check(CLI::Range(0, 11));
    serve->add_flag("--group", options.group, "Drive the cameras as one group and show the frame-set skew");
    serve->add_option("--trigger", arguments->trigger,
                      "MIPI trigger mode: internal|external, then up to three parameters (default 0 0 0)")
        ->expected(1, 4)
        ->type_name("MODE [P1 P2 P3]");
    serve->add_option("--views", options.views, "Views to enable, comma separated")
        ->type_name("V[,V...]")
        ->delimiter(',')
        ->check(CLI::Range(0, 2))
        ->capture_default_str();
    serve->add_option("--token", options.token,
                      "Secret every request must carry (header X-Zelisp-Token, or the cookie /login?token= sets)")
        ->type_name("TOKEN");
    serve->add_option("--buffers", options.buffers, "Capture buffers per camera")
        ->check(CLI::Range(3, 8))
        ->capture_default_str();
    serve->add_option("--max-streams", options.max_streams, "Endless MJPEG streams served at once (503 beyond)")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    serve->add_option("--preview-width", options.preview_width, "Widest preview in pixels")
        ->check(CLI::Range(64, 1920))
        ->capture_default_str();
    serve->add_option("--quality", options.quality, "JPEG quality of the previews")
        ->check(CLI::Range(10, 100))
        ->capture_default_str();
    serve->callback([arguments, status] { *status = run_serve(*arguments); });
}

} // namespace zcam
