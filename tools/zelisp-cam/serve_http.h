/*
 * serve_http.h - the web console's HTTP side: the page, the JSON API, the
 * previews and MJPEG streams, and the rules every request passes (token,
 * Host and same-origin checks, body limit, stream limit).
 */
#ifndef ZELISP_CAM_SERVE_HTTP_H
#define ZELISP_CAM_SERVE_HTTP_H

#include <memory>
#include <string>

#include "serve_hub.h"

namespace zcam {

class ConsoleServer {
public:
    ConsoleServer(CameraHub &hub, const ServeOptions &options);
    ~ConsoleServer();

    // Binds the listening socket; "" or why it could not. *port receives
    // the port (the one the system chose when asked for port 0).
    std::string bind(const std::string &host, int port, int *bound_port);
    // Serves until stop() is called.
    void serve();
    // Ends serve(): safe from any thread.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The largest request body the console accepts (a control's JSON value).
constexpr size_t kMaxBodyBytes = 4096;

} // namespace zcam

#endif
