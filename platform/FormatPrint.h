// Log output of the panel platform.
#ifndef PLATFORM_FORMATPRINT_H_
#define PLATFORM_FORMATPRINT_H_

// printf-style log line; written to standard error (and captured by
// PlatformSim for tests).
void FormatPrintUtf8(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The part of path after its last '/' (the whole path when it has none).
const char* GetBareFileName(const char* path);

#endif  // PLATFORM_FORMATPRINT_H_
