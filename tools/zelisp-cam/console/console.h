/*
 * console.h - the web console as one object: the cameras and their capture
 * thread, the picture workers, the previews, snapshots and WebRTC viewers,
 * the event log, and the HTTP server in front. run() starts them in the
 * order each needs the others, serves until SIGINT or SIGTERM, and stops
 * them in the reverse order.
 */
#ifndef ZELISP_CAM_CONSOLE_CONSOLE_H
#define ZELISP_CAM_CONSOLE_CONSOLE_H

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>

#include "access_log.h"
#include "access_rules.h"
#include "camera_hub.h"
#include "event_log.h"
#include "http_server.h"
#include "picture_workers.h"
#include "preview_feed.h"
#include "serve_options.h"
#include "snapshot_desk.h"
#include "stream_slots.h"
#include "timers.h"
#include "webrtc_viewers.h"

namespace zcam {

class ConsoleRoutes;

class Console {
public:
    explicit Console(ServeOptions options);
    ~Console();

    // Serves until a stop signal; the exit status.
    int run();

    // The parts the routes use.
    ServeOptions options;
    Timers timers;
    EventLog events{timers};
    PictureWorkers workers{2};
    CameraHub hub{options.hub, events};
    StreamSlots slots{options.max_streams};
    std::unique_ptr<AccessRules> rules;
    std::unique_ptr<WebRtcViewers> webrtc;
    std::unique_ptr<HttpServer> server;
    AccessLog access_log;

    PreviewFeed *feed(int camera, int view, bool full) const;
    SnapshotDesk *desk(int camera, int view) const;

private:
    int listen_socket(int *fd);
    void make_pictures();
    void stop_all();

    std::map<std::tuple<int, int, bool>, std::shared_ptr<PreviewFeed>> feeds_;
    std::map<std::pair<int, int>, std::shared_ptr<SnapshotDesk>> desks_;
    std::unique_ptr<ConsoleRoutes> routes_;
};

} // namespace zcam

#endif
