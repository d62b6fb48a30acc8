// console_routes.cpp - the console's routing, the page, the login, and the
// helpers the routes share.
#include "console_routes.h"

#include <algorithm>

#include "console.h"
#include "console_token.h"
#include "web_files.h"

namespace zcam {

using nlohmann::json;

namespace {

constexpr size_t kOfferBytes = 64 * 1024; // a browser's SDP offer is a few kilobytes

Segments split_path(const std::string &path)
{
    Segments segments;
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        segments.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return segments;
}

// Matches one segment against "*", "*.ext" or a literal; a star's text
// (without the extension) goes to `captured`.
bool segment_matches(const std::string &pattern, const std::string &segment, Segments *captured)
{
    if (pattern.empty() || pattern[0] != '*')
        return pattern == segment;
    std::string suffix = pattern.substr(1);
    if (segment.size() <= suffix.size() || segment.compare(segment.size() - suffix.size(), suffix.size(), suffix) != 0)
        return false;
    captured->push_back(segment.substr(0, segment.size() - suffix.size()));
    return true;
}

// x-www-form-urlencoded: '+' is a blank, %XX a byte.
std::string form_value(const std::string &body, const std::string &name)
{
    size_t pos = 0;
    while (pos <= body.size()) {
        size_t end = body.find('&', pos);
        if (end == std::string::npos)
            end = body.size();
        std::string item = body.substr(pos, end - pos);
        if (item.compare(0, name.size() + 1, name + "=") == 0) {
            std::string value;
            for (size_t i = name.size() + 1; i < item.size(); ++i) {
                if (item[i] == '+')
                    value += ' ';
                else if (item[i] == '%' && i + 2 < item.size() && isxdigit(item[i + 1]) && isxdigit(item[i + 2])) {
                    value += char(std::stoi(item.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                } else
                    value += item[i];
            }
            return value;
        }
        pos = end + 1;
    }
    return "";
}

} // namespace

HttpResponse json_response(int status, const json &body)
{
    HttpResponse response;
    response.status = status;
    response.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
    response.headers = {{"Cache-Control", "no-store"}};
    return response;
}

HttpResponse error_response(int status, const std::string &message, json extra)
{
    extra["error"] = message;
    return json_response(status, extra);
}

ConsoleRoutes::ConsoleRoutes(Console &console) : console_(console)
{
    routes_ = {
        {"GET", "/login", &ConsoleRoutes::login, false},
        {"POST", "/login", &ConsoleRoutes::login, false},
        {"POST", "/logout", &ConsoleRoutes::logout, false},
        {"GET", "/api/cameras", &ConsoleRoutes::get_cameras, true},
        {"GET", "/api/cameras/*", &ConsoleRoutes::get_camera, true},
        {"PUT", "/api/cameras/*/controls/*", &ConsoleRoutes::put_control, true},
        {"PUT", "/api/cameras/*/running", &ConsoleRoutes::put_running, true},
        {"PUT", "/api/cameras/*/views/*", &ConsoleRoutes::put_view, true},
        {"GET", "/api/stats", &ConsoleRoutes::get_stats, true},
        {"GET", "/api/events", &ConsoleRoutes::get_events, true},
        {"GET", "/api/preview/*/*.jpg", &ConsoleRoutes::get_preview, true},
        {"GET", "/api/snapshot/*/*.png", &ConsoleRoutes::get_snapshot, true},
        {"GET", "/stream/*/*.mjpg", &ConsoleRoutes::get_stream, true},
        {"POST", "/whep/*/*", &ConsoleRoutes::post_whep, true},
        {"DELETE", "/whep/*/*/*", &ConsoleRoutes::delete_whep, true},
    };
}

size_t ConsoleRoutes::body_limit(const std::string &method, const std::string &path) const
{
    return method == "POST" && path.rfind("/whep/", 0) == 0 ? kOfferBytes : 4096;
}

const ConsoleRoutes::Route *ConsoleRoutes::find(const std::string &method, const Segments &segments,
                                                std::string *allowed) const
{
    for (const Route &route : routes_) {
        Segments pattern = split_path(route.pattern), captured;
        if (pattern.size() != segments.size())
            continue;
        bool matches = true;
        for (size_t i = 0; i < pattern.size() && matches; ++i)
            matches = segment_matches(pattern[i], segments[i], &captured);
        if (!matches)
            continue;
        if (route.method == method || (method == "HEAD" && std::string(route.method) == "GET"))
            return &route;
        if (allowed->find(route.method) == std::string::npos)
            *allowed += (allowed->empty() ? "" : ", ") + std::string(route.method);
    }
    return nullptr;
}

void ConsoleRoutes::route(const Exchange &exchange)
{
    const HttpRequest &request = exchange->request();
    Segments segments = split_path(request.path);
    std::string allowed;
    const Route *route = find(request.method, segments, &allowed);
    bool is_file = (request.method == "GET" || request.method == "HEAD") && find_web_file(request.path) != nullptr;
    AccessRules::Verdict verdict = console_.rules->check(request, route != nullptr && route->needs_token);
    if (verdict.status != 0) {
        HttpResponse refusal = error_response(verdict.status, verdict.error);
        if (verdict.status == 401)
            refusal.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"zelisp-cam\"");
        exchange->reply(std::move(refusal));
        return;
    }
    if (is_file) {
        get_file(exchange, segments);
    } else if (route != nullptr) {
        Segments captured;
        Segments pattern = split_path(route->pattern);
        for (size_t i = 0; i < pattern.size(); ++i)
            segment_matches(pattern[i], segments[i], &captured);
        (this->*route->handler)(exchange, captured);
    } else if (!allowed.empty()) {
        HttpResponse refusal = error_response(405, request.method + " is not used on " + request.path);
        refusal.headers.emplace_back("Allow", allowed);
        exchange->reply(std::move(refusal));
    } else {
        exchange->reply(error_response(404, "no such resource: " + request.path));
    }
}

void ConsoleRoutes::get_file(const Exchange &exchange, const Segments &)
{
    const WebFile *file = find_web_file(exchange->request().path);
    HttpResponse response;
    response.type = file->type;
    response.body.assign(file->data, file->size);
    response.headers = {{"Cache-Control", "no-cache"},
                        {"Content-Security-Policy", "default-src 'self'; img-src 'self' blob:; style-src 'self'; "
                                                    "frame-ancestors 'none'; form-action 'self'"},
                        {"X-Frame-Options", "DENY"}};
    exchange->reply(std::move(response));
}

// GET /login?token=T (a link) answers 303 to the page; POST /login with a
// form field `token` (the page's form) answers 200: both set the cookie.
void ConsoleRoutes::login(const Exchange &exchange, const Segments &)
{
    const HttpRequest &request = exchange->request();
    std::string token = request.method == "POST" ? form_value(request.body, "token") : request.arg("token");
    std::replace(token.begin(), token.end(), ' ', '+'); // a base64 '+' that a form or query made a blank
    if (!console_.rules->has_token()) {
        exchange->reply(error_response(400, "this console has no token"));
        return;
    }
    if (!console_.rules->token_matches(token)) {
        note_wrong_token(request.peer);
        exchange->reply(error_response(401, "wrong token"));
        return;
    }
    HttpResponse response = json_response(200, {{"ok", true}});
    if (request.method == "GET") {
        response.status = 303;
        response.body.clear();
        response.headers.emplace_back("Location", "/");
    }
    response.headers.emplace_back("Set-Cookie", console_.rules->token_cookie(request));
    exchange->reply(std::move(response));
}

// A wrong token is an event, but one a minute at most: a client trying
// tokens in a loop would otherwise push everything else out of the events
// and flood standard error. The next line counts the ones left out.
void ConsoleRoutes::note_wrong_token(const std::string &peer)
{
    constexpr auto kWrongTokenLineEvery = std::chrono::minutes(1);
    std::lock_guard<std::mutex> lock(wrong_tokens_mutex_);
    auto now = std::chrono::steady_clock::now();
    if (wrong_token_noted_ && now - last_wrong_token_line_ < kWrongTokenLineEvery) {
        ++wrong_tokens_not_noted_;
        return;
    }
    std::string line = "a wrong token was given at /login from " + peer;
    if (wrong_tokens_not_noted_)
        line += " (and " + std::to_string(wrong_tokens_not_noted_) + " more since the last such line)";
    console_.events.note("warning", line);
    wrong_token_noted_ = true;
    last_wrong_token_line_ = now;
    wrong_tokens_not_noted_ = 0;
}

void ConsoleRoutes::logout(const Exchange &exchange, const Segments &)
{
    HttpResponse response = json_response(200, {{"ok", true}});
    response.headers.emplace_back("Set-Cookie", "zelisp_token=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    exchange->reply(std::move(response));
}

bool ConsoleRoutes::camera_of(const Exchange &exchange, const std::string &text, int *camera) const
{
    bool digits = !text.empty() && text.size() <= 6 && text.find_first_not_of("0123456789") == std::string::npos;
    if (digits && console_.hub.has_camera(*camera = std::stoi(text)))
        return true;
    std::string list;
    for (int number : console_.hub.cameras())
        list += (list.empty() ? "" : ", ") + std::to_string(number);
    exchange->reply(error_response(404, "no camera " + text + " in this console (cameras " + list + ")"));
    return false;
}

bool ConsoleRoutes::view_of(const Exchange &exchange, int camera, const std::string &text, int *view) const
{
    bool digits = !text.empty() && text.size() <= 6 && text.find_first_not_of("0123456789") == std::string::npos;
    if (digits && console_.hub.view_format(camera, *view = std::stoi(text)))
        return true;
    exchange->reply(error_response(404, "camera " + std::to_string(camera) + " has no enabled view " + text));
    return false;
}

void ConsoleRoutes::on_capture_thread(const Exchange &exchange, const std::string &what,
                                      std::function<HttpResponse()> work)
{
    auto command = std::make_shared<Command>([exchange, work = std::move(work)] { exchange->reply(work()); });
    if (!console_.hub.submit(command)) {
        HttpResponse busy = error_response(503, "the capture thread has " +
                                                    std::to_string(console_.hub.options().queue_capacity) +
                                                    " requests waiting: try again");
        busy.headers.emplace_back("Retry-After", "1");
        exchange->reply(std::move(busy));
        return;
    }
    int limit = console_.options.command_timeout_ms;
    Console &console = console_;
    console_.timers.after(std::chrono::milliseconds(limit), [&console, command, exchange, what, limit] {
        if (!command->withdraw())
            return; // taken in time: its answer comes from the capture thread
        console.events.note("warning", what + " was withdrawn: the capture thread did not take it within " +
                                           std::to_string(limit) + " ms");
        exchange->reply(error_response(503, "the capture thread did not take the request within " +
                                                std::to_string(limit) + " ms: it was withdrawn and nothing changed"));
    });
}

} // namespace zcam
