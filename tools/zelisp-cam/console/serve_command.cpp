// serve_command.cpp - "zelisp-cam serve": the web console's options, checked
// and completed before the console starts.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>

#include "commands.h"
#include "console.h"
#include "console_token.h"
#include "tool_errors.h"

namespace zcam {
namespace {

struct ServeArguments {
    ServeOptions options;
    std::vector<std::string> trigger;
    std::string token, token_file, webrtc_ports;
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

bool parse_ports(const std::string &text, unsigned *low, unsigned *high)
{
    size_t dash = text.find('-');
    std::string first = text.substr(0, dash), last = dash == std::string::npos ? "" : text.substr(dash + 1);
    auto number = [](const std::string &digits, unsigned *value) {
        if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos)
            return false;
        *value = unsigned(std::stoul(digits));
        return *value >= 1024 && *value <= 65535;
    };
    return number(first, low) && number(last, high) && *low <= *high;
}

// The token: --token-file, else $ZELISP_CAM_TOKEN, else --token (with a
// warning: every user sees a command line). None given on an address
// other than loopback: one is made for this run.
int settle_token(ServeArguments &arguments)
{
    ServeOptions &options = arguments.options;
    const char *variable = getenv(kTokenVariable);
    int sources = !arguments.token_file.empty() + (variable && *variable) + !arguments.token.empty();
    if (sources > 1)
        return report_usage(std::string("give the token one way only: --token-file, $") + kTokenVariable +
                            " or --token");
    if (!arguments.token_file.empty()) {
        std::string error = read_token_file(arguments.token_file, &options.token);
        if (!error.empty())
            return report_usage("cannot read the token from " + arguments.token_file + ": " + error);
        struct stat info{};
        if (stat(arguments.token_file.c_str(), &info) == 0 && (info.st_mode & 077) != 0)
            report_warning(arguments.token_file + " can be read by other users: chmod 600 it");
    } else if (variable && *variable) {
        options.token = variable;
    } else if (!arguments.token.empty()) {
        options.token = arguments.token;
    }
    if (!options.token.empty()) {
        std::string error = check_token(options.token);
        if (!error.empty())
            return report_usage(error);
        if (!arguments.token.empty())
            report_warning(std::string("--token shows the token to every user of this machine (ps); use "
                                       "--token-file or $") + kTokenVariable);
        return kExitOk;
    }
    if (!is_loopback_address(options.host)) {
        options.token = generate_token();
        options.token_generated = true;
    }
    return kExitOk;
}

int check_trusted_origins(const std::vector<std::string> &origins)
{
    for (const std::string &origin : origins) {
        bool scheme = origin.rfind("https://", 0) == 0 || origin.rfind("http://", 0) == 0;
        std::string rest = scheme ? origin.substr(origin.find("://") + 3) : "";
        if (!scheme || rest.empty() || rest.find_first_of("/?#") != std::string::npos)
            return report_usage("--trusted-proxy takes the origin the browser sees, such as https://cam.example.com "
                                "(scheme and host, no path): '" + origin + "'");
    }
    return kExitOk;
}

int run_serve(ServeArguments &arguments)
{
    ServeOptions &options = arguments.options;
    if (!parse_listen(options.listen, &options.host, &options.port))
        return report_usage("--listen takes ADDR:PORT, for example 0.0.0.0:8080 (port 0: any free port)");
    int status = settle_token(arguments);
    if (status == kExitOk)
        status = check_trusted_origins(options.trusted_origins);
    if (status != kExitOk)
        return status;
    if (options.tls_certificate.empty() != options.tls_key.empty())
        return report_usage("--tls-cert and --tls-key go together");
    if (!arguments.webrtc_ports.empty() &&
        !parse_ports(arguments.webrtc_ports, &options.webrtc_min_port, &options.webrtc_max_port))
        return report_usage("--webrtc-ports takes MIN-MAX, UDP ports 1024..65535, for example 50000-50100");
    HubOptions &hub = options.hub;
    if (hub.cameras.size() > 8 && hub.group)
        return report_usage("a group takes at most 8 cameras");
    if (std::set<int>(hub.cameras.begin(), hub.cameras.end()).size() != hub.cameras.size())
        return report_usage("a camera is named twice in --cameras");
    std::sort(hub.views.begin(), hub.views.end());
    hub.views.erase(std::unique(hub.views.begin(), hub.views.end()), hub.views.end());
    if (hub.views.empty())
        return report_usage("--views needs at least one view");
    if (!arguments.trigger.empty()) {
        TriggerSetting trigger;
        std::string error;
        if (!parse_trigger(arguments.trigger, &trigger, &error))
            return report_usage(error);
        hub.trigger = trigger;
    }

    // SIGINT and SIGTERM are taken by the main thread with sigwait, so every
    // thread the console starts begins with them blocked.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN); // a viewer gone mid-write is an error return, not the end of the console
    Console console(options);
    return console.run();
}

} // namespace

void add_serve_command(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<ServeArguments>();
    ServeOptions &options = arguments->options;
    CLI::App *serve = app.add_subcommand(
        "serve", "Serve a web console: live views of every camera (MJPEG and WebRTC), tuning, timing, events, and "
                 "a JSON API.");
    serve->add_option("--listen", options.listen,
                      "Address and port to listen on; beyond loopback the console needs a token (one is made "
                      "when none is given)")
        ->type_name("ADDR:PORT")
        ->capture_default_str();
    serve->add_option("--cameras", options.hub.cameras, "Camera numbers, comma separated (default: the platform's list)")
        ->type_name("N[,N...]")
        ->delimiter(',')
        ->check(CLI::Range(0, 11));
    serve->add_flag("--group", options.hub.group, "Drive the cameras as one group and show the frame-set skew");
    serve->add_option("--trigger", arguments->trigger,
                      "MIPI trigger mode: internal|external, then up to three parameters (default 0 0 0)")
        ->expected(1, 4)
        ->type_name("MODE [P1 P2 P3]");
    serve->add_option("--views", options.hub.views, "Views to enable, comma separated")
        ->type_name("V[,V...]")
        ->delimiter(',')
        ->check(CLI::Range(0, 2))
        ->capture_default_str();
    serve->add_option("--token-file", arguments->token_file,
                      std::string("File whose first line is the secret every request must carry (or set $") +
                          kTokenVariable + ")")
        ->type_name("FILE");
    serve->add_option("--token", arguments->token,
                      "The secret on the command line, where every user of the machine can read it: prefer "
                      "--token-file")
        ->type_name("TOKEN");
    serve->add_option("--allow-host", options.allowed_hosts,
                      "Another name the browser may use for this board in its Host header (repeatable)")
        ->type_name("NAME[:PORT]");
    serve->add_option("--trusted-proxy", options.trusted_origins,
                      "The origin of a TLS reverse proxy in front of the console, whose pages may change settings")
        ->type_name("https://NAME[:PORT]");
    serve->add_option("--tls-cert", options.tls_certificate, "Serve HTTPS with this PEM certificate (chain)")
        ->type_name("FILE");
    serve->add_option("--tls-key", options.tls_key, "The PEM private key of --tls-cert")->type_name("FILE");
    serve->add_option("--access-log", options.access_log,
                      "Write one line per request to FILE (\"-\": standard output); tokens are never written")
        ->type_name("FILE");
    serve->add_option("--buffers", options.hub.buffers, "Capture buffers per camera")
        ->check(CLI::Range(3, 8))
        ->capture_default_str();
    serve->add_option("--max-streams", options.max_streams,
                      "MJPEG streams and WebRTC viewers served at once (503 beyond)")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    serve->add_option("--max-connections", options.max_connections, "Connections served at once, in all")
        ->check(CLI::Range(16, 10000))
        ->capture_default_str();
    serve->add_option("--max-connections-per-address", options.max_per_address,
                      "Connections served at once from one client address")
        ->check(CLI::Range(8, 10000))
        ->capture_default_str();
    serve->add_option("--command-timeout", options.command_timeout_ms,
                      "How long a request waits for the capture thread before it is withdrawn, in ms")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    serve->add_option("--preview-width", options.preview_width, "Widest tile picture in pixels")
        ->check(CLI::Range(64, 1920))
        ->capture_default_str();
    serve->add_option("--quality", options.quality, "JPEG quality of the tiles and MJPEG streams")
        ->check(CLI::Range(10, 100))
        ->capture_default_str();
    serve->add_option("--webrtc-address", options.webrtc_addresses,
                      "An address for WebRTC's host candidates (repeatable; default: the --listen address, or "
                      "every interface's)")
        ->type_name("ADDR");
    serve->add_option("--webrtc-ports", arguments->webrtc_ports, "The UDP ports WebRTC may use (default: any)")
        ->type_name("MIN-MAX");
    serve->add_option("--webrtc-bitrate", options.webrtc_bitrate_kbps, "H.264 bit rate of a WebRTC view, in kbit/s")
        ->check(CLI::Range(100, 50000))
        ->capture_default_str();
    serve->callback([arguments, status] { *status = run_serve(*arguments); });
}

} // namespace zcam
