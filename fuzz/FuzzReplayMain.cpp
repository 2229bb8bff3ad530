// Runs a fuzz target without libFuzzer: every file named on the command line,
// or found below a named directory, is passed once to LLVMFuzzerTestOneInput.
// A broken property aborts, so ctest sees the failure.

// 32-bit targets: readdir and stat fail with EOVERFLOW on 64-bit inode
// numbers unless they are the 64-bit variants.
#define _FILE_OFFSET_BITS 64
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void collect(const std::string& path, std::vector<std::string>& files)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        std::exit(2);
    }
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) {
        std::fprintf(stderr, "replay: cannot open %s\n", path.c_str());
        std::exit(2);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* e = ::readdir(dir)) {
        if (e->d_name[0] != '.') names.push_back(e->d_name);
        errno = 0;
    }
    const int readError = errno;
    ::closedir(dir);
    if (readError != 0) {
        std::fprintf(stderr, "replay: cannot list %s: %s\n", path.c_str(), std::strerror(readError));
        std::exit(2);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) collect(path + "/" + n, files);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE|DIR...\n", argv[0]);
        return 2;
    }
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
    if (files.empty()) {
        std::fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    std::vector<std::vector<std::uint8_t>> inputs;
    for (const std::string& f : files) {
        std::ifstream in(f, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "replay: cannot read %s\n", f.c_str());
            return 2;
        }
        inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        // Never hand over a null pointer, as libFuzzer never does.
        inputs.back().reserve(1);
    }
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::fprintf(stderr, "replay: %s (%zu bytes)\n", files[i].c_str(), inputs[i].size());
        LLVMFuzzerTestOneInput(inputs[i].data(), inputs[i].size());
    }
    fuzz_support::stopTracker();
    std::fprintf(stderr, "replay: %zu inputs passed\n", files.size());
    return 0;
}
