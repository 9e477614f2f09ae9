// FormatPrint: the platform's log output. Lines go to standard error and to
// the PlatformSim capture, exactly as formatted.
#include "FormatPrint.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "PlatformSimInternal.h"

void FormatPrintUtf8(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    int length = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    if (length < 0) {  // defensive: an encoding error in the arguments
        va_end(args);
        return;
    }
    std::string text(static_cast<size_t>(length), '\0');
    std::vsnprintf(&text[0], text.size() + 1, format, args);
    va_end(args);

    std::fwrite(text.data(), 1, text.size(), stderr);
    PlatformSimInternal::CaptureLogLine(text);
}

const char* GetBareFileName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}
