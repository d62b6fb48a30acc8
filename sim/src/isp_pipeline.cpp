/*
 * isp_pipeline.cpp - ties the ISP model to the frame loop.
 *
 * A view's processed image is built when what it is made from changes (a
 * control, the resize, the scene, the view's format), never per frame, and
 * a buffer is repainted only when it holds an older image. Frames then cost
 * what the plain pattern costs: the frame number and the moving block.
 * Exceptions, by nature: sensor noise (laid over every frame) and a moving
 * scene (one image per scene frame).
 *
 * Building an image takes milliseconds at 1080p, so it is done with the
 * core's lock released wherever the request allows: after REQBUFS for the
 * node's buffers, and by the thread that set a control. The frame loop
 * builds only what those could not foresee.
 */
#include <atomic>
#include <cstring>
#include <vector>

#include <sys/mman.h>

#include "core.h"
#include "real_libc.h"
#include "video_requests.h"

namespace zsim::detail {
namespace {

// Bumped by the controls' setters; the frame loop reads the controls again
// only when it moved, so the controls' lock is not taken per frame.
std::atomic<uint32_t> g_control_version[kCameras];

bool moving_scene(const CameraIsp &isp) { return isp.scene && isp.scene->frames.size() > 1; }

uint32_t scene_frame(const CameraIsp &isp, uint32_t sequence)
{
    return isp.scene && !isp.scene->frames.empty() ? uint32_t(sequence % isp.scene->frames.size()) : 0;
}

void invalidate(CameraIsp &isp)
{
    ++isp.generation;
    for (auto &image : isp.images)
        image.reset();
}

// Reads the controls again if a setter ran since the last look.
void refresh_settings(int camera, CameraIsp &isp)
{
    const uint32_t version = g_control_version[camera].load(std::memory_order_acquire);
    if (version == isp.settings_version && isp.generation > 1)
        return;
    isp.settings_version = version;
    IspSettings settings = read_isp_settings(camera);
    if (settings != isp.settings || isp.generation == 1) {
        isp.settings = settings;
        invalidate(isp);
    }
}

bool noisy(const Camera &cam) { return cam.config.noise > 0; }

const NoiseTiles *noise_tiles(Camera &cam)
{
    CameraIsp &isp = cam.isp;
    if (!noisy(cam))
        return nullptr;
    if (isp.noise_generation != isp.generation) {
        isp.noise = make_noise_tiles(cam.config.noise, isp.settings.luma_denoise, isp.settings.chroma_denoise);
        isp.noise_generation = isp.generation;
    }
    return isp.noise.get();
}

ViewRecipe recipe_for(const Camera &cam, int view, const ViewFormat &format, uint32_t sequence)
{
    ViewRecipe recipe;
    recipe.settings = cam.isp.settings;
    recipe.scene = cam.isp.scene;
    recipe.scene_frame = scene_frame(cam.isp, sequence);
    recipe.format = format;
    recipe.before_resize = cam.config.views[1];
    if (view == 1)
        recipe.resize = cam.isp.resize;
    recipe.keep_bytes = noisy(cam);
    return recipe;
}

bool cached(const CameraIsp &isp, int view, const ViewFormat &format, uint32_t sequence)
{
    const ViewImage *image = isp.images[view].get();
    return image && isp.image_generation[view] == isp.generation && image->format.fourcc == format.fourcc &&
           image->format.width == format.width && image->format.height == format.height &&
           (!moving_scene(isp) || isp.image_frame[view] == scene_frame(isp, sequence));
}

void install(CameraIsp &isp, int view, std::shared_ptr<const ViewImage> image, uint32_t sequence)
{
    isp.images[view] = std::move(image);
    isp.image_generation[view] = isp.generation;
    isp.image_frame[view] = scene_frame(isp, sequence);
}

const ViewImage &image_for(Camera &cam, int view, const ViewFormat &format, uint32_t sequence)
{
    if (!cached(cam.isp, view, format, sequence))
        install(cam.isp, view, build_view_image(recipe_for(cam, view, format, sequence)), sequence);
    return *cam.isp.images[view];
}

void paint_image(uint8_t *data, size_t length, const ViewImage &image)
{
    if (image.bars)
        paint_background(data, length, image.format);
    else if (!image.bytes.empty() && length >= image.bytes.size())
        memcpy(data, image.bytes.data(), image.bytes.size());
}

} // namespace

void note_controls_changed(int camera)
{
    if (camera >= 0 && camera < kCameras)
        g_control_version[camera].fetch_add(1, std::memory_order_release);
}

ViewFormat delivered_view(const Camera &cam, int view)
{
    ViewFormat format = cam.config.views[view];
    if (view == 1 && cam.isp.resize.active) {
        format.width = cam.isp.resize.out_width();
        format.height = cam.isp.resize.out_height();
    }
    return format;
}

// The resize is in force when both crops are non-empty; an all-zero record
// (what a caller sends to pass view 1 through) leaves the view as it is.
void set_view_resize(Camera &cam, const uint16_t words[11])
{
    ResizeRecord resize;
    std::memcpy(resize.words, words, sizeof resize.words);
    resize.active = words[1] > words[0] && words[3] > words[2] && resize.out_width() >= 2 && resize.out_height() >= 2;
    cam.isp.resize = resize;
    invalidate(cam.isp);
}

void clear_view_resize(Camera &cam)
{
    if (!cam.isp.resize.active)
        return;
    cam.isp.resize = ResizeRecord();
    invalidate(cam.isp);
}

void set_camera_scene(Camera &cam, std::shared_ptr<const Scene> scene)
{
    cam.isp.scene = std::move(scene);
    invalidate(cam.isp);
}

void paint_plane(State &s, int camera, int view, Plane &plane, uint32_t sequence)
{
    Camera &cam = s.cameras[camera];
    refresh_settings(camera, cam.isp);
    const ViewImage &image = image_for(cam, view, plane.format, sequence);
    const NoiseTiles *tiles = noise_tiles(cam);
    if (tiles && image.bytes.size() == image_size(plane.format) && plane.length >= image.bytes.size()) {
        paint_noisy(plane.data, image.bytes.data(), plane.format, *tiles, sequence);
        plane.image_id = 0;
        paint_frame(plane.data, plane.length, plane.format, sequence, plane.data);
        return;
    }
    if (plane.image_id != image.id) {
        paint_image(plane.data, plane.length, image);
        plane.image_id = image.id;
    }
    paint_frame(plane.data, plane.length, plane.format, sequence, image.bars ? nullptr : image.bytes.data());
}

void prepare_node_buffers(CoreLock &held, int node)
{
    State &s = state();
    const int camera = camera_of_node(node);
    Camera &cam = s.cameras[camera];
    Node &n = s.nodes[node];
    refresh_settings(camera, cam.isp);
    const std::vector<int> views = views_of_node(s, node);
    const uint64_t generation = cam.isp.generation;
    const uint32_t sequence = n.next_sequence;

    // The images, cached or to be built outside the lock.
    std::vector<std::shared_ptr<const ViewImage>> images(views.size());
    std::vector<ViewRecipe> recipes(views.size());
    std::vector<bool> to_build(views.size(), false);
    for (size_t j = 0; j < views.size(); ++j) {
        if (n.buffers.empty())
            break;
        const ViewFormat &format = n.buffers[0].planes[j].format;
        if (cached(cam.isp, views[j], format, sequence)) {
            images[j] = cam.isp.images[views[j]];
        } else {
            recipes[j] = recipe_for(cam, views[j], format, sequence);
            to_build[j] = true;
        }
    }
    // Our own mappings of the planes: the program may free the buffers
    // while the lock is released, and these stay valid regardless.
    struct Target {
        size_t buffer, plane;
        uint8_t *data;
        uint8_t *mapping;
        size_t length;
    };
    std::vector<Target> targets;
    for (size_t b = 0; b < n.buffers.size(); ++b)
        for (size_t j = 0; j < n.buffers[b].planes.size() && j < views.size(); ++j) {
            Plane &plane = n.buffers[b].planes[j];
            void *mapping = real::mmap(nullptr, plane.length, PROT_READ | PROT_WRITE, MAP_SHARED, plane.memfd, 0);
            if (mapping != MAP_FAILED)
                targets.push_back({b, j, plane.data, static_cast<uint8_t *>(mapping), plane.length});
        }
    held.unlock();
    for (size_t j = 0; j < views.size(); ++j)
        if (to_build[j])
            images[j] = build_view_image(recipes[j]);
    for (const Target &target : targets) {
        if (images[target.plane])
            paint_image(target.mapping, target.length, *images[target.plane]);
        real::munmap(target.mapping, target.length);
    }
    held.lock();
    if (cam.isp.generation != generation)
        return; // a change came in meanwhile: the frame loop paints afresh
    for (size_t j = 0; j < views.size(); ++j)
        if (to_build[j] && images[j])
            install(cam.isp, views[j], images[j], sequence);
    for (const Target &target : targets) {
        if (target.buffer >= n.buffers.size() || target.plane >= n.buffers[target.buffer].planes.size())
            continue;
        Plane &plane = n.buffers[target.buffer].planes[target.plane];
        if (plane.data == target.data && images[target.plane] && plane.image_id == 0)
            plane.image_id = images[target.plane]->id;
    }
}

} // namespace zsim::detail
