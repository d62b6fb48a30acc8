/*
 * api_model.h - a small reference model of the library's camera and group
 * state machines, and of the driver queue they talk to, for the random API
 * sequences.
 *
 * The model says, for each exported call, what result the library must give
 * and what state the objects must be in afterwards. It models the driver
 * only as far as the library's results depend on it: which buffers the
 * driver holds (queued in order, or filled and waiting), the scripted
 * frames not yet delivered, the view formats and one control.
 */
#ifndef ZELISP_TESTS_API_MODEL_H
#define ZELISP_TESTS_API_MODEL_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "zelisp.h"
#include "zelisp_sim/sim.h"

namespace zelisp_reliability {

// One video node of the driver.
struct NodeModel {
    enum class Buffer { User, Queued, Filled };
    struct Frame {
        int index;
        zsim::ScriptedFrame data;
    };
    std::vector<Buffer> buffers;
    std::deque<int> queued;
    std::deque<Frame> filled;
    std::deque<zsim::ScriptedFrame> script;
    bool streaming = false;

    void Deliver();
    void Push(const zsim::ScriptedFrame &frame);
    int Queue(uint32_t index); // 0 or -1 (the driver refuses)
    void StreamOff();
    void Release(); // the last descriptor of the node closed
};

// The fault armed for the next call, as the model understands it.
struct ModelFault {
    enum Kind { None, ReqBufs, Mmap, ExpBuf, SetFormat, QueueBuf, StreamOn, DequeueBuf, StreamOff, SetCtrl, Close };
    Kind kind = None;
    int nth = 1; // 1-based occurrence within the call
};

// The driver side of one camera: its two nodes and what they share.
struct CameraDriverModel {
    NodeModel nodes[2]; // mode 1 node, mode 2 node
    zelvideo::_view_format_t views[3] = {
        {zsim::kNV12, 1920, 1080}, {zsim::kNV12, 1280, 720}, {zsim::kNV12, 640, 360}};
    uint32_t brightness = 128;
    bool present = true;
};

// One IspVideo object.
struct CameraModel {
    int camera = 0;
    uint32_t state = 0;
    int mode = 1;
    int buffer_count = 0;
    int plane_count = 0;
    uint32_t view_mask = 0;
    uint64_t last_timestamp_us = 0;
    uint32_t last_sequence = 0;
    uint32_t decimation = 0, keep_interval = 0, drop_interval = 0;
    std::set<std::pair<int, int>> failed_exports; // (buffer, view)

    NodeModel &Node(std::map<int, CameraDriverModel> &driver) const
    {
        return driver[camera].nodes[mode == 2 ? 1 : 0];
    }
};

class ApiModel {
public:
    std::map<int, CameraDriverModel> driver;

    int Open(CameraModel &camera, int camera_index, int mode);
    int Close(CameraModel &camera, const ModelFault &fault);
    int Init(CameraModel &camera, uint32_t combination, int32_t buffer_num, const ModelFault &fault);
    int StartCapture(CameraModel &camera, const ModelFault &fault);
    int StopCapture(CameraModel &camera, const ModelFault &fault);
    // The frame the library must hand out, when the result is 0.
    int GetFrame(CameraModel &camera, const ModelFault &fault, NodeModel::Frame *taken);
    int PutFrame(CameraModel &camera, uint32_t index);
    int PutFrameByIndex(CameraModel &camera, int32_t index);
    int SetFrameDropNum(CameraModel &camera, int32_t total, int32_t drop);
    int GetExpectedFrame(CameraModel &camera, NodeModel::Frame *taken);
    int SetViewFormat(CameraModel &camera, int view, const zelvideo::_view_format_t &format);
    int GetViewFormat(CameraModel &camera, int view, zelvideo::_view_format_t *format);
    int GetViewBufFd(const CameraModel &camera, int32_t buffer, uint32_t view); // -1, or 1 for "a descriptor"
};

} // namespace zelisp_reliability

#endif
