/*
 * random_sequences_test.cpp - random sequences of exported calls, run on
 * the library over the simulated driver and on the reference model
 * (api_model.h) side by side.
 *
 * Each sequence starts from a fresh simulator and makes short random runs
 * of calls on two single cameras and one group: valid and invalid
 * arguments, calls in every state, scripted frames that are in order, too
 * close or out of sequence, injected driver failures and EINTR storms.
 * After every call the result, the frame handed out and the state of every
 * object must equal the model's; at the end everything is closed and the
 * simulator must hold no descriptor and no mapping.
 *
 * Sequence n uses seed ZELISP_RANDOM_SEED (default 1) + n, so a failure
 * names the one seed that replays it: ZELISP_RANDOM_SEED=<seed>
 * ZELISP_RANDOM_SEQUENCES=1. ZELISP_RANDOM_SEQUENCES (default 10000) is the
 * total over the shards below.
 */
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "api_model.h"
#include "reliability.h"
#include "sim_fixture.h"

namespace zelisp_reliability {
namespace {

constexpr int kShards = 10;
constexpr int kStepsPerSequence = 60;
constexpr int kGroupCameras[] = {2, 3};
constexpr int kMissingCamera = 5;

// What the sequences reached, to show they go deep enough to matter.
struct Reached {
    uint64_t calls = 0, successes = 0, frames = 0, refused_frames = 0, faults = 0, storms = 0, group_frame_sets = 0;
};

struct Slot {
    unsigned long handle = 0;
    CameraModel model;
    std::vector<zelvideo::_isp_buf_t> held;
};

struct GroupSlot {
    unsigned long handle = 0;
    uint32_t state = 0;
    uint32_t type = 0;
    std::vector<int> members;
    std::map<int, CameraModel> cameras;
    zelvideo::_isp_buf_t frames[3] = {};
};

class Sequence {
public:
    Sequence(uint64_t seed, Reached *reached) : random_(seed), reached_(*reached) {}

    // Runs the sequence; returns "" or what differed, with the calls made.
    std::string Run();

private:
    uint32_t Pick(uint32_t n) { return uint32_t(random_() % n); }
    bool Chance(int percent) { return Pick(100) < uint32_t(percent); }

    void Note(const std::string &call) { trace_ += "  " + call + "\n"; }
    void Expect(const char *what, long long actual, long long expected)
    {
        ++reached_.calls;
        reached_.successes += actual == 0 && expected == 0;
        if (finding_.empty() && actual != expected)
            finding_ = std::string(what) + " is " + std::to_string(actual) + ", the model says " +
                       std::to_string(expected);
    }

    std::string Path(int camera, int mode) const
    {
        return "/dev/video" + std::to_string(mode == 2 ? camera + 12 : camera);
    }
    int NodeNumber(const CameraModel &camera) const { return camera.mode == 2 ? camera.camera + 12 : camera.camera; }

    ModelFault ArmFault(const CameraModel &camera, std::initializer_list<ModelFault::Kind> kinds, int max_nth);
    void ArmInterrupts();
    void PushFrame(const CameraModel &camera);
    void CheckFrame(const zelvideo::_isp_buf_t &got, const CameraModel &camera, const NodeModel::Frame &expected);
    void CheckStates();

    void CameraStep(Slot &slot);
    void GroupStep();
    // What a group step that walks the members until one fails should
    // return: -4 outside `from`, else the first member's failure; the
    // group moves to `to` only when every member made the step.
    template <typename Step>
    int MemberWalk(uint32_t from, uint32_t to, Step step)
    {
        if (group_.state != from)
            return ISP_ERR_STATE;
        int expected = ISP_OK;
        for (size_t i = 0; i < group_.members.size() && expected == ISP_OK; ++i)
            expected = step(group_.cameras[group_.members[i]]);
        if (expected == ISP_OK)
            group_.state = to;
        return expected;
    }
    void CreateGroup();
    void DestroyGroup();
    void Finish();

    std::mt19937_64 random_;
    ApiModel model_;
    Slot slots_[2];
    GroupSlot group_;
    std::map<int, std::pair<uint32_t, uint64_t>> pushed_; // node -> last sequence, time
    std::string trace_;
    std::string finding_;
    bool interrupted_ = false;
    Reached &reached_;
};

ModelFault Sequence::ArmFault(const CameraModel &camera, std::initializer_list<ModelFault::Kind> kinds, int max_nth)
{
    ModelFault fault;
    // One kind of trouble per call: an interrupted attempt counts as an
    // occurrence of its request, which would shift the failing one.
    if (interrupted_ || !Chance(15))
        return fault;
    fault.kind = *(kinds.begin() + Pick(uint32_t(kinds.size())));
    // Only mappings, exports, formats and queueing come several times in one call.
    bool repeated = fault.kind == ModelFault::Mmap || fault.kind == ModelFault::ExpBuf ||
                    fault.kind == ModelFault::SetFormat || fault.kind == ModelFault::QueueBuf;
    fault.nth = repeated ? 1 + int(Pick(uint32_t(max_nth))) : 1;
    ++reached_.faults;
    static const struct {
        ModelFault::Kind kind;
        uint32_t request;
        int err;
    } requests[] = {{ModelFault::ReqBufs, VIDIOC_REQBUFS, ENOMEM},  {ModelFault::Mmap, zsim::kMmap, ENOMEM},
                    {ModelFault::ExpBuf, VIDIOC_EXPBUF, EMFILE},    {ModelFault::SetFormat, VIDIOC_S_FMT, EINVAL},
                    {ModelFault::QueueBuf, VIDIOC_QBUF, EIO},       {ModelFault::StreamOn, VIDIOC_STREAMON, EIO},
                    {ModelFault::DequeueBuf, VIDIOC_DQBUF, EIO},    {ModelFault::StreamOff, VIDIOC_STREAMOFF, EIO},
                    {ModelFault::SetCtrl, VIDIOC_S_CTRL, ERANGE},   {ModelFault::Close, zsim::kClose, EIO}};
    for (const auto &request : requests) {
        if (request.kind == fault.kind) {
            zsim::fail_request(request.request, fault.nth, request.err, Path(camera.camera, camera.mode));
            Note("  fault: request " + std::to_string(request.request) + " #" + std::to_string(fault.nth));
        }
    }
    return fault;
}

// Interruptions are invisible: every video-node request is repeated.
void Sequence::ArmInterrupts()
{
    interrupted_ = false;
    if (!Chance(10))
        return;
    interrupted_ = true;
    ++reached_.storms;
    static const uint32_t requests[] = {VIDIOC_QBUF,   VIDIOC_DQBUF,   VIDIOC_REQBUFS, VIDIOC_QUERYBUF,
                                        VIDIOC_EXPBUF, VIDIOC_S_FMT,   VIDIOC_G_FMT,   VIDIOC_S_INPUT,
                                        VIDIOC_STREAMON, VIDIOC_STREAMOFF, VIDIOC_S_CTRL, VIDIOC_G_CTRL};
    uint32_t request = requests[Pick(sizeof requests / sizeof requests[0])];
    zsim::interrupt_request(request, 1 + int(Pick(3)), "", true);
    Note("  EINTR storm on request " + std::to_string(request));
}

// Mostly frames that follow, sometimes a repeated sequence number or a
// frame closer than 12 ms to the previous one.
void Sequence::PushFrame(const CameraModel &camera)
{
    int node = NodeNumber(camera);
    auto &last = pushed_[node];
    static const uint32_t steps[] = {1, 1, 1, 2, 0};
    static const uint64_t gaps[] = {33333, 33333, 12000, 11999, 4000};
    zsim::ScriptedFrame frame;
    frame.sequence = last.first + steps[Pick(5)];
    frame.timestamp_us = last.second + gaps[Pick(5)];
    frame.reserved = Pick(1000);
    last = {frame.sequence, frame.timestamp_us};
    zsim::push_frame(node, frame);
    camera.Node(model_.driver).Push(frame);
    Note("push_frame(" + std::to_string(node) + ", seq " + std::to_string(frame.sequence) + ", t " +
         std::to_string(frame.timestamp_us) + ")");
}

void Sequence::CheckFrame(const zelvideo::_isp_buf_t &got, const CameraModel &camera,
                          const NodeModel::Frame &expected)
{
    Expect("frame index", got.index, expected.index);
    for (int view = 0; view < 3; ++view) {
        if (!((camera.view_mask >> view) & 1))
            continue;
        Expect("frame sequence", got.views[view].sequence, expected.data.sequence);
        Expect("frame time", (long long)got.views[view].timestamp, (long long)expected.data.timestamp_us);
        Expect("frame driver word", got.views[view].driver_data, expected.data.reserved);
    }
}

void Sequence::CheckStates()
{
    for (Slot &slot : slots_) {
        if (!slot.handle)
            continue;
        const zelisp::IspVideo &camera = Camera(slot.handle);
        Expect("camera state", camera.state, slot.model.state);
        Expect("buffer count", camera.buffer_count, slot.model.buffer_count);
        Expect("last sequence", camera.last_sequence, slot.model.last_sequence);
        Expect("last time", (long long)camera.last_timestamp_us, (long long)slot.model.last_timestamp_us);
        if (slot.model.state >= 2)
            Expect("view mask", camera.view_mask, slot.model.view_mask);
    }
    if (group_.handle) {
        Expect("group state", GroupState(group_.handle), group_.state);
        const zelisp::IspVideoGroup &group = Group(group_.handle);
        if (group.state != zelisp::GROUP_CREATED) {
            for (size_t i = 0; i < group_.members.size(); ++i)
                Expect("member state", MemberState(group_.handle, int(i)), group_.cameras[group_.members[i]].state);
        }
    }
}

void Sequence::CameraStep(Slot &slot)
{
    const int camera_index = int(&slot - slots_);
    CameraModel &m = slot.model;
    const unsigned long h = slot.handle;
    // A zero handle now and then: every front refuses it with -15.
    // A zero handle or a null pointer now and then: every front refuses
    // it with -15 before it looks at any object.
    if (h && Chance(3)) {
        Note("calls with handle 0 or null pointers");
        zelvideo::_isp_buf_t buf{};
        zelvideo::_view_format_t format{};
        int64_t fd = 0;
        const int refused[] = {
            isp_close_video(0),
            isp_camera_get_native_fd(0, &fd),
            isp_init_video(0, 1, 3),
            isp_resize_resolution(0, nullptr),
            isp_start_capture(0),
            isp_stop_capture(0),
            isp_get_frame_buf(0, &buf, 0),
            isp_get_frame_buf(h, nullptr, 0),
            isp_put_frame_buf(0, &buf),
            isp_put_frame_buf(h, nullptr),
            isp_put_frame_buf_by_index(0, 0),
            isp_get_view_format(0, 0, &format),
            isp_get_view_format(h, 0, nullptr),
            isp_get_view_buf_fd(0, 0, 0),
            isp_set_frame_drop_num(0, 30, 10),
            isp_get_expected_frame(0, &buf, 0),
            isp_get_expected_frame(h, nullptr, 0),
            isp_camera_set_brightness(0, 1),
            isp_camera_get_brightness(h, nullptr),
        };
        for (int result : refused)
            Expect("call with handle 0 or a null pointer", result, ISP_ERR_INVALID);
        return;
    }
    if (!h) {
        static const int modes[] = {1, 2, 1, 2, 0, 3};
        int mode = modes[Pick(6)];
        uint32_t index = Chance(10) ? 12 : uint32_t(camera_index);
        Note("open(" + std::to_string(index) + ", " + std::to_string(mode) + ")");
        slot.handle = isp_open_video(index, mode);
        slot.model = CameraModel();
        bool opens = index < 12 && (mode == 1 || mode == 2) && model_.Open(slot.model, int(index), mode) == 0;
        Expect("open handle is nonzero", slot.handle != 0, opens);
        if (!opens)
            slot.model = CameraModel();
        return;
    }
    ArmInterrupts();
    // Half the calls take the camera on along its life, so that sequences
    // reach capturing and frames; the others are anything, anywhere.
    static const uint32_t onwards[][5] = {{1, 1, 1, 1, 1}, {1, 1, 1, 9, 12}, {2, 2, 13, 11, 2}, {}, {4, 6, 7, 10, 14}};
    const uint32_t call = Chance(50) && m.state <= 4 && m.state != 3 ? onwards[m.state][Pick(5)] : Pick(16);
    switch (call) {
    case 0: {
        ModelFault fault = ArmFault(m, {ModelFault::Close}, 1);
        Note("close");
        Expect("close", isp_close_video(h), 0);
        model_.Close(m, fault);
        slot = Slot();
        break;
    }
    case 1: {
        static const uint32_t combinations[] = {1, 2, 3, 4, 5, 6, 7, 7};
        static const int32_t counts[] = {3, 4, 8, 5, 2, 9, -1};
        uint32_t combination = combinations[Pick(8)];
        int32_t count = counts[Pick(7)];
        ModelFault fault = ArmFault(m, {ModelFault::ReqBufs, ModelFault::Mmap, ModelFault::ExpBuf, ModelFault::SetFormat},
                                    8);
        Note("init(" + std::to_string(combination) + ", " + std::to_string(count) + ")");
        Expect("init", isp_init_video(h, combination, count), model_.Init(m, combination, count, fault));
        break;
    }
    case 2: {
        ModelFault fault = ArmFault(m, {ModelFault::QueueBuf, ModelFault::StreamOn}, 4);
        Note("start");
        Expect("start", isp_start_capture(h), model_.StartCapture(m, fault));
        slot.held.clear();
        break;
    }
    case 3: {
        ModelFault fault = ArmFault(m, {ModelFault::StreamOff}, 1);
        Note("stop");
        Expect("stop", isp_stop_capture(h), model_.StopCapture(m, fault));
        break;
    }
    case 4:
    case 5:
        PushFrame(m);
        break;
    case 6: {
        ModelFault fault = ArmFault(m, {ModelFault::DequeueBuf}, 1);
        Note("get_frame");
        zelvideo::_isp_buf_t got{};
        NodeModel::Frame expected{};
        int result = isp_get_frame_buf(h, &got, 0);
        Expect("get_frame", result, model_.GetFrame(m, fault, &expected));
        reached_.refused_frames += result == ISP_ERR_REQUEST && fault.kind == ModelFault::None;
        if (result == ISP_OK) {
            ++reached_.frames;
            CheckFrame(got, m, expected);
            slot.held.push_back(got);
        }
        break;
    }
    case 7: {
        zelvideo::_isp_buf_t buf{};
        if (!slot.held.empty() && Chance(80)) {
            size_t which = Pick(uint32_t(slot.held.size()));
            buf = slot.held[which];
            slot.held.erase(slot.held.begin() + long(which));
        } else {
            buf.index = Pick(10);
        }
        Note("put_frame(index " + std::to_string(buf.index) + ")");
        Expect("put_frame", isp_put_frame_buf(h, &buf), model_.PutFrame(m, buf.index));
        break;
    }
    case 8: {
        int32_t index = int32_t(Pick(11)) - 1;
        Note("put_frame_by_index(" + std::to_string(index) + ")");
        Expect("put_frame_by_index", isp_put_frame_buf_by_index(h, index), model_.PutFrameByIndex(m, index));
        break;
    }
    case 9: {
        static const int32_t ratios[][2] = {{30, 10}, {30, 20}, {30, 15}, {30, 0}, {25, 10},
                                            {121, 1}, {10, 10}, {4, 3},   {5, 3},   {0, 0}};
        const int32_t *ratio = ratios[Pick(10)];
        Note("set_frame_drop_num(" + std::to_string(ratio[0]) + ", " + std::to_string(ratio[1]) + ")");
        Expect("set_frame_drop_num", isp_set_frame_drop_num(h, ratio[0], ratio[1]),
               model_.SetFrameDropNum(m, ratio[0], ratio[1]));
        break;
    }
    case 10: {
        Note("get_expected_frame");
        zelvideo::_isp_buf_t got{};
        NodeModel::Frame expected{};
        int result = isp_get_expected_frame(h, &got, 0);
        Expect("get_expected_frame", result, model_.GetExpectedFrame(m, &expected));
        if (result == ISP_OK) {
            CheckFrame(got, m, expected);
            slot.held.push_back(got);
        }
        break;
    }
    case 11: {
        static const uint32_t values[] = {0, 77, 255, 256, 0xFFFFFFFFu};
        uint32_t value = values[Pick(5)];
        ModelFault fault = ArmFault(m, {ModelFault::SetCtrl}, 1);
        Note("set_brightness(" + std::to_string(value) + ")");
        int expected = value > 255 ? ISP_ERR_INVALID : fault.kind == ModelFault::SetCtrl ? ISP_ERR_REQUEST : ISP_OK;
        if (value > 255)
            zsim::clear_faults();
        Expect("set_brightness", isp_camera_set_brightness(h, value), expected);
        if (expected == ISP_OK)
            model_.driver[m.camera].brightness = value;
        uint32_t read = 0;
        Expect("get_brightness", isp_camera_get_brightness(h, &read), ISP_OK);
        Expect("brightness", read, model_.driver[m.camera].brightness);
        break;
    }
    case 12: {
        int view = int(Pick(4));
        Note("get_view_format(" + std::to_string(view) + ")");
        zelvideo::_view_format_t got{}, expected{};
        int result = isp_get_view_format(h, uint32_t(view), &got);
        Expect("get_view_format", result, model_.GetViewFormat(m, view, &expected));
        if (result == ISP_OK && m.mode == 1) {
            Expect("view width", got.width, expected.width);
            Expect("view height", got.height, expected.height);
            Expect("view format", got.format, expected.format);
        }
        break;
    }
    case 13: {
        int32_t buffer = int32_t(Pick(10)) - 1;
        uint32_t view = Pick(4);
        Note("get_view_buf_fd(" + std::to_string(buffer) + ", " + std::to_string(view) + ")");
        int result = isp_get_view_buf_fd(h, uint32_t(buffer), view);
        int expected = model_.GetViewBufFd(m, buffer, view);
        Expect("get_view_buf_fd", expected == 1 ? result > 2 : result, expected);
        break;
    }
    case 14: {
        unsigned long handles[2];
        int count = 0;
        int expected_ready = 0;
        bool ready_model[2] = {false, false};
        for (Slot &other : slots_) {
            if (!other.handle)
                continue;
            const NodeModel &node = other.model.Node(model_.driver);
            ready_model[count] = !node.filled.empty();
            expected_ready += ready_model[count];
            handles[count++] = other.handle;
        }
        int ready[2] = {-1, -1};
        timeval poll_once = {0, 0};
        Note("wait_for_data(" + std::to_string(count) + " cameras)");
        int result = isp_camera_wait_for_data(handles, ready, count, &poll_once);
        Expect("wait_for_data", result, expected_ready ? expected_ready : ISP_ERR_TIMEOUT);
        for (int i = 0; i < count && result > 0; ++i)
            Expect("ready", ready[i], ready_model[i]);
        break;
    }
    default: {
        int64_t fd = -1;
        Note("get_native_fd");
        Expect("get_native_fd", isp_camera_get_native_fd(h, &fd), ISP_OK);
        Expect("native descriptor is valid", fd >= 0, true);
        break;
    }
    }
    zsim::clear_faults();
}

void Sequence::CreateGroup()
{
    static const struct {
        std::vector<int> members;
        int count;
        uint32_t type;
        bool named;
        int expected;
    } choices[] = {
        {{2, 3}, 2, 0, true, ISP_OK},           {{2, 3}, 2, 0, true, ISP_OK},
        {{3, 2}, 2, 1, true, ISP_OK},           {{2, 2}, 2, 0, true, ISP_OK},
        {{2, kMissingCamera}, 2, 0, true, ISP_OK}, {{}, 0, 0, true, ISP_OK},
        {{2, 12}, 2, 0, true, ISP_ERR_INVALID}, {{2, -1}, 2, 0, true, ISP_ERR_INVALID},
        {{2, 3, 2, 3, 2, 3, 2, 3, 2}, 9, 0, true, ISP_ERR_MISSING}, {{2}, 1, 0, false, ISP_ERR_MISSING},
    };
    bool empty_creator = Chance(10);
    const auto &choice = choices[Pick(sizeof choices / sizeof choices[0])];
    unsigned long handle = 0;
    int result;
    if (empty_creator) {
        Note("create_empty_video_group");
        result = isp_create_empty_video_group(&handle, 0, "empty", 2);
        Expect("create_empty_video_group", result, ISP_OK);
    } else {
        Note("create_video_group(" + std::to_string(choice.count) + " members)");
        result = isp_create_video_group(&handle, choice.type, choice.named ? "rig" : nullptr,
                                        choice.members.data(), choice.count);
        Expect("create_video_group", result, choice.expected);
    }
    Expect("group handed out", handle != 0, result == ISP_OK);
    if (result != ISP_OK)
        return;
    group_ = GroupSlot();
    group_.handle = handle;
    if (empty_creator) {
        group_.state = zelisp::GROUP_CREATED;
        return;
    }
    group_.state = zelisp::GROUP_READY;
    group_.type = choice.type;
    group_.members = choice.members;
    for (int member : group_.members)
        group_.cameras[member].camera = member;
}

void Sequence::DestroyGroup()
{
    Note("destroy_video_group");
    Expect("destroy_video_group", isp_destroy_video_group(group_.handle), ISP_OK);
    const ModelFault none;
    for (auto &camera : group_.cameras)
        model_.Close(camera.second, none);
    group_ = GroupSlot();
}

void Sequence::GroupStep()
{
    if (!group_.handle) {
        CreateGroup();
        return;
    }
    const unsigned long g = group_.handle;
    const ModelFault none;
    const uint32_t state = group_.state;
    auto member = [this](size_t i) -> CameraModel & { return group_.cameras[group_.members[i]]; };
    auto in = [state](std::initializer_list<uint32_t> states) {
        for (uint32_t accepted : states)
            if (state == accepted)
                return true;
        return false;
    };
    // The lookups refuse a group that is not created or has no members.
    bool lookups_refused = in({zelisp::GROUP_NONE, zelisp::GROUP_CREATED});
    ArmInterrupts();
    uint32_t call = Pick(14);
    if (Chance(50)) {
        static const uint32_t capturing[] = {5, 6, 7, 8, 8, 7};
        switch (state) {
        case zelisp::GROUP_READY: call = 0; break;
        case zelisp::GROUP_OPENED: call = Chance(80) ? 1 : 9; break;
        case zelisp::GROUP_INITED: call = 2; break;
        case zelisp::GROUP_CAPTURING: call = capturing[Pick(6)]; break;
        default: break;
        }
    }
    switch (call) {
    case 0: {
        int mode = Chance(30) ? 2 : 1;
        int results[8];
        memset(results, 0x55, sizeof results);
        Note("group_open(" + std::to_string(mode) + ")");
        int expected = ISP_ERR_STATE;
        if (state == zelisp::GROUP_READY) {
            expected = ISP_OK;
            for (size_t i = 0; i < group_.members.size(); ++i) {
                if (model_.Open(member(i), group_.members[i], mode) != ISP_OK)
                    expected = ISP_ERR_OPEN;
            }
            if (expected == ISP_OK)
                group_.state = zelisp::GROUP_OPENED;
        }
        Expect("group_open", isp_group_open_video(g, mode, results), expected);
        break;
    }
    case 1: {
        static const uint32_t counts[] = {3, 4, 2, 8};
        uint32_t combination = 1 + Pick(7), count = counts[Pick(4)];
        Note("group_init(" + std::to_string(combination) + ", " + std::to_string(count) + ")");
        const int expected = MemberWalk(zelisp::GROUP_OPENED, zelisp::GROUP_INITED, [&](CameraModel &camera) {
            return model_.Init(camera, combination, int32_t(count), none);
        });
        Expect("group_init", isp_group_init_video(g, combination, count), expected);
        break;
    }
    case 2:
    case 3: {
        const bool start = call == 2;
        const char *name = start ? "group_start" : "group_stop";
        Note(name);
        const int expected =
            start ? MemberWalk(zelisp::GROUP_INITED, zelisp::GROUP_CAPTURING,
                               [&](CameraModel &camera) { return model_.StartCapture(camera, none); })
                  : MemberWalk(zelisp::GROUP_CAPTURING, zelisp::GROUP_INITED,
                               [&](CameraModel &camera) { return model_.StopCapture(camera, none); });
        Expect(name, start ? isp_group_start_captrue(g) : isp_group_stop_captrue(g), expected);
        break;
    }
    case 4: {
        Note("group_close");
        int expected = ISP_ERR_STATE;
        if (in({zelisp::GROUP_OPENED, zelisp::GROUP_INITED, zelisp::GROUP_CAPTURING})) {
            expected = ISP_OK;
            for (size_t i = 0; i < group_.members.size(); ++i)
                model_.Close(member(i), none);
            group_.state = zelisp::GROUP_NONE;
        }
        Expect("group_close", isp_group_close_video(g), expected);
        break;
    }
    case 5:
    case 6:
        if (!group_.members.empty())
            PushFrame(member(Pick(uint32_t(group_.members.size()))));
        break;
    case 7: {
        int count = 1 + int(Pick(3));
        Note("group_get_sync_frame(" + std::to_string(count) + ")");
        int expected = ISP_ERR_STATE;
        std::vector<NodeModel::Frame> taken(group_.members.size());
        size_t filled = 0;
        if (state == zelisp::GROUP_CAPTURING) {
            expected = int(group_.members.size()) > count ? ISP_ERR_MISSING : ISP_OK;
            for (size_t i = 0; expected == ISP_OK && i < group_.members.size(); ++i) {
                expected = model_.GetFrame(member(i), none, &taken[i]);
                filled += expected == ISP_OK;
            }
        }
        Expect("group_get_sync_frame", zelvideo::isp_group_get_sync_frame(g, group_.frames, count, 0), expected);
        for (size_t i = 0; i < filled; ++i)
            CheckFrame(group_.frames[i], member(i), taken[i]);
        reached_.group_frame_sets += expected == ISP_OK;
        break;
    }
    case 8: {
        Note("group_put_frame");
        int expected = ISP_ERR_STATE;
        if (state == zelisp::GROUP_CAPTURING) {
            expected = ISP_OK;
            for (size_t i = 0; i < group_.members.size() && expected == ISP_OK; ++i)
                expected = model_.PutFrame(member(i), group_.frames[i].index);
        }
        Expect("group_put_frame", zelvideo::isp_group_put_frame(g, group_.frames, 3), expected);
        break;
    }
    case 9: {
        static const zelvideo::_view_format_t formats[] = {
            {zsim::kNV12, 640, 360}, {zsim::kNV12, 1280, 720}, {zsim::kNV12, 4000, 3000}, {zsim::kNV12, 641, 360}};
        int view = int(Pick(4));
        const zelvideo::_view_format_t &format = formats[Pick(4)];
        Note("group_set_view_format(" + std::to_string(view) + ", " + std::to_string(format.width) + ")");
        int expected = ISP_ERR_STATE;
        if (in({zelisp::GROUP_OPENED, zelisp::GROUP_INITED}) && group_.type == 0) {
            expected = ISP_OK;
            for (size_t i = 0; i < group_.members.size(); ++i)
                model_.SetViewFormat(member(i), view, format);
        }
        Expect("group_set_view_format", zelvideo::isp_group_set_view_format(g, view, format), expected);
        break;
    }
    case 10: {
        int view = int(Pick(3));
        zelvideo::_view_format_t got[8] = {};
        Note("group_get_view_format(" + std::to_string(view) + ")");
        int result = zelvideo::isp_group_get_view_format(g, view, got);
        if (!in({zelisp::GROUP_OPENED, zelisp::GROUP_INITED, zelisp::GROUP_CAPTURING})) {
            Expect("group_get_view_format", result, ISP_ERR_STATE);
            break;
        }
        Expect("group_get_view_format", result, ISP_OK);
        for (size_t i = 0; i < group_.members.size(); ++i) {
            zelvideo::_view_format_t expected{};
            if (model_.GetViewFormat(member(i), view, &expected) == ISP_OK && member(i).mode == 1)
                Expect("member view width", got[i].width, expected.width);
        }
        break;
    }
    case 11: {
        int index = int(Pick(6));
        Note("group lookups(" + std::to_string(index) + ")");
        bool is_member = false;
        for (int m : group_.members)
            is_member |= m == index;
        Expect("get_single_camera_handle", isp_get_single_camera_handle(g, index),
               lookups_refused ? ISP_ERR_STATE : is_member ? ISP_OK : ISP_ERR_INVALID);
        zelvideo::_camera_info_t info{};
        info.camera_index = -7;
        // A camera the platform does not list (4 and 5 here) is refused
        // like a non-member rather than leaving the record untouched.
        Expect("group_get_video_info", isp_group_get_video_info(g, index, &info),
               lookups_refused ? ISP_ERR_STATE : index < 4 ? ISP_OK : ISP_ERR_INVALID);
        if (!lookups_refused)
            Expect("video info camera", info.camera_index, index < 4 ? index : -7);
        break;
    }
    case 12:
        if (Chance(30)) {
            Note("group calls with null pointers");
            unsigned long unused = 0;
            const int refused[] = {
                zelvideo::isp_group_get_view_format(g, 0, nullptr),
                zelvideo::isp_group_get_sync_frame(g, nullptr, 3, 0),
                zelvideo::isp_group_put_frame(g, nullptr, 3),
                isp_group_get_video_info(g, 0, nullptr),
                isp_group_open_video(g, 1, nullptr),
                isp_create_video_group(nullptr, 0, "rig", kGroupCameras, 2),
                isp_create_video_group(&unused, 0, "rig", nullptr, 2),
                isp_create_empty_video_group(nullptr, 0, "rig", 2),
            };
            for (int result : refused)
                Expect("group call with a null pointer", result, ISP_ERR_INVALID);
            Expect("no group handed out", (long long)unused, 0);
        }
        Note("group triggers");
        Expect("group internal trigger", isp_group_set_internal_trigger(g, 1, 2, 3), ISP_OK);
        Expect("group external trigger", isp_group_set_external_trigger(g, 9, 9, 9), ISP_OK);
        break;
    default:
        DestroyGroup();
        break;
    }
    zsim::clear_faults();
}

void Sequence::Finish()
{
    const ModelFault none;
    for (Slot &slot : slots_) {
        if (slot.handle)
            Expect("final close", isp_close_video(slot.handle), ISP_OK);
        slot = Slot();
    }
    if (group_.handle)
        DestroyGroup();
    Expect("live descriptors", (long long)zsim::live_descriptors(), 0);
    Expect("live mappings", (long long)zsim::live_mappings(), 0);
}

std::string Sequence::Run()
{
    {
        Quiet quiet;
        ResetScripted();
        model_.driver[kMissingCamera].present = false;
        for (int step = 0; step < kStepsPerSequence && finding_.empty(); ++step) {
            uint32_t target = Pick(3);
            if (target < 2)
                CameraStep(slots_[target]);
            else
                GroupStep();
            CheckStates();
        }
        Finish();
    }
    return finding_.empty() ? "" : finding_ + "\ncalls:\n" + trace_;
}

uint64_t EnvNumber(const char *name, uint64_t fallback)
{
    const char *text = getenv(name);
    return text && *text ? strtoull(text, nullptr, 10) : fallback;
}

class RandomSequences : public zelisp_test::SimTest, public ::testing::WithParamInterface<int> {};

TEST_P(RandomSequences, LibraryAgreesWithTheModel)
{
    const uint64_t total = EnvNumber("ZELISP_RANDOM_SEQUENCES", 10000);
    const uint64_t first_seed = EnvNumber("ZELISP_RANDOM_SEED", 1);
    const uint64_t shard = uint64_t(GetParam());
    uint64_t run = 0;
    Reached reached;
    for (uint64_t n = shard; n < total; n += kShards) {
        const uint64_t seed = first_seed + n;
        std::string finding = Sequence(seed, &reached).Run();
        ++run;
        if (!finding.empty())
            FAIL() << "random sequence with seed " << seed << " (replay: ZELISP_RANDOM_SEED=" << seed
                   << " ZELISP_RANDOM_SEQUENCES=1): " << finding;
    }
    printf("random sequences: %llu run in shard %llu, all agreed with the model: %llu checks (%llu successes), "
           "%llu frames taken, %llu refused, %llu group frame sets, %llu faults, %llu EINTR storms\n",
           (unsigned long long)run, (unsigned long long)shard, (unsigned long long)reached.calls,
           (unsigned long long)reached.successes, (unsigned long long)reached.frames,
           (unsigned long long)reached.refused_frames, (unsigned long long)reached.group_frame_sets,
           (unsigned long long)reached.faults, (unsigned long long)reached.storms);
    RecordProperty("sequences", int(run));
}

INSTANTIATE_TEST_SUITE_P(Shards, RandomSequences, ::testing::Range(0, kShards));

} // namespace
} // namespace zelisp_reliability
