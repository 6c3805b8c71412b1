// Runs a fuzz target over files and folders of inputs once each (the CI check of the seed
// corpus, without libFuzzer). Exit status 0 when every input ran; a failing input aborts.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool run(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto& f : files) {
            if (!run(f)) {
                return 1;
            }
            ++count;
        }
    }
    std::printf("%zu input(s) ran\n", count);
    return count > 0 ? 0 : 1;
}
