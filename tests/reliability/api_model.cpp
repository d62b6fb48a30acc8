#include "api_model.h"

namespace zelisp_reliability {

void NodeModel::Deliver()
{
    while (streaming && !script.empty() && !queued.empty()) {
        int index = queued.front();
        queued.pop_front();
        buffers[size_t(index)] = Buffer::Filled;
        filled.push_back({index, script.front()});
        script.pop_front();
    }
}

void NodeModel::Push(const zsim::ScriptedFrame &frame)
{
    script.push_back(frame);
    Deliver();
}

int NodeModel::Queue(uint32_t index)
{
    if (index >= buffers.size() || buffers[index] != Buffer::User)
        return -1;
    buffers[index] = Buffer::Queued;
    queued.push_back(int(index));
    Deliver();
    return 0;
}

void NodeModel::StreamOff()
{
    streaming = false;
    for (Buffer &buffer : buffers)
        buffer = Buffer::User;
    queued.clear();
    filled.clear();
}

void NodeModel::Release()
{
    StreamOff();
    buffers.clear();
}

int ApiModel::Open(CameraModel &camera, int camera_index, int mode)
{
    if (camera.state != 0)
        return ISP_ERR_STATE;
    camera.camera = camera_index;
    camera.mode = mode == 2 ? 2 : 1;
    if (!driver[camera_index].present)
        return ISP_ERR_NO_NODE;
    camera.state = 1;
    return ISP_OK;
}

int ApiModel::Close(CameraModel &camera, const ModelFault &fault)
{
    if (camera.state == 0)
        return ISP_ERR_STATE;
    camera.Node(driver).Release();
    camera.failed_exports.clear();
    if (fault.kind == ModelFault::Close)
        return ISP_ERR_CLOSE;
    camera.buffer_count = 0;
    camera.state = 0;
    return ISP_OK;
}

int ApiModel::Init(CameraModel &camera, uint32_t combination, int32_t buffer_num, const ModelFault &fault)
{
    if (camera.state != 1)
        return ISP_ERR_STATE;
    if (uint32_t(buffer_num) < 3 || uint32_t(buffer_num) > 8)
        return ISP_ERR_BUFFER_COUNT;
    uint32_t mask = 1;
    int planes = 1;
    if (camera.mode == 1) {
        camera.plane_count = 0;
        for (int view = 0; view < 3; ++view) {
            if (!((combination >> view) & 1))
                continue;
            ++camera.plane_count;
            if (fault.kind == ModelFault::SetFormat && fault.nth == camera.plane_count)
                return ISP_ERR_REQUEST;
        }
        mask = combination;
        planes = camera.plane_count;
    }
    camera.view_mask = mask;
    camera.plane_count = planes;
    if (fault.kind == ModelFault::ReqBufs)
        return ISP_ERR_REQUEST;
    NodeModel &node = camera.Node(driver);
    node.buffers.assign(size_t(buffer_num), NodeModel::Buffer::User);
    node.queued.clear();
    node.filled.clear();
    camera.buffer_count = buffer_num;
    if (fault.kind == ModelFault::Mmap && fault.nth <= buffer_num * planes)
        return ISP_ERR_MAP;
    camera.failed_exports.clear();
    if (fault.kind == ModelFault::ExpBuf && fault.nth <= buffer_num * planes) {
        int buffer = (fault.nth - 1) / planes, plane = (fault.nth - 1) % planes;
        int view = -1;
        for (int v = 0, seen = 0; v < 3; ++v)
            if ((mask >> v) & 1 && seen++ == plane)
                view = v;
        camera.failed_exports.insert({buffer, view});
    }
    camera.state = 2;
    return ISP_OK;
}

int ApiModel::StartCapture(CameraModel &camera, const ModelFault &fault)
{
    if (camera.state != 2)
        return ISP_ERR_STATE;
    NodeModel &node = camera.Node(driver);
    for (int buffer = 0; buffer < camera.buffer_count; ++buffer) {
        if (fault.kind == ModelFault::QueueBuf && fault.nth == buffer + 1)
            return ISP_ERR_REQUEST;
        if (node.Queue(uint32_t(buffer)) != 0)
            return ISP_ERR_REQUEST;
    }
    if (fault.kind == ModelFault::StreamOn)
        return ISP_ERR_REQUEST;
    node.streaming = true;
    node.Deliver();
    camera.state = 4;
    return ISP_OK;
}

int ApiModel::StopCapture(CameraModel &camera, const ModelFault &fault)
{
    if (camera.state != 4)
        return ISP_ERR_STATE;
    if (fault.kind == ModelFault::StreamOff)
        return ISP_ERR_REQUEST;
    camera.Node(driver).StreamOff();
    camera.state = 2;
    return ISP_OK;
}

int ApiModel::GetFrame(CameraModel &camera, const ModelFault &fault, NodeModel::Frame *taken)
{
    if (camera.state != 4)
        return ISP_ERR_STATE;
    if (fault.kind == ModelFault::DequeueBuf)
        return ISP_ERR_REQUEST;
    NodeModel &node = camera.Node(driver);
    if (node.filled.empty())
        return ISP_ERR_NOT_READY;
    NodeModel::Frame frame = node.filled.front();
    node.filled.pop_front();
    node.buffers[size_t(frame.index)] = NodeModel::Buffer::User;
    uint64_t time_us = frame.data.timestamp_us;
    bool late_sequence = camera.last_sequence != 0 && camera.last_sequence >= frame.data.sequence;
    bool close_time = camera.last_timestamp_us != 0 &&
                      (camera.last_timestamp_us >= time_us || time_us - camera.last_timestamp_us < 12000);
    if (late_sequence || close_time) {
        node.Queue(uint32_t(frame.index));
        return ISP_ERR_REQUEST;
    }
    camera.last_sequence = frame.data.sequence;
    camera.last_timestamp_us = time_us;
    *taken = frame;
    return ISP_OK;
}

int ApiModel::PutFrame(CameraModel &camera, uint32_t index)
{
    if (camera.state != 4)
        return ISP_ERR_STATE;
    return camera.Node(driver).Queue(index) == 0 ? ISP_OK : ISP_ERR_REQUEST;
}

int ApiModel::PutFrameByIndex(CameraModel &camera, int32_t index)
{
    if (index < 0)
        return ISP_ERR_INVALID; // refused by the exported front, before the state
    if (camera.state != 4)
        return ISP_ERR_STATE;
    if (index >= camera.buffer_count)
        return ISP_ERR_INVALID;
    return camera.Node(driver).Queue(uint32_t(index)) == 0 ? ISP_OK : ISP_ERR_REQUEST;
}

int ApiModel::SetFrameDropNum(CameraModel &camera, int32_t total, int32_t drop)
{
    if (total < 1 || total > 120 || drop < 0 || total <= drop)
        return ISP_ERR_INVALID;
    if (drop == 0) {
        camera.decimation = 0;
        return ISP_OK;
    }
    int32_t keep = total - drop;
    if (keep >= drop) {
        if (total % drop != 0)
            return ISP_ERR_INVALID;
        camera.drop_interval = uint32_t(total / drop);
        camera.decimation = 2;
        return ISP_OK;
    }
    if (total % keep != 0)
        return ISP_ERR_INVALID;
    camera.keep_interval = uint32_t(total / keep);
    camera.decimation = 1;
    return ISP_OK;
}

int ApiModel::GetExpectedFrame(CameraModel &camera, NodeModel::Frame *taken)
{
    const ModelFault none;
    for (;;) {
        NodeModel::Frame frame{};
        int result = GetFrame(camera, none, &frame);
        if (result != ISP_OK)
            return result;
        uint32_t sequence = frame.data.sequence;
        bool returned = camera.decimation == 0 ||
                        (camera.decimation == 2 && sequence % camera.drop_interval != 0) ||
                        (camera.decimation == 1 && sequence % camera.keep_interval == 0);
        if (returned) {
            *taken = frame;
            return ISP_OK;
        }
        PutFrameByIndex(camera, frame.index);
    }
}

int ApiModel::SetViewFormat(CameraModel &camera, int view, const zelvideo::_view_format_t &format)
{
    if (camera.state != 1 && camera.state != 2)
        return ISP_ERR_STATE;
    bool valid = view >= 0 && view < 3 && format.width && format.height && !(format.width & 1) &&
                 !(format.height & 1) && format.width <= 1920 && format.height <= 1080;
    if (!valid)
        return ISP_ERR_REQUEST;
    driver[camera.camera].views[view] = format;
    return ISP_OK;
}

int ApiModel::GetViewFormat(CameraModel &camera, int view, zelvideo::_view_format_t *format)
{
    if (camera.state == 0)
        return ISP_ERR_STATE;
    if (view < 0 || view > 2)
        return ISP_ERR_INVALID;
    *format = driver[camera.camera].views[view];
    return ISP_OK;
}

int ApiModel::GetViewBufFd(const CameraModel &camera, int32_t buffer, uint32_t view)
{
    if (camera.state != 2)
        return ISP_ERR_STATE;
    if (buffer < 0 || buffer >= camera.buffer_count || view > 2)
        return ISP_ERR_INVALID;
    if (!((camera.view_mask >> view) & 1) || camera.failed_exports.count({buffer, int(view)}))
        return -1;
    return 1;
}

} // namespace zelisp_reliability
