/*
 * serve_options.h - what "zelisp-cam serve" is told on its command line,
 * checked and completed (the token read from its file or the environment,
 * or made up) before anything is opened.
 */
#ifndef ZELISP_CAM_CONSOLE_SERVE_OPTIONS_H
#define ZELISP_CAM_CONSOLE_SERVE_OPTIONS_H

#include <string>
#include <vector>

#include "camera_hub.h"

namespace zcam {

struct ServeOptions {
    HubOptions hub;
    std::string listen = "127.0.0.1:8080";
    std::string host = "127.0.0.1"; // from --listen
    int port = 8080;
    std::string token;
    bool token_generated = false;
    std::vector<std::string> allowed_hosts;
    std::vector<std::string> trusted_origins;
    std::string tls_certificate, tls_key;
    std::string access_log;
    int max_streams = 8;
    int preview_width = 640;
    int quality = 75;
    unsigned max_connections = 1000;
    unsigned max_per_address = 64;
    int command_timeout_ms = 5000;
    std::vector<std::string> webrtc_addresses;
    unsigned webrtc_min_port = 0, webrtc_max_port = 0;
    unsigned webrtc_bitrate_kbps = 4000;
};

// Listening beyond loopback: on anything but a loopback address.
bool is_loopback_address(const std::string &host);

} // namespace zcam

#endif
