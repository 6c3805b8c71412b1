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

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i]))
            files.emplace_back(argv[i]);
        else
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                files.push_back(entry.path());
    }
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu input(s) ran\n", files.size());
    return files.empty() ? 1 : 0;
}
