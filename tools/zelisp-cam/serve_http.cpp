// serve_http.cpp - routes and rules of the web console's HTTP server.
#include "serve_http.h"

#include <httplib.h>

#include <algorithm>
#include <cstring>
#include <map>

#include <nlohmann/json.hpp>

#include "controls.h"
#include "serve_web.h"
#include "zelisp.h"

namespace zcam {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds kCommandLimit{5000}; // a control or a snapshot waits this long for the capture thread
constexpr milliseconds kPollWait{1000};     // a preview poll waits this long for a newer picture
constexpr const char *kBoundary = "zelispframe";

// The console's view of a control: what each of its values may be, so a
// value out of range is refused here with the range, before any request.
struct Field {
    const char *label;
    uint32_t min;
    uint32_t max;
};
struct ControlRange {
    const char *name;
    const char *kind; // slider, switch, menu, number, readonly
    std::vector<Field> fields;
    const char *help;
};

const std::vector<ControlRange> &control_ranges()
{
    static const std::vector<ControlRange> table = {
        {"brightness", "slider", {{"value", 0, 255}}, "picture brightness"},
        {"contrast", "slider", {{"value", 0, 255}}, "picture contrast"},
        {"saturation", "slider", {{"value", 0, 255}}, "colour saturation"},
        {"hue", "slider", {{"value", 0, 255}}, "hue"},
        {"sharpness", "slider", {{"value", 0, 10}}, "edge enhancement"},
        {"gamma", "number", {{"value", 0, UINT32_MAX}}, "gamma word, passed to the ISP firmware as it is"},
        {"denoise", "slider", {{"luma", 0, 10}, {"chroma", 0, 10}}, "denoise strength, luma and chroma"},
        {"awb", "switch", {{"value", 0, 1}}, "automatic white balance"},
        {"aec", "menu", {{"value", 0, 255}},
         "exposure mode: 0 auto, 1 manual, 2 shutter priority, 3 aperture priority (read back as 0 or 1)"},
        {"mwb", "number", {{"gain 1", 0, 65535}, {"gain 2", 0, 65535}, {"gain 3", 0, 65535}},
         "manual white-balance gains (set only)"},
        {"mec",
         "number",
         {{"word 1", 0, 65535}, {"word 2", 0, 65535}, {"word 3", 0, 65535}, {"word 4", 0, 65535},
          {"word 5", 0, 65535}, {"word 6", 0, 65535}},
         "manual exposure words (set only)"},
        {"abnormal", "readonly", {}, "the ISP's abnormal-information block, 14 bytes in hex"},
    };
    return table;
}

const ControlRange *find_range(const std::string &name)
{
    for (const ControlRange &range : control_ranges())
        if (name == range.name)
            return &range;
    return nullptr;
}

std::string reason_of(int status)
{
    switch (status) {
    case 400: return "malformed request";
    case 401: return "this console needs its token";
    case 403: return "forbidden";
    case 404: return "no such resource";
    case 405: return "method not allowed";
    case 413: return "request body over " + std::to_string(kMaxBodyBytes) + " bytes";
    case 503: return "unavailable";
    default: return "request failed";
    }
}

void send_json(httplib::Response &res, int status, const json &body)
{
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

void send_error(httplib::Response &res, int status, const std::string &message, json extra = json::object())
{
    extra["error"] = message;
    send_json(res, status, extra);
}

// Camera and view numbers from a path; false for digits that do not fit.
bool to_number(const std::string &text, int *number)
{
    if (text.empty() || text.size() > 6)
        return false;
    *number = std::stoi(text);
    return true;
}

bool same_text(const std::string &a, const std::string &b)
{
    // Compares every byte whatever the first difference, so the time taken
    // says nothing about how much of a token was right.
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
    return diff == 0;
}

std::string cookie_value(const httplib::Request &req, const std::string &name)
{
    std::string cookies = req.get_header_value("Cookie");
    size_t pos = 0;
    while (pos < cookies.size()) {
        size_t end = cookies.find(';', pos);
        if (end == std::string::npos)
            end = cookies.size();
        std::string item = cookies.substr(pos, end - pos);
        item.erase(0, item.find_first_not_of(' '));
        if (item.compare(0, name.size() + 1, name + "=") == 0)
            return item.substr(name.size() + 1);
        pos = end + 1;
    }
    return "";
}

bool is_loopback_host(const std::string &host)
{
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

// Values of a control from its read text ("5 5"; hex bytes for abnormal).
json read_value(const Control &control, const std::string &text)
{
    if (std::string(control.name) == "abnormal")
        return text;
    json values = json::array();
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find(' ', pos);
        if (end == std::string::npos)
            end = text.size();
        values.push_back(std::stoul(text.substr(pos, end - pos)));
        pos = end + 1;
    }
    return values;
}

} // namespace

struct ConsoleServer::Impl {
    CameraHub &hub;
    const ServeOptions &options;
    httplib::Server server;
    int port = 0;
    std::atomic<int> streams{0};
    std::atomic<uint64_t> streams_served{0};
    std::atomic<uint64_t> viewers_dropped{0};
    std::atomic<uint64_t> refused_streams{0};
    std::mutex set_only_mutex;
    std::map<std::pair<int, std::string>, json> set_only; // values of the set-only controls last sent

    Impl(CameraHub &h, const ServeOptions &o) : hub(h), options(o) {}

    // The rules every request passes before its handler.
    bool admit(const httplib::Request &req, httplib::Response &res)
    {
        std::string host = req.get_header_value("Host");
        if (options.token.empty()) {
            // On loopback without a token: a page of another site that
            // points a name of its own at 127.0.0.1 must not reach us.
            std::string name = host.substr(0, host.rfind(':'));
            if (name.size() > 1 && name.front() == '[')
                name = name.substr(1, name.size() - 2);
            if (!is_loopback_host(name)) {
                send_error(res, 403, "the Host header must name this console's loopback address");
                return false;
            }
        } else if (req.path != "/login") {
            std::string given = req.get_header_value("X-Zelisp-Token");
            std::string authorization = req.get_header_value("Authorization");
            if (given.empty() && authorization.rfind("Bearer ", 0) == 0)
                given = authorization.substr(7);
            if (given.empty())
                given = cookie_value(req, "zelisp_token");
            if (!same_text(given, options.token)) {
                send_error(res, 401,
                           given.empty() ? "this console needs its token: open /login?token=TOKEN, or send the "
                                           "X-Zelisp-Token header"
                                         : "wrong token");
                return false;
            }
        }
        if (req.method != "GET" && req.method != "HEAD") {
            std::string origin = req.get_header_value("Origin");
            std::string site = req.get_header_value("Sec-Fetch-Site");
            if ((!origin.empty() && origin != "http://" + host) ||
                (!site.empty() && site != "same-origin" && site != "none")) {
                send_error(res, 403, "cross-origin request refused: changes come from this console's own page");
                return false;
            }
        }
        return true;
    }

    bool camera_of(const std::string &text, httplib::Response &res, int *camera)
    {
        if (to_number(text, camera) && hub.has_camera(*camera))
            return true;
        std::string list;
        for (int c : hub.cameras())
            list += (list.empty() ? "" : ", ") + std::to_string(c);
        send_error(res, 404, "no camera " + text + " in this console (cameras " + list + ")");
        return false;
    }

    Tile *tile_of(const std::string &camera_text, const std::string &view_text, httplib::Response &res)
    {
        int camera = 0, view = 0;
        if (!camera_of(camera_text, res, &camera))
            return nullptr;
        Tile *tile = to_number(view_text, &view) ? hub.tile(camera, view) : nullptr;
        if (tile == nullptr)
            send_error(res, 404, "camera " + camera_text + " has no enabled view " + view_text);
        return tile;
    }

    json view_json(const Tile &tile) const
    {
        std::string base = std::to_string(tile.camera) + "/" + std::to_string(tile.view);
        return {{"view", tile.view},
                {"format", fourcc_name(tile.format.format)},
                {"width", tile.format.width},
                {"height", tile.format.height},
                {"preview", {{"width", tile.preview->width()}, {"height", tile.preview->height()}}},
                {"stream", "/stream/" + base + ".mjpg"},
                {"snapshot", "/api/snapshot/" + base + ".png"}};
    }

    json camera_json(int camera) const
    {
        json views = json::array();
        for (const auto &tile : hub.tiles())
            if (tile->camera == camera)
                views.push_back(view_json(*tile));
        return {{"camera", camera}, {"node", hub.node(camera)}, {"views", views}};
    }

    void get_cameras(const httplib::Request &, httplib::Response &res)
    {
        json cameras = json::array();
        for (int camera : hub.cameras())
            cameras.push_back(camera_json(camera));
        send_json(res, 200,
                  {{"cameras", cameras},
                   {"group", options.group},
                   {"trigger", hub.trigger_text()},
                   {"max_streams", options.max_streams}});
    }

    void get_camera(const httplib::Request &req, httplib::Response &res)
    {
        int camera = 0;
        if (!camera_of(req.matches[1], res, &camera))
            return;
        Reply reply = hub.run_on_camera(
            camera,
            [](unsigned long handle) {
                json values = json::object();
                for (const Control &control : controls()) {
                    if (control.read == nullptr)
                        continue;
                    std::string text;
                    int result = control.read(handle, &text);
                    values[control.name] = result == ISP_OK ? read_value(control, text) : json(nullptr);
                }
                return Reply{200, values.dump()};
            },
            kCommandLimit);
        if (reply.status != 200) {
            res.status = reply.status;
            res.set_content(reply.body, reply.type);
            return;
        }
        json read = json::parse(reply.body);
        json list = json::array();
        for (const ControlRange &range : control_ranges()) {
            const Control *control = find_control(range.name);
            json fields = json::array();
            for (const Field &field : range.fields)
                fields.push_back({{"label", field.label}, {"min", field.min}, {"max", field.max}});
            json value = nullptr;
            bool read_back = control->read != nullptr;
            if (read_back) {
                value = read[range.name];
            } else {
                std::lock_guard<std::mutex> lock(set_only_mutex);
                auto it = set_only.find({camera, range.name});
                if (it != set_only.end())
                    value = it->second;
            }
            list.push_back({{"name", range.name},
                            {"kind", range.kind},
                            {"fields", fields},
                            {"value", value},
                            {"readable", read_back},
                            {"writable", control->write != nullptr},
                            {"help", range.help}});
        }
        json body = camera_json(camera);
        body["controls"] = list;
        body["abnormal"] = read["abnormal"];
        send_json(res, 200, body);
    }

    void put_control(const httplib::Request &req, httplib::Response &res)
    {
        int camera = 0;
        if (!camera_of(req.matches[1], res, &camera))
            return;
        std::string name = req.matches[2];
        const ControlRange *range = find_range(name);
        const Control *control = find_control(name);
        if (range == nullptr || control == nullptr) {
            std::string names;
            for (const ControlRange &r : control_ranges())
                names += (names.empty() ? "" : ", ") + std::string(r.name);
            send_error(res, 404, "no control '" + name + "' (controls: " + names + ")");
            return;
        }
        if (control->write == nullptr) {
            send_error(res, 405, name + " is read only");
            return;
        }
        json body = json::parse(req.body, nullptr, false);
        if (body.is_discarded() || !body.is_object() || !body.contains("value")) {
            send_error(res, 400, "the body must be a JSON object {\"value\": ...}");
            return;
        }
        json value = body["value"];
        if (!value.is_array())
            value = json::array({value});
        if (value.size() != range->fields.size()) {
            send_error(res, 400,
                       name + " takes " + std::to_string(range->fields.size()) + " value" +
                           (range->fields.size() == 1 ? "" : "s"));
            return;
        }
        std::vector<uint32_t> numbers;
        for (size_t i = 0; i < value.size(); ++i) {
            const Field &field = range->fields[i];
            std::string what = range->fields.size() == 1 ? name : name + " " + field.label;
            json v = value[i];
            if (v.is_boolean())
                v = v.get<bool>() ? 1 : 0;
            json limits = {{"range", {{"min", field.min}, {"max", field.max}}}};
            if (!v.is_number_integer()) {
                send_error(res, 400, what + " must be a whole number, " + std::to_string(field.min) + ".." +
                                         std::to_string(field.max), limits);
                return;
            }
            if (v.is_number_unsigned() ? v.get<uint64_t>() > field.max || v.get<uint64_t>() < field.min
                                       : v.get<int64_t>() < int64_t(field.min) || v.get<int64_t>() > field.max) {
                send_error(res, 400,
                           what + " must be " + std::to_string(field.min) + ".." + std::to_string(field.max),
                           limits);
                return;
            }
            numbers.push_back(uint32_t(v.get<uint64_t>()));
        }
        Reply reply = hub.run_on_camera(
            camera,
            [control, numbers](unsigned long handle) {
                int result = control->write(handle, numbers.data());
                if (result != ISP_OK)
                    return Reply{502, json({{"error", std::string("the driver refused: ") +
                                                          isp_get_result_text(result)},
                                            {"result", result}})
                                          .dump()};
                json answer = {{"name", control->name}, {"read_back", control->read != nullptr}};
                if (control->read != nullptr) {
                    std::string text;
                    result = control->read(handle, &text);
                    answer["value"] = result == ISP_OK ? read_value(*control, text) : json(nullptr);
                } else {
                    answer["value"] = numbers;
                }
                return Reply{200, answer.dump()};
            },
            kCommandLimit);
        if (reply.status == 200 && control->read == nullptr) {
            std::lock_guard<std::mutex> lock(set_only_mutex);
            set_only[{camera, name}] = numbers;
        }
        res.status = reply.status;
        res.set_content(reply.body, reply.type);
    }

    void get_stats(const httplib::Request &, httplib::Response &res)
    {
        json cameras = json::array();
        for (const auto &c : hub.camera_figures())
            cameras.push_back({{"camera", c.camera},
                               {"frames", c.frames},
                               {"fps", c.fps},
                               {"refused", c.refused},
                               {"dropped", c.dropped},
                               {"last_sequence", c.last_sequence},
                               {"error", c.error.empty() ? json(nullptr) : json(c.error)}});
        json tiles = json::array();
        for (const auto &tile : hub.tiles()) {
            PreviewSlot::Figures preview = tile->preview->figures();
            PreviewSlot::Figures full = tile->full->figures();
            tiles.push_back({{"camera", tile->camera},
                             {"view", tile->view},
                             {"viewers", tile->preview->viewers.load() + tile->full->viewers.load()},
                             {"preview_fps", preview.fps},
                             {"previews", preview.published},
                             {"jpegs", preview.encoded + full.encoded},
                             {"jpeg_ms", preview.encoded + full.encoded
                                             ? (preview.encode_ms_total + full.encode_ms_total) /
                                                   double(preview.encoded + full.encoded)
                                             : 0.0}});
        }
        json body = {{"uptime_s", hub.uptime()},
                     {"trigger", hub.trigger_text()},
                     {"cameras", cameras},
                     {"tiles", tiles},
                     {"streams",
                      {{"active", streams.load()},
                       {"max", options.max_streams},
                       {"served", streams_served.load()},
                       {"refused", refused_streams.load()},
                       {"viewers_dropped", viewers_dropped.load()}}},
                     {"group", nullptr}};
        if (options.group) {
            CameraHub::GroupFigures g = hub.group_figures();
            json recent = json::array();
            for (const auto &[t, skew] : g.recent)
                recent.push_back({t, skew});
            body["group"] = {{"sets", g.sets},
                             {"incomplete", g.incomplete},
                             {"max_skew_us", g.max_skew_us},
                             {"mean_skew_us", g.mean_skew_us},
                             {"recent", recent}};
        }
        send_json(res, 200, body);
    }

    void get_snapshot(const httplib::Request &req, httplib::Response &res)
    {
        Tile *tile = tile_of(req.matches[1], req.matches[2], res);
        if (tile == nullptr)
            return;
        Reply reply = hub.snapshot(tile->camera, tile->view, kCommandLimit);
        res.status = reply.status;
        res.set_header("Cache-Control", "no-store");
        res.set_content(reply.body, reply.type);
    }

    PreviewSlot *slot_of(Tile *tile, const httplib::Request &req, httplib::Response &res)
    {
        std::string size = req.has_param("size") ? req.get_param_value("size") : "preview";
        if (size != "preview" && size != "full") {
            send_error(res, 400, "size must be preview or full");
            return nullptr;
        }
        return size == "full" ? tile->full.get() : tile->preview.get();
    }

    // One picture, newer than ?after=GENERATION: what the page's tiles poll.
    void get_preview(const httplib::Request &req, httplib::Response &res)
    {
        Tile *tile = tile_of(req.matches[1], req.matches[2], res);
        PreviewSlot *slot = tile ? slot_of(tile, req, res) : nullptr;
        if (slot == nullptr)
            return;
        uint64_t after = 0;
        if (req.has_param("after")) {
            std::string text = req.get_param_value("after");
            if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) {
                send_error(res, 400, "after must be a preview number");
                return;
            }
            after = std::stoull(text);
        }
        slot->polled();
        uint64_t generation = 0;
        uint32_t sequence = 0;
        auto jpeg = slot->wait_jpeg(after, &generation, &sequence, hub.stopping(), options.quality, kPollWait);
        res.set_header("Cache-Control", "no-store");
        if (!jpeg) {
            res.status = 204; // nothing newer yet: ask again
            return;
        }
        res.set_header("X-Preview-Generation", std::to_string(generation));
        res.set_header("X-Frame-Sequence", std::to_string(sequence));
        res.set_content(*jpeg, "image/jpeg");
    }

    void get_stream(const httplib::Request &req, httplib::Response &res)
    {
        Tile *tile = tile_of(req.matches[1], req.matches[2], res);
        PreviewSlot *slot = tile ? slot_of(tile, req, res) : nullptr;
        if (slot == nullptr)
            return;
        if (streams.fetch_add(1) >= options.max_streams) {
            streams.fetch_sub(1);
            ++refused_streams;
            send_error(res, 503,
                       "at most " + std::to_string(options.max_streams) + " streams at once: close one first");
            return;
        }
        ++streams_served;
        ++slot->viewers;
        auto last = std::make_shared<uint64_t>(0);
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            std::string("multipart/x-mixed-replace; boundary=") + kBoundary,
            [this, slot, last](size_t, httplib::DataSink &sink) {
                uint64_t generation = 0;
                uint32_t sequence = 0;
                auto jpeg = slot->wait_jpeg(*last, &generation, &sequence, hub.stopping(), options.quality,
                                            milliseconds(500));
                if (hub.stopping())
                    return false;
                if (!jpeg)
                    return sink.is_writable(); // nothing new: look again
                std::string head = std::string("--") + kBoundary +
                                   "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                   std::to_string(jpeg->size()) + "\r\nX-Frame-Sequence: " +
                                   std::to_string(sequence) + "\r\n\r\n";
                if (!sink.write(head.data(), head.size()) || !sink.write(jpeg->data(), jpeg->size()) ||
                    !sink.write("\r\n", 2)) {
                    ++viewers_dropped; // gone, or stopped reading for longer than the write timeout
                    return false;
                }
                *last = generation;
                return true;
            },
            [this, slot](bool) {
                --slot->viewers;
                --streams;
            });
    }

    void routes()
    {
        server.set_payload_max_length(kMaxBodyBytes);
        server.set_keep_alive_timeout(2);
        server.set_write_timeout(5, 0);
        // Each endless stream holds a thread; the rest serve the page and the API.
        size_t threads = size_t(options.max_streams) + 16;
        server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
        server.set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_header("X-Frame-Options", "DENY");
            return admit(req, res) ? httplib::Server::HandlerResponse::Unhandled
                                   : httplib::Server::HandlerResponse::Handled;
        });
        server.set_error_handler([](const httplib::Request &req, httplib::Response &res) {
            if (res.body.empty()) {
                std::string message = reason_of(res.status);
                if (res.status == 404)
                    message = "no such resource: " + req.path;
                send_error(res, res.status, message);
            }
        });

        for (const WebFile &file : web_files()) {
            auto serve_file = [&file](const httplib::Request &, httplib::Response &res) {
                res.set_header("Cache-Control", "no-cache");
                res.set_header("Content-Security-Policy",
                               "default-src 'self'; img-src 'self' blob:; style-src 'self'; frame-ancestors 'none'");
                res.set_content(file.data, file.size, file.type);
            };
            server.Get(file.path, serve_file);
            if (std::string(file.path) == "/index.html")
                server.Get("/", serve_file);
        }
        server.Get("/login", [this](const httplib::Request &req, httplib::Response &res) {
            std::string token = req.has_param("token") ? req.get_param_value("token") : "";
            if (options.token.empty() || !same_text(token, options.token)) {
                send_error(res, 401, options.token.empty() ? "this console has no token" : "wrong token");
                return;
            }
            res.set_header("Set-Cookie", "zelisp_token=" + token + "; Path=/; HttpOnly; SameSite=Strict");
            res.set_redirect("/", 303);
        });
        using namespace std::placeholders;
        server.Get("/api/cameras", [this](const auto &req, auto &res) { get_cameras(req, res); });
        server.Get(R"(/api/cameras/(\d+))", [this](const auto &req, auto &res) { get_camera(req, res); });
        server.Put(R"(/api/cameras/(\d+)/controls/([a-z]+))",
                   [this](const auto &req, auto &res) { put_control(req, res); });
        server.Get(R"(/api/cameras/(\d+)/controls/([a-z]+))", [](const auto &, auto &res) {
            send_error(res, 405, "controls are changed with PUT and read with GET /api/cameras/N");
        });
        server.Get("/api/stats", [this](const auto &req, auto &res) { get_stats(req, res); });
        server.Get(R"(/api/snapshot/(\d+)/(\d+)\.png)", [this](const auto &req, auto &res) { get_snapshot(req, res); });
        server.Get(R"(/api/preview/(\d+)/(\d+)\.jpg)", [this](const auto &req, auto &res) { get_preview(req, res); });
        server.Get(R"(/stream/(\d+)/(\d+)\.mjpg)", [this](const auto &req, auto &res) { get_stream(req, res); });
        auto not_allowed = [](const httplib::Request &req, httplib::Response &res) {
            send_error(res, 405, req.method + " is not used on " + req.path);
        };
        server.Put(".*", not_allowed);
        server.Post(".*", not_allowed);
        server.Delete(".*", not_allowed);
        server.Patch(".*", not_allowed);
    }
};

ConsoleServer::ConsoleServer(CameraHub &hub, const ServeOptions &options)
    : impl_(std::make_unique<Impl>(hub, options))
{
    impl_->routes();
}

ConsoleServer::~ConsoleServer() = default;

std::string ConsoleServer::bind(const std::string &host, int port, int *bound_port)
{
    errno = 0;
    if (port == 0)
        *bound_port = impl_->server.bind_to_any_port(host);
    else
        *bound_port = impl_->server.bind_to_port(host, port) ? port : -1;
    if (*bound_port < 0)
        return errno != 0 ? strerror(errno) : "the address cannot be used";
    impl_->port = *bound_port;
    return "";
}

void ConsoleServer::serve()
{
    impl_->server.listen_after_bind();
}

void ConsoleServer::stop()
{
    impl_->server.stop();
}

} // namespace zcam
