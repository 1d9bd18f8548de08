// Replays a fuzz target over files and directories named on the command line,
// so the checked-in corpus runs as an ordinary test under any compiler. Each
// input is read up to a fixed cap; a crash or sanitizer report fails the test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kMaxInput = 1 << 20;

int runFile(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", p.c_str());
        return 1;
    }
    std::vector<char> buf(kMaxInput);
    in.read(buf.data(), static_cast<std::streamsize>(buf.size()));
    size_t n = static_cast<size_t>(in.gcount());
    // Copy into an exact-size heap block so out-of-bounds reads are caught.
    std::vector<uint8_t> exact(buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(n));
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto& e : std::filesystem::recursive_directory_iterator(arg)) {
                if (e.is_regular_file()) {
                    failures += runFile(e.path());
                    ++count;
                }
            }
        } else {
            failures += runFile(arg);
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    if (count == 0) {
        std::fprintf(stderr, "no corpus inputs found\n");
        return 1;
    }
    return failures == 0 ? 0 : 1;
}
