// whep_routes.cpp - WebRTC viewers the WHEP way: POST an SDP offer to
// /whep/CAMERA/VIEW, DELETE the address the answer's Location names.
#include "console.h"
#include "console_routes.h"

namespace zcam {

void ConsoleRoutes::post_whep(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    const HttpRequest &request = exchange->request();
    std::string type = request.header("Content-Type");
    if (type.substr(0, type.find(';')) != "application/sdp") {
        exchange->reply(error_response(415, "the offer is sent as application/sdp"));
        return;
    }
    console_.webrtc->offer(camera, view, request.body, exchange);
}

void ConsoleRoutes::delete_whep(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    if (!console_.webrtc->end(camera, view, captured[2])) {
        exchange->reply(error_response(404, "no WebRTC session " + exchange->request().path));
        return;
    }
    exchange->reply(json_response(200, {{"ended", exchange->request().path}}));
}

} // namespace zcam
