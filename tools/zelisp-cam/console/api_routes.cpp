// api_routes.cpp - the console's JSON API: cameras, controls, start and
// stop, view formats, figures and events.
#include "console.h"
#include "console_routes.h"
#include "control_ranges.h"
#include "controls.h"
#include "picture_convert.h"

namespace zcam {

using nlohmann::json;

namespace {

constexpr auto kLongestEventWait = std::chrono::seconds(10);

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

json range_json(const ControlRange &range)
{
    json fields = json::array();
    for (const FieldRange &field : range.fields)
        fields.push_back({{"label", field.label}, {"min", field.min}, {"max", field.max}});
    json menu = json::array();
    for (const MenuItem &item : range.menu)
        menu.push_back({{"value", item.value}, {"label", item.label}});
    return {{"name", range.name}, {"kind", range.kind}, {"fields", fields}, {"unit", range.unit},
            {"menu", menu},       {"help", range.help}};
}

json body_of(const Exchange &exchange)
{
    return json::parse(exchange->request().body, nullptr, false);
}

// The numbers a PUT gives a control, each checked against its field's
// range; an error response when they do not fit.
bool control_values(const ControlRange &range, const json &body, std::vector<uint32_t> *numbers,
                    HttpResponse *refusal)
{
    std::string name = range.name;
    if (body.is_discarded() || !body.is_object() || !body.contains("value")) {
        *refusal = error_response(400, "the body must be a JSON object {\"value\": ...}");
        return false;
    }
    json value = body["value"];
    if (!value.is_array())
        value = json::array({value});
    if (value.size() != range.fields.size()) {
        *refusal = error_response(400, name + " takes " + std::to_string(range.fields.size()) + " value" +
                                           (range.fields.size() == 1 ? "" : "s"));
        return false;
    }
    for (size_t i = 0; i < value.size(); ++i) {
        const FieldRange &field = range.fields[i];
        std::string what = range.fields.size() == 1 ? name : name + " " + field.label;
        std::string bounds = std::to_string(field.min) + ".." + std::to_string(field.max);
        const json &v = value[i];
        if (v.is_boolean()) {
            numbers->push_back(v.get<bool>() ? 1 : 0);
            continue;
        }
        if (!v.is_number_integer() && !v.is_number_unsigned()) {
            *refusal = error_response(400, what + " must be a whole number, " + bounds);
            return false;
        }
        bool negative = v.is_number_integer() && v.get<int64_t>() < 0;
        uint64_t number = negative ? 0 : v.get<uint64_t>();
        if (negative || number < field.min || number > field.max) {
            *refusal = error_response(400, what + " must be " + bounds, {{"range", {{"min", field.min}, {"max", field.max}}}});
            return false;
        }
        numbers->push_back(uint32_t(number));
    }
    return true;
}

} // namespace

json ConsoleRoutes::camera_json(int camera) const
{
    json views = json::array();
    bool running = false;
    for (const CameraHub::CameraLayout &layout : console_.hub.layout()) {
        if (layout.camera != camera)
            continue;
        running = layout.running;
        for (const CameraHub::ViewLayout &view : layout.views) {
            std::string base = std::to_string(camera) + "/" + std::to_string(view.view);
            uint32_t width = 0, height = 0;
            preview_size(view.format, uint32_t(console_.options.preview_width), &width, &height);
            views.push_back({{"view", view.view},
                             {"format", fourcc_name(view.format.format)},
                             {"width", view.format.width},
                             {"height", view.format.height},
                             {"preview", {{"width", width}, {"height", height}}},
                             {"stream", "/stream/" + base + ".mjpg"},
                             {"snapshot", "/api/snapshot/" + base + ".png"},
                             {"whep", "/whep/" + base}});
        }
    }
    return {{"camera", camera}, {"node", node_path(camera, 1)}, {"running", running}, {"views", views}};
}

void ConsoleRoutes::get_cameras(const Exchange &exchange, const Segments &)
{
    json cameras = json::array();
    for (int camera : console_.hub.cameras())
        cameras.push_back(camera_json(camera));
    json formats = json::array();
    for (const char *name : {"NV12", "NV21", "YUYV", "RGB3", "GREY"})
        formats.push_back(name);
    exchange->reply(json_response(200, {{"cameras", cameras},
                                        {"group", console_.options.hub.group},
                                        {"trigger", console_.hub.trigger_text()},
                                        {"max_streams", console_.options.max_streams},
                                        {"formats", formats},
                                        {"webrtc", !console_.webrtc->settings().encoder.empty()}}));
}

void ConsoleRoutes::get_camera(const Exchange &exchange, const Segments &captured)
{
    int camera = 0;
    if (!camera_of(exchange, captured[0], &camera))
        return;
    json details = camera_json(camera);
    json set_only;
    {
        std::lock_guard<std::mutex> lock(set_only_mutex_);
        for (const auto &[key, value] : set_only_)
            if (key.first == camera)
                set_only[key.second] = value;
    }
    CameraHub &hub = console_.hub;
    on_capture_thread(exchange, "reading camera " + std::to_string(camera) + "'s controls",
                      [&hub, camera, details, set_only]() mutable {
                          unsigned long handle = hub.handle(camera);
                          json list = json::array();
                          for (const ControlRange &range : control_ranges()) {
                              const Control *control = find_control(range.name);
                              json entry = range_json(range);
                              json value = nullptr;
                              if (control->read != nullptr) {
                                  std::string text;
                                  if (control->read(handle, &text) == ISP_OK)
                                      value = read_value(*control, text);
                              } else if (set_only.contains(range.name)) {
                                  value = set_only[range.name];
                              }
                              entry["value"] = value;
                              entry["readable"] = control->read != nullptr;
                              entry["writable"] = control->write != nullptr;
                              if (std::string(range.name) == "abnormal")
                                  details["abnormal"] = value;
                              list.push_back(std::move(entry));
                          }
                          details["controls"] = list;
                          return json_response(200, details);
                      });
}

void ConsoleRoutes::put_control(const Exchange &exchange, const Segments &captured)
{
    int camera = 0;
    if (!camera_of(exchange, captured[0], &camera))
        return;
    const std::string &name = captured[1];
    const ControlRange *range = find_range(name);
    const Control *control = find_control(name);
    if (range == nullptr || control == nullptr) {
        std::string names;
        for (const ControlRange &r : control_ranges())
            names += (names.empty() ? "" : ", ") + std::string(r.name);
        exchange->reply(error_response(404, "no control '" + name + "' (controls: " + names + ")"));
        return;
    }
    if (control->write == nullptr) {
        exchange->reply(error_response(405, name + " is read only"));
        return;
    }
    std::vector<uint32_t> numbers;
    HttpResponse refusal;
    if (!control_values(*range, body_of(exchange), &numbers, &refusal)) {
        exchange->reply(std::move(refusal));
        return;
    }
    CameraHub &hub = console_.hub;
    EventLog &events = console_.events;
    std::string peer = exchange->request().peer;
    std::string what = "camera " + std::to_string(camera) + ": " + name;
    on_capture_thread(exchange, what + " set by " + peer, [this, &hub, &events, camera, control, numbers, what, name]() {
        unsigned long handle = hub.handle(camera);
        int result = control->write(handle, numbers.data());
        if (result != ISP_OK)
            return error_response(502, std::string("the driver refused: ") + isp_get_result_text(result),
                                  {{"result", result}});
        json answer = {{"name", name}, {"read_back", control->read != nullptr}};
        if (control->read != nullptr) {
            std::string text;
            if (control->read(handle, &text) == ISP_OK)
                answer["value"] = read_value(*control, text);
        } else {
            answer["value"] = numbers;
            std::lock_guard<std::mutex> lock(set_only_mutex_);
            set_only_[{camera, name}] = numbers;
        }
        events.note("info", what + " set to " + answer["value"].dump());
        return json_response(200, answer);
    });
}

void ConsoleRoutes::put_running(const Exchange &exchange, const Segments &captured)
{
    int camera = 0;
    if (!camera_of(exchange, captured[0], &camera))
        return;
    json body = body_of(exchange);
    if (body.is_discarded() || !body.is_object() || !body.contains("value") || !body["value"].is_boolean()) {
        exchange->reply(error_response(400, "the body must be {\"value\": true} or {\"value\": false}"));
        return;
    }
    bool running = body["value"].get<bool>();
    CameraHub &hub = console_.hub;
    EventLog &events = console_.events;
    std::string what = "camera " + std::to_string(camera) + (running ? " started" : " stopped");
    on_capture_thread(exchange, what, [&hub, &events, camera, running, what]() {
        std::string error = hub.set_running(camera, running);
        if (!error.empty())
            return error_response(409, error);
        events.note("info", what);
        return json_response(200, {{"camera", camera}, {"running", running}});
    });
}

void ConsoleRoutes::put_view(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    json body = body_of(exchange);
    zelvideo::_view_format_t format{};
    bool sized = !body.is_discarded() && body.is_object() && body.contains("format") && body["format"].is_string() &&
                 body.contains("width") && body["width"].is_number_unsigned() && body.contains("height") &&
                 body["height"].is_number_unsigned();
    // Read wide and checked before narrowing: 2^32 + 640 must not pass as 640.
    uint64_t width = sized ? body["width"].get<uint64_t>() : 0;
    uint64_t height = sized ? body["height"].get<uint64_t>() : 0;
    if (sized) {
        format.format = fourcc_from_name(body["format"].get<std::string>());
        format.width = uint32_t(width);
        format.height = uint32_t(height);
    }
    if (!sized || format.format == 0 || width < 2 || height < 2 || width > 65534 || height > 65534 || width % 2 ||
        height % 2) {
        exchange->reply(error_response(400, "the body must be {\"format\": NV12|NV21|YUYV|RGB3|GREY, \"width\": W, "
                                            "\"height\": H}, with W and H even, 2..65534"));
        return;
    }
    CameraHub &hub = console_.hub;
    EventLog &events = console_.events;
    std::string what = "camera " + std::to_string(camera) + " view " + std::to_string(view);
    on_capture_thread(exchange, what + " set to " + describe(format), [this, &hub, &events, camera, view, format, what]() {
        std::string error = hub.set_view_format(camera, view, format);
        if (!error.empty())
            return error_response(error.rfind("the ", 0) == 0 ? 409 : 400,
                                  what + " cannot be " + describe(format) + ": " + error);
        auto held = hub.view_format(camera, view);
        events.note("info", what + " is now " + describe(*held));
        json answer = camera_json(camera);
        answer["asked"] = describe(format);
        answer["held"] = describe(*held);
        return json_response(200, answer);
    });
}

void ConsoleRoutes::get_stats(const Exchange &exchange, const Segments &)
{
    json cameras = json::array();
    for (const auto &c : console_.hub.camera_figures())
        cameras.push_back({{"camera", c.camera},
                           {"running", c.running},
                           {"frames", c.frames},
                           {"fps", c.fps},
                           {"refused", c.refused},
                           {"dropped", c.dropped},
                           {"last_sequence", c.last_sequence},
                           {"last_capture_unix_us", c.last_capture_unix_us},
                           {"error", c.error.empty() ? json(nullptr) : json(c.error)}});
    json tiles = json::array();
    for (const CameraHub::CameraLayout &layout : console_.hub.layout())
        for (const CameraHub::ViewLayout &view : layout.views) {
            PreviewFeed *tile = console_.feed(layout.camera, view.view, false);
            PreviewFeed *full = console_.feed(layout.camera, view.view, true);
            PreviewFeed::Figures a = tile->figures(), b = full->figures();
            uint64_t pictures = a.pictures + b.pictures;
            tiles.push_back({{"camera", layout.camera},
                             {"view", view.view},
                             {"viewers", tile->viewers() + full->viewers()},
                             {"preview_fps", a.fps},
                             {"pictures", pictures},
                             {"jpeg_ms", pictures ? (a.encode_ms_total + b.encode_ms_total) / double(pictures) : 0.0},
                             {"error", a.error.empty() ? json(nullptr) : json(a.error)}});
        }
    HttpServer::Figures http = console_.server->figures();
    WebRtcViewers::Figures webrtc = console_.webrtc->figures();
    json body = {{"uptime_s", console_.hub.uptime()},
                 {"trigger", console_.hub.trigger_text()},
                 {"cameras", cameras},
                 {"tiles", tiles},
                 {"streams",
                  {{"active", console_.slots.active()},
                   {"max", console_.slots.max()},
                   {"served", console_.slots.served()},
                   {"refused", console_.slots.refused()}}},
                 {"webrtc",
                  {{"encoder", console_.webrtc->settings().encoder},
                   {"hardware", console_.webrtc->settings().hardware},
                   {"sessions", webrtc.sessions},
                   {"started", webrtc.started},
                   {"frames_sent", webrtc.sent},
                   {"frames_skipped", webrtc.skipped}}},
                 {"http",
                  {{"connections", http.connections},
                   {"requests", http.requests},
                   {"closed_too_slow", http.too_slow},
                   {"headers_too_large", http.headers_too_large},
                   {"bodies_too_large", http.bodies_too_large}}},
                 {"events_lost", console_.events.lost()},
                 {"group", nullptr}};
    if (console_.options.hub.group) {
        CameraHub::GroupFigures g = console_.hub.group_figures();
        json recent = json::array();
        for (const auto &[t, skew] : g.recent)
            recent.push_back({t, skew});
        body["group"] = {{"sets", g.sets},
                         {"incomplete", g.incomplete},
                         {"max_skew_us", g.max_skew_us},
                         {"mean_skew_us", g.mean_skew_us},
                         {"recent", recent}};
    }
    exchange->reply(json_response(200, body));
}

// ?after=ID: the events after that one, waiting up to ?wait=S seconds
// (0..10, default 10) for one to come. The page asks with wait=0 along
// with its figures, so that no connection of its six is held.
void ConsoleRoutes::get_events(const Exchange &exchange, const Segments &)
{
    const HttpRequest &request = exchange->request();
    std::string after = request.has_arg("after") ? request.arg("after") : "0";
    std::string wait = request.has_arg("wait") ? request.arg("wait") : "10";
    auto number = [](const std::string &text) {
        return !text.empty() && text.size() <= 19 && text.find_first_not_of("0123456789") == std::string::npos;
    };
    if (!number(after)) {
        exchange->reply(error_response(400, "after must be an event number"));
        return;
    }
    if (!number(wait) || std::stoull(wait) > uint64_t(kLongestEventWait.count())) {
        exchange->reply(error_response(400, "wait must be 0..10 seconds"));
        return;
    }
    console_.events.poll(std::stoull(after), exchange, std::chrono::seconds(std::stoull(wait)));
}

} // namespace zcam
