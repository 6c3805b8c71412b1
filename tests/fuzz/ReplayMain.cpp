// Runs a fuzz target once over every file of the given folders (the CI check of the seed corpus,
// without libFuzzer). Exit status 0 when every input ran; a failing input aborts.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::size_t ran = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], ec)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(in), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++ran;
        }
        if (ec) {
            std::fprintf(stderr, "cannot read %s: %s\n", argv[i], ec.message().c_str());
            return 1;
        }
    }
    std::printf("%zu input(s) ran\n", ran);
    return ran == 0 ? 1 : 0;
}
