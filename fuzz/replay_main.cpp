// Runs a fuzz target's entry point on every file (but README files) of the
// directories given on the command line, as a normal program: the kept inputs of each target are
// replayed by CTest in every build (native, under the sanitizers, under an
// emulator), without libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzFile.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], ec)) {
            if (entry.is_regular_file() &&
                entry.path().filename().string().rfind("README", 0) != 0) {
                inputs.push_back(entry.path());
            }
        }
        if (ec) {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 2;
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const std::string& input : inputs) {
        std::string bytes;
        if (!fuzzfile::Read(input, bytes)) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 2;
        }
        std::fprintf(stderr, "replaying %s\n", input.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
