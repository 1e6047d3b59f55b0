// Runs a fuzz target's entry point once on each file named (directories are
// read file by file), so the seeds and every input that once crashed a
// target are replayed by the ordinary test run, with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::filesystem::path> inputs_of(const std::filesystem::path& arg) {
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(arg)) {
        for (const auto& e : std::filesystem::directory_iterator(arg))
            if (e.is_regular_file()) files.push_back(e.path());
    } else {
        files.push_back(arg);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& file : inputs_of(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "cannot read %s\n", file.c_str());
                return 1;
            }
            std::string bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
            // Like libFuzzer, hand over a buffer of exactly the input's size,
            // so a read past its end is caught by the sanitizer build.
            std::vector<uint8_t> data(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
