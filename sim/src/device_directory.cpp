/*
 * device_directory.cpp - the simulated nodes in a listing of /dev.
 *
 * Tools find capture devices by reading the /dev directory (v4l2-ctl
 * --list-devices, ls /dev), so a directory stream opened on /dev lists the
 * nodes that exist after the real entries, once each; a real entry of the
 * same name is not repeated. Other directories are left alone.
 */
#include <dirent.h>
#include <dlfcn.h>

#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "core.h"

using namespace zsim::detail;
using zsim::NodeKind;

namespace {

struct Listing {
    std::set<std::string> seen; // simulated names the real directory listed
    std::vector<std::string> extra;
    size_t next = 0;
    bool real_done = false;
    struct dirent entry {};
};

std::mutex g_listings_lock;
std::map<DIR *, Listing> *g_listings = nullptr; // created on first use, never destroyed

template <typename Fn>
Fn real_function(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

bool is_dev(const char *path)
{
    return path && (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0);
}

std::vector<std::string> present_names(const std::set<std::string> &seen)
{
    std::vector<std::string> names;
    CoreLock held;
    for (int node = 0; node < kNodes; ++node) {
        if (state().nodes[node].kind == NodeKind::Missing)
            continue;
        std::string name = node_path(node).substr(5);
        if (!seen.count(name))
            names.push_back(name);
    }
    return names;
}

struct dirent *next_entry(DIR *dir, struct dirent *real)
{
    std::lock_guard<std::mutex> hold(g_listings_lock);
    if (!g_listings)
        return real;
    auto found = g_listings->find(dir);
    if (found == g_listings->end())
        return real;
    Listing &listing = found->second;
    if (real) {
        std::string path = std::string("/dev/") + real->d_name;
        if (node_of_path(path.c_str()) >= 0)
            listing.seen.insert(real->d_name);
        return real;
    }
    if (!listing.real_done) {
        listing.real_done = true;
        listing.extra = present_names(listing.seen);
    }
    if (listing.next >= listing.extra.size())
        return nullptr;
    const std::string &name = listing.extra[listing.next++];
    listing.entry = dirent{};
    int node = node_of_path(("/dev/" + name).c_str());
    listing.entry.d_ino = ino_t(1000 + node);
    listing.entry.d_reclen = sizeof listing.entry;
    {
        CoreLock held;
        NodeKind kind = state().nodes[node].kind;
        listing.entry.d_type = kind == NodeKind::Directory ? DT_DIR : kind == NodeKind::RegularFile ? DT_REG : DT_CHR;
    }
    std::strncpy(listing.entry.d_name, name.c_str(), sizeof listing.entry.d_name - 1);
    return &listing.entry;
}

void track(DIR *dir)
{
    if (!dir || inside_core())
        return;
    std::lock_guard<std::mutex> hold(g_listings_lock);
    if (!g_listings)
        g_listings = new std::map<DIR *, Listing>();
    (*g_listings)[dir] = Listing();
}

void forget(DIR *dir, bool restart)
{
    std::lock_guard<std::mutex> hold(g_listings_lock);
    if (!g_listings)
        return;
    auto found = g_listings->find(dir);
    if (found == g_listings->end())
        return;
    if (restart)
        found->second = Listing();
    else
        g_listings->erase(found);
}

} // namespace

extern "C" {

DIR *opendir(const char *path)
{
    static auto real = real_function<DIR *(*)(const char *)>("opendir");
    DIR *dir = real(path);
    if (is_dev(path)) {
        try {
            track(dir);
        } catch (...) {
        }
    }
    return dir;
}

struct dirent *readdir(DIR *dir)
{
    static auto real = real_function<struct dirent *(*)(DIR *)>("readdir");
    struct dirent *entry = real(dir);
    try {
        return next_entry(dir, entry);
    } catch (...) {
        return entry;
    }
}

// On 64-bit Linux dirent64 and dirent are the same record.
struct dirent64 *readdir64(DIR *dir)
{
    static auto real = real_function<struct dirent64 *(*)(DIR *)>("readdir64");
    struct dirent64 *entry = real(dir);
    static_assert(sizeof(struct dirent64) == sizeof(struct dirent), "one record layout");
    try {
        return reinterpret_cast<struct dirent64 *>(next_entry(dir, reinterpret_cast<struct dirent *>(entry)));
    } catch (...) {
        return entry;
    }
}

void rewinddir(DIR *dir)
{
    static auto real = real_function<void (*)(DIR *)>("rewinddir");
    forget(dir, true);
    real(dir);
}

int closedir(DIR *dir)
{
    static auto real = real_function<int (*)(DIR *)>("closedir");
    forget(dir, false);
    return real(dir);
}

} // extern "C"
