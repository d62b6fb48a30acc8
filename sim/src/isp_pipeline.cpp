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
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "board_clock.h"
#include "board_state.h"
#include "core.h"
#include "real_libc.h"
#include "video_requests.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14; older headers lack the name
#endif

namespace zsim::detail {
namespace {

// The board's count of control changes, bumped by the setters of every
// process; the frame loop reads the controls again only when it moved, so
// the board's lock is not taken per frame.
std::atomic<uint32_t> &control_version(int camera) { return board().cameras[camera].control_version; }

bool moving_scene(const CameraIsp &isp) { return isp.scene && isp.scene->frames.size() > 1; }

uint32_t scene_frame(const CameraIsp &isp, uint32_t sequence)
{
    return isp.scene && !isp.scene->frames.empty() ? uint32_t(sequence % isp.scene->frames.size()) : 0;
}

// The images stay until replaced: a free-running frame shows the last one
// while the worker builds the next.
void invalidate(CameraIsp &isp) { ++isp.generation; }

// Reads the controls again if a setter ran since the last look.
void refresh_settings(int camera, CameraIsp &isp)
{
    const uint32_t version = control_version(camera).load(std::memory_order_acquire);
    if (version == isp.settings_version && isp.generation > 1)
        return;
    isp.settings_version = version;
    IspSettings settings = read_isp_settings(camera);
    settings.auto_exposure = isp.settings.auto_exposure;
    std::copy(isp.settings.auto_white, isp.settings.auto_white + 3, settings.auto_white);
    if (settings != isp.settings || isp.generation == 1) {
        isp.settings = settings;
        invalidate(isp);
    }
}

bool noisy(const Camera &cam) { return cam.config.noise > 0; }

// The tiles depend on the noise and the denoise strengths alone, so the
// exposure loop's steps do not remake them.
std::shared_ptr<const NoiseTiles> noise_tiles(Camera &cam)
{
    CameraIsp &isp = cam.isp;
    if (!noisy(cam))
        return nullptr;
    const int32_t made_for[3] = {int32_t(cam.config.noise), isp.settings.luma_denoise, isp.settings.chroma_denoise};
    if (!std::equal(made_for, made_for + 3, isp.noise_made_for)) {
        isp.noise = make_noise_tiles(cam.config.noise, isp.settings.luma_denoise, isp.settings.chroma_denoise);
        std::copy(made_for, made_for + 3, isp.noise_made_for);
    }
    return isp.noise;
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

// An image built for the settings of `generation`: the newest the camera
// has, even when the settings moved on while it was built (the loops step
// every frame while they settle), until one for the present settings comes.
void install(CameraIsp &isp, int view, std::shared_ptr<const ViewImage> image, uint32_t sequence,
             uint64_t generation)
{
    if (isp.images[view] && isp.image_generation[view] > generation)
        return;
    isp.images[view] = std::move(image);
    isp.image_generation[view] = generation;
    isp.image_frame[view] = scene_frame(isp, sequence);
}

// The ISP worker: builds the images a control change calls for, one camera
// at a time, so that neither the program's control request nor the frame
// loop waits for it. Requests for a camera coalesce: a burst of control
// changes costs one build with the last values.
struct Worker {
    std::mutex lock;
    std::condition_variable wake;
    // Camera bits; written under `lock`, read without it by the frame loop.
    std::atomic<uint32_t> pending{0};
    std::atomic<uint32_t> running{0};
    bool stopping = false;
    std::thread thread;
    pid_t pid = 0;        // of the process the thread runs in
};

Worker &worker()
{
    // Never destroyed: the thread may outlive exit's destructors. A child
    // forked while the lock was held would find it held forever.
    static Worker *const instance = [] {
        auto *w = new Worker;
        pthread_atfork([] { worker().lock.lock(); }, [] { worker().lock.unlock(); },
                       [] { worker().lock.unlock(); });
        return w;
    }();
    return *instance;
}

void run_worker()
{
    pthread_setname_np(pthread_self(), "zsim-isp");
    // Background work: the frame clocks and the program's own threads come
    // first, so a rebuild on a busy machine delays new settings rather than
    // frames. Where lowering it is refused, the thread runs as it is.
    (void)setpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)), 19);
    keep_host_time_on_this_thread();
    Worker &w = worker();
    std::unique_lock<std::mutex> guard(w.lock);
    for (;;) {
        w.wake.wait(guard, [&w] { return w.pending != 0 || w.stopping; });
        if (w.stopping)
            return;
        const int camera = __builtin_ctz(w.pending.load());
        w.running |= 1u << camera;
        w.pending &= ~(1u << camera);
        guard.unlock();
        prepare_camera_images(camera);
        guard.lock();
        w.running &= ~(1u << camera);
    }
}

// Lock-free, since the frame loop asks with the core's lock held.
bool update_coming(int camera)
{
    const Worker &w = worker();
    return ((w.pending.load() | w.running.load()) >> camera) & 1u;
}

// Has the worker build camera's images; false when it cannot run (no
// thread could be started). Takes the worker's lock only, so the frame loop
// may call it with the core's lock held.
bool wake_worker(int camera)
{
    Worker &w = worker();
    std::lock_guard<std::mutex> hold(w.lock);
    if (w.stopping)
        return false;
    w.pending |= 1u << camera;
    if (w.pid != getpid()) {
        // First use, or a forked child, which has no such thread.
        if (w.thread.joinable())
            new std::thread(std::move(w.thread)); // the parent's: never joined here
        try {
            w.thread = std::thread(run_worker);
            w.pid = getpid();
        } catch (const std::exception &) {
            w.pending = 0;
            return false;
        }
    }
    w.wake.notify_one();
    return true;
}

// The image a frame shows, or a recipe to build it. Scripted frames, which
// tests inspect, always show the current settings; a free-running frame
// shows the previous image while the worker builds the new one, as an ISP
// applies new settings at a later frame boundary rather than stalling its
// output. Settings changed by another process of the board, and the
// automatic loops' steps, are noticed here first, so the frame loop hands
// their build to the worker too. A moving scene needs a new image every
// frame: only that, and a first image, are built for the frame itself.
void choose_image(Camera &cam, int camera, int view, const ViewFormat &format, uint32_t sequence, bool may_lag,
                  PlanePaint *paint)
{
    CameraIsp &isp = cam.isp;
    const ViewImage *previous = isp.images[view].get();
    if (cached(isp, view, format, sequence) ||
        (may_lag && previous && !moving_scene(isp) && previous->format.fourcc == format.fourcc &&
         previous->format.width == format.width && previous->format.height == format.height &&
         (update_coming(camera) || wake_worker(camera)))) {
        paint->image = isp.images[view];
        return;
    }
    paint->build = true;
    paint->recipe = recipe_for(cam, view, format, sequence);
    paint->generation = isp.generation;
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
        control_version(camera).fetch_add(1, std::memory_order_release);
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

void schedule_image_update(int camera)
{
    if (camera < 0 || camera >= kCameras)
        return;
    {
        // Only buffers already allocated have images to prepare.
        CoreLock held;
        const State &s = state();
        if (s.nodes[camera].buffers.empty() && s.nodes[camera + kCameras].buffers.empty())
            return;
    }
    wake_worker(camera);
}

// The worker must not outlive the library it runs in.
__attribute__((destructor)) static void stop_isp_worker()
{
    Worker &w = worker();
    std::thread thread;
    {
        std::lock_guard<std::mutex> hold(w.lock);
        w.stopping = true;
        if (w.pid == getpid())
            thread.swap(w.thread);
    }
    w.wake.notify_all();
    if (thread.joinable())
        thread.join();
}

void meter_frame(Camera &cam, uint32_t sequence)
{
    const int camera = int(&cam - state().cameras);
    CameraIsp &isp = cam.isp;
    refresh_settings(camera, isp);
    const SceneStats &scene =
        isp.scene && !isp.scene->frames.empty() ? isp.scene->frames[scene_frame(isp, sequence)].stats : bars_stats();
    IspSettings stepped = isp.settings;
    meter_scene(scene, &isp.meter, &stepped);
    if (stepped != isp.settings) {
        isp.settings = stepped;
        invalidate(isp);
    }
}

PlanePaint plan_plane_paint(State &s, int camera, int view, const Plane &plane, uint32_t sequence, bool may_lag)
{
    Camera &cam = s.cameras[camera];
    refresh_settings(camera, cam.isp);
    PlanePaint paint;
    paint.memory = plane.memory;
    paint.length = plane.length;
    paint.format = plane.format;
    paint.sequence = sequence;
    paint.camera = camera;
    paint.view = view;
    paint.block = plane.block;
    paint.image_id = plane.image_id;
    paint.noise = noise_tiles(cam);
    choose_image(cam, camera, view, plane.format, sequence, may_lag, &paint);
    return paint;
}

void paint_planned(PlanePaint &paint)
{
    if (paint.build)
        paint.image = build_view_image(paint.recipe);
    const ViewImage &image = *paint.image;
    uint8_t *data = paint.memory.get();
    if (paint.noise && image.bytes.size() == image_size(paint.format) && paint.length >= image.bytes.size()) {
        paint_noisy(data, image.bytes.data(), paint.format, *paint.noise, paint.sequence);
        paint.image_id = 0; // the plane holds a noisy copy, not the image
        paint.block = kBandClean;
        paint_frame(data, paint.length, paint.format, paint.sequence, data, &paint.block);
        return;
    }
    if (paint.image_id != image.id) {
        paint_image(data, paint.length, image);
        paint.image_id = image.id;
        paint.block = kBandClean;
    }
    paint_frame(data, paint.length, paint.format, paint.sequence, image.bars ? nullptr : image.bytes.data(),
                &paint.block);
}

void keep_built_image(State &s, const PlanePaint &paint)
{
    if (paint.build)
        install(s.cameras[paint.camera].isp, paint.view, paint.image, paint.sequence, paint.generation);
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
    // Scripted frames are painted only when a test asks for it, so their
    // buffers are painted at that first fill instead, and set-up stays cheap
    // for suites that allocate thousands of times.
    const bool paint_now = n.frame_mode == FrameMode::FreeRunning;
    for (size_t b = 0; paint_now && b < n.buffers.size(); ++b)
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
        // The driver's own view of the plane gets its page tables now, so
        // that the frame loop, which writes through it with the lock held,
        // takes no page faults. Should the buffers be freed meanwhile, the
        // range is no longer mapped and the call fails harmlessly; kernels
        // before 5.14 do not know the advice and fault the pages later.
        (void)madvise(target.data, target.length, MADV_POPULATE_WRITE);
    }
    held.lock();
    if (cam.isp.generation != generation)
        return; // a change came in meanwhile: the frame loop paints afresh
    for (size_t j = 0; j < views.size(); ++j)
        if (to_build[j] && images[j])
            install(cam.isp, views[j], images[j], sequence, generation);
    for (const Target &target : targets) {
        if (target.buffer >= n.buffers.size() || target.plane >= n.buffers[target.buffer].planes.size())
            continue;
        Plane &plane = n.buffers[target.buffer].planes[target.plane];
        if (plane.data == target.data && images[target.plane] && plane.image_id == 0) {
            plane.image_id = images[target.plane]->id;
            plane.block = kBandClean;
        }
    }
}

} // namespace zsim::detail

namespace zsim::detail {

void prepare_camera_images(int camera)
{
    if (camera < 0 || camera >= kCameras)
        return;
    State &s = state();
    CoreLock held;
    Camera &cam = s.cameras[camera];
    refresh_settings(camera, cam.isp);
    if (moving_scene(cam.isp))
        return; // one image per scene frame: built as the frames come
    std::vector<int> views;
    std::vector<ViewRecipe> recipes;
    for (int node : {camera, camera + kCameras}) {
        const Node &n = s.nodes[node];
        if (n.buffers.empty())
            continue;
        const std::vector<int> node_views = views_of_node(s, node);
        for (size_t j = 0; j < node_views.size() && j < n.buffers[0].planes.size(); ++j) {
            const ViewFormat &format = n.buffers[0].planes[j].format;
            if (cached(cam.isp, node_views[j], format, 0) ||
                std::find(views.begin(), views.end(), node_views[j]) != views.end())
                continue;
            views.push_back(node_views[j]);
            recipes.push_back(recipe_for(cam, node_views[j], format, 0));
        }
    }
    if (views.empty())
        return;
    const uint64_t generation = cam.isp.generation;
    held.unlock();
    std::vector<std::shared_ptr<const ViewImage>> images;
    for (const ViewRecipe &recipe : recipes)
        images.push_back(build_view_image(recipe));
    held.lock();
    for (size_t i = 0; i < views.size(); ++i)
        install(cam.isp, views[i], images[i], 0, generation);
    // The settings moved on while it built (the automatic loops settling):
    // the next build follows.
    if (cam.isp.generation != generation)
        wake_worker(camera);
}

} // namespace zsim::detail
