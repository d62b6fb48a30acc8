/*
 * scene_source.cpp - decoding a camera's `source`: a Y4M video (4:2:0 or
 * monochrome, looped), a PNG or JPEG still, or a folder of such stills in
 * name order. Everything is decoded when the configuration is loaded, so
 * that a bad file is a configuration error with its line, and the frame
 * loop never touches the file system.
 *
 * The format is told by the file's first bytes, not its name. Decoded
 * frames are capped in total, so a long video cannot eat the machine.
 */
#include "scene_source.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include <dirent.h>
#include <sys/stat.h>

#include <libyuv.h>
#include <png.h>
#include <turbojpeg.h>

namespace zsim::detail {
namespace {

constexpr size_t kMaxDecodedBytes = size_t(256) << 20; // all frames of one source
constexpr size_t kMaxFileBytes = size_t(1) << 30;
constexpr uint32_t kMaxSide = 16384;

size_t i420_size(uint32_t width, uint32_t height)
{
    return size_t(width) * height + 2 * size_t((width + 1) / 2) * ((height + 1) / 2);
}

bool read_file(const std::string &path, std::vector<uint8_t> *bytes, std::string *error)
{
    FILE *file = fopen(path.c_str(), "rbe");
    if (!file) {
        *error = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fileno(file), &st) != 0 || !S_ISREG(st.st_mode) || size_t(st.st_size) > kMaxFileBytes) {
        fclose(file);
        *error = "not a regular file of at most 1 GiB";
        return false;
    }
    bytes->resize(size_t(st.st_size));
    const size_t got = bytes->empty() ? 0 : fread(bytes->data(), 1, bytes->size(), file);
    const bool failed = ferror(file);
    fclose(file);
    if (failed || got != bytes->size()) {
        *error = "read error";
        return false;
    }
    return true;
}

bool from_rgba(const uint8_t *rgba, uint32_t width, uint32_t height, SceneFrame *frame)
{
    frame->width = width;
    frame->height = height;
    frame->i420.resize(i420_size(width, height));
    const int half = int((width + 1) / 2);
    uint8_t *y = frame->i420.data();
    uint8_t *u = y + size_t(width) * height;
    uint8_t *v = u + size_t(half) * ((height + 1) / 2);
    // libyuv names formats by their 32-bit word: R, G, B, A in memory is "ABGR".
    return libyuv::ABGRToI420(rgba, int(width * 4), y, int(width), u, half, v, half, int(width), int(height)) == 0;
}

bool decode_png(const std::vector<uint8_t> &bytes, SceneFrame *frame, std::string *error)
{
    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
        *error = std::string("bad PNG: ") + image.message;
        return false;
    }
    if (image.width == 0 || image.height == 0 || image.width > kMaxSide || image.height > kMaxSide) {
        png_image_free(&image);
        *error = "PNG size out of range";
        return false;
    }
    image.format = PNG_FORMAT_RGBA;
    std::vector<uint8_t> rgba(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr)) {
        *error = std::string("bad PNG: ") + image.message;
        png_image_free(&image);
        return false;
    }
    return from_rgba(rgba.data(), image.width, image.height, frame);
}

bool decode_jpeg(const std::vector<uint8_t> &bytes, SceneFrame *frame, std::string *error)
{
    tjhandle handle = tjInitDecompress();
    if (!handle) {
        *error = "JPEG decoder unavailable";
        return false;
    }
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    bool ok = tjDecompressHeader3(handle, bytes.data(), static_cast<unsigned long>(bytes.size()), &width, &height,
                                  &subsampling, &colourspace) == 0 &&
              width > 0 && height > 0 && uint32_t(width) <= kMaxSide && uint32_t(height) <= kMaxSide;
    std::vector<uint8_t> rgba;
    if (ok) {
        rgba.resize(size_t(width) * size_t(height) * 4);
        ok = tjDecompress2(handle, bytes.data(), static_cast<unsigned long>(bytes.size()), rgba.data(), width, 0,
                           height, TJPF_RGBA, 0) == 0;
    }
    if (!ok)
        *error = std::string("bad JPEG: ") + tjGetErrorStr2(handle);
    tjDestroy(handle);
    return ok && from_rgba(rgba.data(), uint32_t(width), uint32_t(height), frame);
}

bool starts_with(const std::vector<uint8_t> &bytes, const char *magic, size_t size)
{
    return bytes.size() >= size && memcmp(bytes.data(), magic, size) == 0;
}

// A still: PNG or JPEG, told by its signature.
bool decode_still(const std::vector<uint8_t> &bytes, SceneFrame *frame, std::string *error)
{
    if (starts_with(bytes, "\x89PNG\r\n\x1a\n", 8))
        return decode_png(bytes, frame, error);
    if (starts_with(bytes, "\xff\xd8\xff", 3))
        return decode_jpeg(bytes, frame, error);
    *error = "not a Y4M video, PNG or JPEG image, or folder of images";
    return false;
}

// YUV4MPEG2: a header line "YUV4MPEG2 W<w> H<h> ... [C<colour space>]",
// then frames, each "FRAME[ params]\n" and the planes.
bool decode_y4m(const std::vector<uint8_t> &bytes, Scene *scene, std::string *error)
{
    const uint8_t *end = bytes.data() + bytes.size();
    const uint8_t *eol = std::find(bytes.data(), end, uint8_t('\n'));
    if (eol == end) {
        *error = "bad Y4M header: no end of line";
        return false;
    }
    std::string header(bytes.data(), eol);
    uint32_t width = 0, height = 0;
    bool mono = false;
    size_t at = 0;
    while ((at = header.find(' ', at)) != std::string::npos) {
        ++at;
        const char tag = at < header.size() ? header[at] : 0;
        const std::string value = header.substr(at + 1, header.find(' ', at) - at - 1);
        if (tag == 'W' || tag == 'H') {
            char *stop = nullptr;
            const unsigned long number = strtoul(value.c_str(), &stop, 10);
            if (value.empty() || *stop || number == 0 || number > kMaxSide) {
                *error = "bad Y4M header: size out of range";
                return false;
            }
            (tag == 'W' ? width : height) = uint32_t(number);
        } else if (tag == 'C') {
            mono = value == "mono";
            if (!mono && value.compare(0, 3, "420") != 0) {
                *error = "Y4M colour space C" + value + " is not supported (4:2:0 or mono)";
                return false;
            }
        }
    }
    if (!width || !height) {
        *error = "bad Y4M header: no size";
        return false;
    }
    const size_t luma = size_t(width) * height;
    const size_t frame_bytes = mono ? luma : i420_size(width, height);
    const uint8_t *p = eol + 1;
    size_t decoded = 0;
    while (p < end) {
        const uint8_t *line_end = std::find(p, end, uint8_t('\n'));
        if (line_end == end || line_end - p < 5 || memcmp(p, "FRAME", 5) != 0) {
            *error = "bad Y4M frame " + std::to_string(scene->frames.size()) + ": no FRAME header";
            return false;
        }
        p = line_end + 1;
        if (size_t(end - p) < frame_bytes) {
            *error = "bad Y4M frame " + std::to_string(scene->frames.size()) + ": truncated";
            return false;
        }
        decoded += i420_size(width, height);
        if (decoded > kMaxDecodedBytes) {
            *error = "more than 256 MiB of decoded frames";
            return false;
        }
        SceneFrame frame;
        frame.width = width;
        frame.height = height;
        frame.i420.assign(i420_size(width, height), 128); // mono: neutral chroma
        memcpy(frame.i420.data(), p, frame_bytes);
        scene->frames.push_back(std::move(frame));
        p += frame_bytes;
    }
    if (scene->frames.empty()) {
        *error = "Y4M video has no frames";
        return false;
    }
    return true;
}

bool decode_folder(const std::string &path, Scene *scene, std::string *error)
{
    DIR *dir = opendir(path.c_str());
    if (!dir) {
        *error = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    std::vector<std::string> names;
    while (const dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    size_t decoded = 0;
    for (const std::string &name : names) {
        std::vector<uint8_t> bytes;
        SceneFrame frame;
        if (!read_file(path + "/" + name, &bytes, error) || !decode_still(bytes, &frame, error)) {
            *error = name + ": " + *error;
            return false;
        }
        decoded += frame.i420.size();
        if (decoded > kMaxDecodedBytes) {
            *error = "more than 256 MiB of decoded frames";
            return false;
        }
        scene->frames.push_back(std::move(frame));
    }
    if (scene->frames.empty()) {
        *error = "folder has no images";
        return false;
    }
    return true;
}

std::shared_ptr<const Scene> measured(std::shared_ptr<Scene> scene)
{
    if (scene)
        for (SceneFrame &frame : scene->frames)
            frame.stats = measure_scene(frame.y(), frame.u(), frame.v(), frame.width, frame.height);
    return scene;
}

std::shared_ptr<Scene> decode_file(const std::string &path, std::string *error)
{
    auto scene = std::make_shared<Scene>();
    scene->path = path;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *error = std::string("cannot open: ") + strerror(errno);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode))
        return decode_folder(path, scene.get(), error) ? scene : nullptr;
    std::vector<uint8_t> bytes;
    if (!read_file(path, &bytes, error))
        return nullptr;
    if (starts_with(bytes, "YUV4MPEG2 ", 10))
        return decode_y4m(bytes, scene.get(), error) ? scene : nullptr;
    SceneFrame frame;
    if (!decode_still(bytes, &frame, error))
        return nullptr;
    scene->frames.push_back(std::move(frame));
    return scene;
}

std::shared_ptr<const Scene> decode(const std::string &path, std::string *error)
{
    return measured(decode_file(path, error));
}

} // namespace

SceneStats measure_scene(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint32_t width, uint32_t height)
{
    SceneStats stats;
    for (size_t i = 0; i < size_t(width) * height; ++i)
        ++stats.luma[y[i]];
    stats.pixels = uint64_t(width) * height;
    // Means are linear, so the mean colour is the colour of the mean Y'CbCr.
    double luma = 0, cb = 0, cr = 0;
    for (int code = 0; code < 256; ++code)
        luma += double(code) * double(stats.luma[code]);
    luma /= double(stats.pixels);
    const size_t chroma = size_t((width + 1) / 2) * ((height + 1) / 2);
    for (size_t i = 0; i < chroma; ++i) {
        cb += u[i];
        cr += v[i];
    }
    cb = cb / double(chroma) - 128;
    cr = cr / double(chroma) - 128;
    stats.red = 1.164 * (luma - 16) + 1.596 * cr;
    stats.green = 1.164 * (luma - 16) - 0.392 * cb - 0.813 * cr;
    stats.blue = 1.164 * (luma - 16) + 2.017 * cb;
    return stats;
}

std::shared_ptr<const Scene> load_scene(const std::string &path, std::string *error)
{
    // Sources are few and read once per configuration; the cache keeps the
    // configuration check and the camera set-up from decoding twice.
    static std::mutex *lock = new std::mutex;
    static auto *cache = new std::map<std::string, std::shared_ptr<const Scene>>;
    {
        std::lock_guard<std::mutex> hold(*lock);
        auto found = cache->find(path);
        if (found != cache->end())
            return found->second;
    }
    std::string ignored;
    std::shared_ptr<const Scene> scene = decode(path, error ? error : &ignored);
    if (scene) {
        std::lock_guard<std::mutex> hold(*lock);
        (*cache)[path] = scene;
    }
    return scene;
}

} // namespace zsim::detail
