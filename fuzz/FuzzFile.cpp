#include "FuzzFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fuzzfile {

namespace {

std::string MakeDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/sqlite3db_fuzz_XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        std::abort();
    }
    return pattern + "/";
}

void RemoveDir() {
    std::error_code ec;
    std::filesystem::remove_all(Dir(), ec);
}

}  // namespace

void Setup() {
    static char pages[1024 * 4400];
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 128, 64);
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, pages, 4400, 1024);
}

const std::string& Dir() {
    // Never destroyed, so that it outlives the exit handler that removes it.
    static const std::string* dir = new std::string(MakeDir());
    static const int removed = std::atexit(RemoveDir);
    (void)removed;
    return *dir;
}

void Write(const std::string& path, const uint8_t* data, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        std::abort();
    }
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) {
            std::abort();
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
}

bool Read(const std::string& path, std::string& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    bytes = text.str();
    return true;
}

std::vector<std::string> Names() {
    std::vector<std::string> names;
    DIR* d = opendir(Dir().c_str());
    if (d == nullptr) {
        std::abort();
    }
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(d);
        if (entry == nullptr) {
            if (errno != 0) {
                std::abort();  // a listing cut short would hide a side file
            }
            break;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

void Clear() {
    for (const std::string& name : Names()) {
        std::error_code ec;
        std::filesystem::remove_all(Dir() + name, ec);
    }
}

}  // namespace fuzzfile
