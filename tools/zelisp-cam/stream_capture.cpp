// stream_capture.cpp - capturing from cameras opened one by one: a single
// camera waits in the frame getter itself; several cameras sleep in the
// multi-camera wait and then take a frame from each camera that is ready.
#include <sys/time.h>

#include <string>
#include <vector>

#include "camera_handle.h"
#include "capture_loops.h"
#include "tool_errors.h"
#include "view_formats.h"

namespace zcam {
namespace {

using FrameGetter = int (*)(unsigned long, zelvideo::_isp_buf_t *, int32_t);

struct Stream {
    CameraHandle handle;
    size_t slot;                    // index in run.cameras
    zelvideo::_isp_buf_t held = {}; // the newest frame, kept until the next one arrives
    bool holding = false;
    int refusals_in_a_row = 0;
};

int set_up(CaptureRun &run, Stream &stream, int camera)
{
    const CaptureOptions &options = run.options;
    int status = stream.handle.open(camera, options.mode);
    if (status != kExitOk)
        return status;
    unsigned long handle = stream.handle.get();
    const std::string context = camera_context(camera);
    if ((status = apply_view_formats(handle, camera, options.view_formats)) != kExitOk)
        return status;
    CallResult call;
    if (options.resize &&
        (call = call_library([&] { return isp_resize_resolution(handle, &*options.resize); })).result != ISP_OK)
        return report_failure(context, "isp_resize_resolution", call);
    if (options.drop &&
        (call = call_library([&] { return isp_set_frame_drop_num(handle, options.drop->total, options.drop->drop); }))
                .result != ISP_OK)
        return report_failure(context,
                              "isp_set_frame_drop_num " + std::to_string(options.drop->total) + "/" +
                                  std::to_string(options.drop->drop),
                              call);
    if ((call = call_library([&] { return isp_init_video(handle, options.combination(), options.buffers); }))
            .result != ISP_OK)
        return report_failure(context, "isp_init_video", call);

    CapturedCamera captured = {camera, stream.handle.path(), {},
                               CameraStats(camera, options.drop ? DecimationRule(*options.drop) : DecimationRule())};
    int result = read_view_formats(handle, options, &captured.views);
    if (result != ISP_OK)
        return report_failure(context, "isp_get_view_format", result);
    stream.slot = run.cameras.size();
    run.cameras.push_back(std::move(captured));
    return check_setup(run, handle, camera);
}

// Takes one frame from a camera. Returns kExitOk to go on, or a reported
// exit status.
int take_frame(CaptureRun &run, Stream &stream, FrameGetter get, int timeout_ms)
{
    CapturedCamera &camera = run.cameras[stream.slot];
    unsigned long handle = stream.handle.get();
    zelvideo::_isp_buf_t frame;
    int result;
    {
        LineWatch watch(LineWatch::Echo::Keep);
        result = get(handle, &frame, timeout_ms);
        if (result == ISP_ERR_REQUEST) {
            // Refused for its timing or sequence number (the library queued
            // the buffer again), or the dequeue itself failed.
            if (!count_refusal(camera, watch))
                return report_failure(camera_context(camera.camera), "taking a frame", result);
            if (++stream.refusals_in_a_row > kMaxRefusalsInARow)
                return report_failure(camera_context(camera.camera),
                                      "isp_get_frame_buf: " + std::to_string(kMaxRefusalsInARow) +
                                          " frames refused in a row",
                                      result);
            return kExitOk;
        }
        for (const LibraryLine &line : watch.lines())
            show_library_line(line);
    }
    if (result == ISP_ERR_NOT_READY)
        return kExitOk; // nothing ready after all, or Ctrl-C
    if (result != ISP_OK)
        return report_failure(camera_context(camera.camera), "taking a frame", result);

    stream.refusals_in_a_row = 0;
    std::string error = run.accept(camera, frame);
    if (!error.empty())
        return report_output_failure(run.files.failed_path(), error);
    if (stream.holding && (result = isp_put_frame_buf(handle, &stream.held)) != ISP_OK)
        return report_failure(camera_context(camera.camera), "isp_put_frame_buf", result);
    stream.held = frame;
    stream.holding = true;
    return kExitOk;
}

int wait_and_take(CaptureRun &run, std::vector<Stream *> &active, FrameGetter get)
{
    std::vector<unsigned long> handles;
    for (Stream *stream : active)
        handles.push_back(stream->handle.get());
    std::vector<int> ready(active.size(), 0);
    struct timeval timeout = {run.options.timeout_ms / 1000, (run.options.timeout_ms % 1000) * 1000};
    int result = isp_camera_wait_for_data(handles.data(), ready.data(), int(handles.size()), &timeout);
    if (result == ISP_ERR_WAIT_INTERRUPTED)
        return kExitOk;
    if (result < 0)
        return report_failure(std::to_string(active.size()) + " cameras", "isp_camera_wait_for_data", result);
    for (size_t i = 0; i < active.size(); ++i) {
        // The node is readable: a frame is there, so the getter need not wait.
        if (ready[i]) {
            int status = take_frame(run, *active[i], get, 0);
            if (status != kExitOk)
                return status;
        }
    }
    return kExitOk;
}

int frame_loop(CaptureRun &run, std::vector<Stream> &streams)
{
    // Decimation is the library's: its getter hands the skipped frames back.
    FrameGetter get = run.options.drop ? isp_get_expected_frame : isp_get_frame_buf;
    while (run.time_left()) {
        std::vector<Stream *> active;
        for (Stream &stream : streams)
            if (!run.camera_done(run.cameras[stream.slot]))
                active.push_back(&stream);
        if (active.empty())
            break;
        int status = active.size() == 1 ? take_frame(run, *active[0], get, run.options.timeout_ms)
                                        : wait_and_take(run, active, get);
        if (status != kExitOk)
            return status;
    }
    return kExitOk;
}

} // namespace

int run_stream_capture(CaptureRun &run)
{
    std::vector<Stream> streams(run.options.cameras.size());
    for (size_t i = 0; i < streams.size(); ++i) {
        int status = set_up(run, streams[i], run.options.cameras[i]);
        if (status != kExitOk)
            return status;
    }
    // The trigger record names no camera: one request sets the mode for the
    // platform, so it is sent once, through the first camera's handle.
    set_trigger(run, camera_trigger(streams.front().handle.get()));
    for (Stream &stream : streams) {
        CallResult start = call_library([&] { return isp_start_capture(stream.handle.get()); });
        if (start.result != ISP_OK)
            return report_failure(camera_context(stream.handle.camera()), "isp_start_capture", start);
    }

    int status = kExitOk;

    run.start_clock();
    status = frame_loop(run, streams);
    run.stop_clock();

    for (Stream &stream : streams) {
        int result = isp_stop_capture(stream.handle.get());
        if (result != ISP_OK && status == kExitOk)
            status = report_failure(camera_context(stream.handle.camera()), "isp_stop_capture", result);
    }
    // Streaming is off but the buffers stay mapped until the camera is
    // closed, so the frames still held can be written now, off the clock.
    for (Stream &stream : streams) {
        if (status != kExitOk || !stream.holding)
            continue;
        CapturedCamera &camera = run.cameras[stream.slot];
        std::string error = run.files.last(camera.camera, camera.views, stream.held);
        if (!error.empty())
            status = report_output_failure(run.files.failed_path(), error);
    }
    return status;
}

} // namespace zcam
