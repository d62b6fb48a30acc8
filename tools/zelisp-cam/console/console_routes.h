/*
 * console_routes.h - what each path of the console answers: the page and
 * the login (console_routes.cpp), the JSON API (api_routes.cpp), previews,
 * streams and snapshots (picture_routes.cpp), and WHEP (whep_routes.cpp).
 * Every request passes the access rules first. A route never waits: what
 * needs the capture thread or a picture worker answers later.
 */
#ifndef ZELISP_CAM_CONSOLE_CONSOLE_ROUTES_H
#define ZELISP_CAM_CONSOLE_CONSOLE_ROUTES_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "http_exchange.h"

namespace zcam {

class Console;

using Exchange = std::shared_ptr<HttpExchange>;
using Segments = std::vector<std::string>;

HttpResponse json_response(int status, const nlohmann::json &body);
HttpResponse error_response(int status, const std::string &message, nlohmann::json extra = nlohmann::json::object());

class ConsoleRoutes {
public:
    explicit ConsoleRoutes(Console &console);

    void route(const Exchange &exchange);
    // The largest body a request may carry: an SDP offer is larger than a
    // control's JSON.
    size_t body_limit(const std::string &method, const std::string &path) const;

private:
    using Handler = void (ConsoleRoutes::*)(const Exchange &, const Segments &);
    struct Route {
        const char *method;
        const char *pattern; // "/api/cameras/*/controls/*": * is one segment
        Handler handler;
        bool needs_token;
    };
    const Route *find(const std::string &method, const Segments &segments, std::string *allowed) const;

    // console_routes.cpp
    void get_file(const Exchange &exchange, const Segments &segments);
    void login(const Exchange &exchange, const Segments &segments);
    void logout(const Exchange &exchange, const Segments &segments);
    // api_routes.cpp
    void get_cameras(const Exchange &exchange, const Segments &segments);
    void get_camera(const Exchange &exchange, const Segments &segments);
    void put_control(const Exchange &exchange, const Segments &segments);
    void put_running(const Exchange &exchange, const Segments &segments);
    void put_view(const Exchange &exchange, const Segments &segments);
    void get_stats(const Exchange &exchange, const Segments &segments);
    void get_events(const Exchange &exchange, const Segments &segments);
    // picture_routes.cpp
    void get_preview(const Exchange &exchange, const Segments &segments);
    void get_stream(const Exchange &exchange, const Segments &segments);
    void get_snapshot(const Exchange &exchange, const Segments &segments);
    // whep_routes.cpp
    void post_whep(const Exchange &exchange, const Segments &segments);
    void delete_whep(const Exchange &exchange, const Segments &segments);

    // Helpers shared by the routes.
    bool camera_of(const Exchange &exchange, const std::string &text, int *camera) const;
    bool view_of(const Exchange &exchange, int camera, const std::string &text, int *view) const;
    // Runs `work` on the capture thread and answers with what it returns;
    // 503 when the queue is full or the thread does not take it in time
    // (it is then withdrawn and never runs). `what` names it in the events.
    void on_capture_thread(const Exchange &exchange, const std::string &what, std::function<HttpResponse()> work);
    nlohmann::json camera_json(int camera) const;
    void note_wrong_token(const std::string &peer);

    Console &console_;
    std::vector<Route> routes_;
    std::mutex set_only_mutex_;
    std::map<std::pair<int, std::string>, nlohmann::json> set_only_; // values of the set-only controls last sent
    std::mutex wrong_tokens_mutex_;
    std::chrono::steady_clock::time_point last_wrong_token_line_;
    bool wrong_token_noted_ = false;
    unsigned wrong_tokens_not_noted_ = 0;
};

} // namespace zcam

#endif
