// CHmiMedia: the SD card and USB disk mount points. A medium is present while
// its mount point is an existing directory.
#include "CHmiMedia.h"

#include <sys/stat.h>

#include <mutex>

namespace {

struct MediaPaths {
    std::mutex mutex;
    std::string sd;     // guarded by mutex
    std::string udisk;  // guarded by mutex
};

// Never destroyed: the store may ask for media from static destructors.
MediaPaths& Paths() {
    static MediaPaths* paths = new MediaPaths;
    return *paths;
}

std::string Read(const std::string MediaPaths::*which) {
    MediaPaths& p = Paths();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.*which;
}

void Write(std::string MediaPaths::*which, const std::string& path) {
    MediaPaths& p = Paths();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.*which = path;
}

bool Present(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The mount point ends with '/', so that a store directory can be appended to
// it directly, whether the host set it with or without one.
std::string MountPoint(const std::string& path) {
    if (!Present(path)) {
        return std::string();
    }
    return path.back() == '/' ? path : path + "/";
}

}  // namespace

void CHmiMedia::SetSDPath(const std::string& path) {
    Write(&MediaPaths::sd, path);
}

void CHmiMedia::SetUdiskPath(const std::string& path) {
    Write(&MediaPaths::udisk, path);
}

bool CHmiMedia::isSDExsit() {
    return Present(Read(&MediaPaths::sd));
}

bool CHmiMedia::isUSBExsit() {
    return Present(Read(&MediaPaths::udisk));
}

std::string CHmiMedia::getSDPath() {
    return MountPoint(Read(&MediaPaths::sd));
}

std::string CHmiMedia::getUdiskPath() {
    return MountPoint(Read(&MediaPaths::udisk));
}
