// PlatformSim: the fixed clocks and disk figures, and the captures of log
// lines and operator messages. All state sits behind one mutex.
#include "PlatformSim.h"

#include <deque>
#include <mutex>

#include "PlatformSimInternal.h"

namespace {

const size_t kMaxCaptured = 10000;  // newest entries kept per capture

struct SimState {
    std::mutex mutex;
    bool tickFixed = false;
    unsigned long long tick = 0;
    bool timeStampFixed = false;
    unsigned long long timeStamp = 0;
    bool diskFixed = false;
    unsigned int diskFree = 0;
    std::deque<std::string> logLines;
    std::deque<std::string> messages;
    PlatformSim::FileOpHook deleteFile = nullptr;
    PlatformSim::FileOpHook syncDir = nullptr;
};

// Never destroyed, so that objects logging from static destructors still find it.
SimState& State() {
    static SimState* state = new SimState;
    return *state;
}

void Capture(std::deque<std::string>& capture, const std::string& text) {
    capture.push_back(text);
    if (capture.size() > kMaxCaptured) {
        capture.pop_front();
    }
}

std::vector<std::string> Take(std::deque<std::string>& capture) {
    std::vector<std::string> taken(capture.begin(), capture.end());
    capture.clear();
    return taken;
}

}  // namespace

namespace PlatformSim {

void Reset() {
    {
        SimState& s = State();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.tickFixed = false;
        s.timeStampFixed = false;
        s.diskFixed = false;
        s.deleteFile = nullptr;
        s.syncDir = nullptr;
        s.logLines.clear();
        s.messages.clear();
    }
    CHmiMedia::SetSDPath("");
    CHmiMedia::SetUdiskPath("");
}

void SetTickCount(unsigned long long ms) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.tickFixed = true;
    s.tick = ms;
}

void AdvanceTickCount(unsigned long long ms) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.tickFixed) {
        s.tickFixed = true;
        s.tick = PlatformSimInternal::MonotonicMs();
    }
    s.tick += ms;
}

void SetTimeStamp(unsigned long long ts) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.timeStampFixed = true;
    s.timeStamp = ts;
}

void SetDiskFreeSize(unsigned int value) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.diskFixed = true;
    s.diskFree = value;
}

std::vector<std::string> TakeLogLines() {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return Take(s.logLines);
}

std::vector<std::string> TakeMessages() {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return Take(s.messages);
}

void SetFileOpHooks(FileOpHook deleteFile, FileOpHook syncDir) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.deleteFile = deleteFile;
    s.syncDir = syncDir;
}

}  // namespace PlatformSim

namespace PlatformSimInternal {

PlatformSim::FileOpHook FileDeleteHook() {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.deleteFile;
}

PlatformSim::FileOpHook DirSyncHook() {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.syncDir;
}

bool FixedTickCount(unsigned long long& ms) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.tickFixed) {
        ms = s.tick;
    }
    return s.tickFixed;
}

bool FixedTimeStamp(unsigned long long& ts) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.timeStampFixed) {
        ts = s.timeStamp;
    }
    return s.timeStampFixed;
}

bool FixedDiskFreeSize(unsigned int& value) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.diskFixed) {
        value = s.diskFree;
    }
    return s.diskFixed;
}

void CaptureLogLine(const std::string& text) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    Capture(s.logLines, text);
}

void CaptureMessage(const std::string& text) {
    SimState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    Capture(s.messages, text);
}

}  // namespace PlatformSimInternal
