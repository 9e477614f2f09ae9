// FuzzFile: what both fuzz targets share: one private scratch directory per
// process, into which each input is written as a DB file, and a check that
// nothing else appeared in it.
#ifndef FUZZ_FUZZFILE_H_
#define FUZZ_FUZZFILE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzfile {

// Once, before the first input: the engine's memory set up for many short
// connections (no per-connection lookaside, a preallocated page cache), so
// that an input costs less under the address sanitizer.
void Setup();

// The scratch directory (with a trailing '/'), made on first use under
// $TMPDIR or /tmp and removed with its contents when the process exits.
const std::string& Dir();

// Writes data to path, replacing any file there.
void Write(const std::string& path, const uint8_t* data, size_t size);

// The bytes of the regular file at path; false when it cannot be read.
bool Read(const std::string& path, std::string& bytes);

// The names in Dir(), sorted.
std::vector<std::string> Names();

// Removes everything in Dir().
void Clear();

}  // namespace fuzzfile

#endif  // FUZZ_FUZZFILE_H_
