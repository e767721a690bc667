// Replays fuzz inputs without the fuzzing engine, so that every build runs a target's corpus under
// ctest: each file named on the command line, and each regular file in each directory named (in name
// order), goes once through LLVMFuzzerTestOneInput. Fails when it found no input at all.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

std::vector<std::filesystem::path> Inputs(int argc, char **argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code ec;
        if (!std::filesystem::is_directory(path, ec)) {
            inputs.push_back(path);
            continue;
        }
        std::vector<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(path, ec)) {
            if (entry.is_regular_file(ec)) files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        inputs.insert(inputs.end(), files.begin(), files.end());
    }
    return inputs;
}

}  // namespace

int main(int argc, char **argv) {
    size_t replayed = 0;
    for (const std::filesystem::path &input : Inputs(argc, argv)) {
        std::ifstream file(input, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 1;
        }
        const std::vector<uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
        ++replayed;
    }
    std::printf("%zu inputs replayed\n", replayed);
    return replayed == 0 ? 1 : 0;
}
