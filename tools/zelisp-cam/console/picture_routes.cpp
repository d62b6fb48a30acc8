// picture_routes.cpp - previews the page polls, endless MJPEG streams for
// players and scripts, and full-size PNG snapshots.
#include "console.h"
#include "console_routes.h"

namespace zcam {

namespace {

constexpr auto kPollWait = std::chrono::milliseconds(1000); // a poll waits this long for a newer picture
constexpr auto kSnapshotWait = std::chrono::milliseconds(5000);
constexpr const char *kBoundary = "zelispframe";

// One viewer of an MJPEG stream: each part is the feed's latest picture,
// sent from the shared JPEG without a copy. A viewer that reads slowly
// skips the pictures made meanwhile. When the camera gives no more frames
// the stream ends as a multipart body ends, with the closing boundary, and
// the answer is complete: a player or an <img> sees the end at once.
class MjpegViewer : public StreamSource {
public:
    MjpegViewer(PreviewFeed &feed, StreamSlots &slots, int64_t later_than, std::weak_ptr<HttpExchange> exchange)
        : feed_(feed), slots_(slots), later_than_(later_than), exchange_(std::move(exchange))
    {
        feed_.viewer_joined();
    }

    long read(char *out, size_t max) override
    {
        if (part_ == 3) {
            picture_ = feed_.next(generation_, later_than_, exchange_);
            if (picture_)
                begin_part();
            else if (feed_.has_ended())
                part_ = 4; // the camera gives no more frames
            else
                return 0;
        }
        if (part_ == 5)
            return -1;
        const std::string &text = part_ == 0 ? head_ : part_ == 1 ? *picture_->jpeg : part_ == 2 ? kPartEnd : kClose;
        size_t count = std::min(max, text.size() - offset_);
        memcpy(out, text.data() + offset_, count);
        offset_ += count;
        if (offset_ == text.size()) {
            ++part_;
            offset_ = 0;
        }
        return long(count);
    }

    void ended() override
    {
        feed_.viewer_left();
        slots_.give_back();
    }

private:
    void begin_part()
    {
        generation_ = picture_->generation;
        later_than_ = -1;
        head_ = std::string("--") + kBoundary + "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                std::to_string(picture_->jpeg->size()) + "\r\nX-Frame-Sequence: " +
                std::to_string(picture_->mark.sequence) + "\r\n\r\n";
        part_ = 0;
        offset_ = 0;
    }

    inline static const std::string kPartEnd = "\r\n";
    inline static const std::string kClose = std::string("--") + kBoundary + "--\r\n";
    PreviewFeed &feed_;
    StreamSlots &slots_;
    int64_t later_than_; // the first picture shows a frame taken after the stream was asked for
    std::weak_ptr<HttpExchange> exchange_;
    std::shared_ptr<const Picture> picture_;
    uint64_t generation_ = 0;
    std::string head_;
    int part_ = 3; // 0 head, 1 JPEG, 2 line end, 3 between parts, 4 closing boundary, 5 done
    size_t offset_ = 0;
};

} // namespace

void ConsoleRoutes::get_preview(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    const HttpRequest &request = exchange->request();
    std::string size = request.has_arg("size") ? request.arg("size") : "preview";
    std::string after = request.has_arg("after") ? request.arg("after") : "0";
    if (size != "preview" && size != "full") {
        exchange->reply(error_response(400, "size must be preview or full"));
        return;
    }
    if (after.empty() || after.size() > 19 || after.find_first_not_of("0123456789") != std::string::npos) {
        exchange->reply(error_response(400, "after must be a preview number"));
        return;
    }
    console_.feed(camera, view, size == "full")->poll(std::stoull(after), exchange, kPollWait);
}

void ConsoleRoutes::get_stream(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    const HttpRequest &request = exchange->request();
    std::string size = request.has_arg("size") ? request.arg("size") : "preview";
    if (size != "preview" && size != "full") {
        exchange->reply(error_response(400, "size must be preview or full"));
        return;
    }
    const std::string type = std::string("multipart/x-mixed-replace; boundary=") + kBoundary;
    if (request.method == "HEAD") {
        // The headers alone, without a stream or its slot: libmicrohttpd
        // would end the endless body it leaves out with a chunk trailer all
        // the same, which the client reads as the start of its next answer.
        HttpResponse head;
        head.type = type;
        head.headers = {{"Cache-Control", "no-store"}};
        exchange->reply(std::move(head));
        return;
    }
    std::string failure = console_.hub.stop_reason(camera);
    if (!failure.empty()) {
        exchange->reply(error_response(503, failure));
        return;
    }
    if (!console_.slots.take()) {
        exchange->reply(error_response(503, "at most " + std::to_string(console_.slots.max()) +
                                                " streams at once: close one first"));
        return;
    }
    uint32_t sequence = 0;
    int64_t later_than = console_.hub.last_sequence(camera, &sequence) ? int64_t(sequence) : -1;
    auto viewer = std::make_shared<MjpegViewer>(*console_.feed(camera, view, size == "full"), console_.slots,
                                                later_than, exchange);
    exchange->stream(200, type, {{"Cache-Control", "no-store"}}, viewer);
}

void ConsoleRoutes::get_snapshot(const Exchange &exchange, const Segments &captured)
{
    int camera = 0, view = 0;
    if (!camera_of(exchange, captured[0], &camera) || !view_of(exchange, camera, captured[1], &view))
        return;
    console_.desk(camera, view)->request(exchange, kSnapshotWait);
}

} // namespace zcam
