// Replays a fuzz corpus (files or directories of files) through the target's
// LLVMFuzzerTestOneInput, so that every build checks the corpus without clang.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

static int replay(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(data.data(), data.size());
    return 0;
}

int main(int argc, char **argv) {
    int failures = 0, count = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path arg(argv[i]);
        if (fs::is_directory(arg)) {
            for (const auto &entry : fs::recursive_directory_iterator(arg))
                if (entry.is_regular_file()) failures += replay(entry.path()), ++count;
        } else {
            failures += replay(arg), ++count;
        }
    }
    printf("replayed %d inputs\n", count);
    return failures == 0 && count > 0 ? 0 : 1;
}
