// CHmiMedia: presence and mount points of the panel's removable media.
// A medium is present when its configured mount point is an existing
// directory; removing the directory is pulling the medium.
#ifndef PLATFORM_CHMIMEDIA_H_
#define PLATFORM_CHMIMEDIA_H_

#include <string>

class CHmiMedia {
public:
    // Mount points; an empty path means the panel has no such medium.
    static void SetSDPath(const std::string& path);
    static void SetUdiskPath(const std::string& path);

    static bool isSDExsit();
    static bool isUSBExsit();
    // The mount point, ending with "/", when the medium is present; else empty.
    static std::string getSDPath();
    static std::string getUdiskPath();
};

#endif  // PLATFORM_CHMIMEDIA_H_
