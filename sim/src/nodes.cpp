/*
 * nodes.cpp - the device nodes: which of /dev/video0..23 and /dev/isp_misc
 * exist and as what, the cameras behind the video nodes, and the per-node
 * settings a test chooses (frame mode, quirks, open and close errors).
 *
 * Camera c answers on /dev/video<c> (mode 1, its views as planes) and on
 * /dev/video<c+12> (mode 2, view 0 alone). Video nodes carry the V4L2 major
 * with the node number as minor; /dev/isp_misc is a misc device.
 */
#include <cstring>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "core.h"

namespace zsim::detail {
namespace {

constexpr char kVideoPrefix[] = "/dev/video";
constexpr char kMiscPath[] = "/dev/isp_misc";
constexpr gid_t kVideoGroup = 44;

} // namespace

int node_of_path(const char *path)
{
    if (!path || std::strncmp(path, "/dev/", 5) != 0)
        return -1;
    if (std::strcmp(path, kMiscPath) == 0)
        return kMiscNode;
    if (std::strncmp(path, kVideoPrefix, sizeof kVideoPrefix - 1) != 0)
        return -1;
    const char *digits = path + sizeof kVideoPrefix - 1;
    size_t count = std::strlen(digits);
    if (count == 0 || count > 2 || (count == 2 && digits[0] == '0'))
        return -1;
    int node = 0;
    for (size_t i = 0; i < count; ++i) {
        if (digits[i] < '0' || digits[i] > '9')
            return -1;
        node = node * 10 + (digits[i] - '0');
    }
    return node < kVideoNodes ? node : -1;
}

std::string node_path(int node)
{
    if (node == kMiscNode)
        return kMiscPath;
    return kVideoPrefix + std::to_string(node);
}

int camera_of_node(int node)
{
    if (node < 0 || node >= kVideoNodes)
        return -1;
    return node % kCameras;
}

dev_t node_rdev(int node)
{
    if (node == kMiscNode)
        return makedev(kMiscMajor, kMiscMinor);
    return makedev(kVideoMajor, unsigned(node));
}

void fill_node_stat(int node, struct stat *st)
{
    std::memset(st, 0, sizeof *st);
    st->st_dev = makedev(0, 5); // devtmpfs
    st->st_ino = ino_t(1000 + node);
    st->st_uid = 0;
    st->st_blksize = 4096;
    st->st_atim.tv_sec = st->st_mtim.tv_sec = st->st_ctim.tv_sec = state().created;
    switch (state().nodes[node].kind) {
    case NodeKind::RegularFile:
        st->st_mode = S_IFREG | 0644;
        st->st_nlink = 1;
        break;
    case NodeKind::Directory:
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        break;
    default:
        st->st_mode = S_IFCHR | 0660;
        st->st_nlink = 1;
        st->st_gid = kVideoGroup;
        st->st_rdev = node_rdev(node);
        break;
    }
}

void reset_nodes(State &s)
{
    for (int node = 0; node < kNodes; ++node) {
        Node &n = s.nodes[node];
        int camera = camera_of_node(node);
        n.kind = (camera < 0 || s.cameras[camera].present) ? NodeKind::CharDevice : NodeKind::Missing;
        n.open_errno = 0;
        n.close_errno = 0;
        n.quirks = Quirks();
        n.frame_mode = FrameMode::FreeRunning;
        n.script.clear();
        n.counters = Counters{0, 0, 0};
        n.next_sequence = 0;
        n.drop_lottery = 0;
    }
}

namespace {

// Runs f on the node named by path with the lock held; unknown paths are
// ignored, as a test naming a node that cannot exist has nothing to change.
template <typename F> void with_node(const std::string &path, F f)
{
    int node = node_of_path(path.c_str());
    if (node < 0)
        return;
    CoreLock held;
    f(state().nodes[node]);
}

template <typename F> void with_video_node(int node, F f)
{
    if (node < 0 || node >= kVideoNodes)
        return;
    CoreLock held;
    f(state().nodes[node]);
}

} // namespace
} // namespace zsim::detail

namespace zsim {

using namespace detail;

void set_node_kind(const std::string &path, NodeKind kind)
{
    with_node(path, [kind](Node &n) { n.kind = kind; });
}

void set_open_errno(const std::string &path, int err)
{
    with_node(path, [err](Node &n) { n.open_errno = err; });
}

void set_close_errno(const std::string &path, int err)
{
    with_node(path, [err](Node &n) { n.close_errno = err; });
}

void set_camera(int camera, const CameraConfig &config)
{
    if (camera < 0 || camera >= kCameras)
        return;
    // Decoded before the lock is taken: a video takes a while.
    std::shared_ptr<const Scene> scene = config.source.empty() ? nullptr : load_scene(config.source, nullptr);
    CoreLock held;
    State &s = state();
    Camera &cam = s.cameras[camera];
    set_camera_scene(cam, std::move(scene));
    // The selected combination survives a reconfiguration it still fits.
    if (!cam.present || (cam.input & ~config.supported_combination))
        cam.input = config.supported_combination;
    cam.present = true;
    cam.config = config;
    if (cam.config.fps < 1)
        cam.config.fps = 1;
    if (cam.config.fps > 240)
        cam.config.fps = 240;
    s.nodes[camera].kind = NodeKind::CharDevice;
    s.nodes[camera + kCameras].kind = NodeKind::CharDevice;
    publish_setup(s, camera);
}

void remove_camera(int camera)
{
    if (camera < 0 || camera >= kCameras)
        return;
    CoreLock held;
    State &s = state();
    s.cameras[camera].present = false;
    s.nodes[camera].kind = NodeKind::Missing;
    s.nodes[camera + kCameras].kind = NodeKind::Missing;
}

CameraConfig camera_config(int camera)
{
    if (camera < 0 || camera >= kCameras)
        return CameraConfig();
    CoreLock held;
    adopt_board_setup(state(), camera);
    return state().cameras[camera].config;
}

void set_frame_mode(int node, FrameMode mode)
{
    with_video_node(node, [mode](Node &n) { n.frame_mode = mode; });
    state().wake.notify_all();
}

void set_quirks(int node, const Quirks &quirks)
{
    with_video_node(node, [&quirks](Node &n) { n.quirks = quirks; });
}

} // namespace zsim
