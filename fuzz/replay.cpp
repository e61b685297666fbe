// Without libFuzzer: feeds every file of the folder given to the target once, so that CTest runs
// the target's own checks on its corpus in every build.  A failed check aborts, after the name.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    int fed = 0;
    for (const auto &f : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "")) {
        std::ifstream in(f.path(), std::ios::binary);
        const std::vector<uint8_t> input{std::istreambuf_iterator<char>(in), {}};
        fprintf(stderr, "%s\n", f.path().filename().c_str());
        LLVMFuzzerTestOneInput(input.data(), input.size());
        fed++;
    }
    return fed > 0 ? 0 : 1;  // an empty folder is a failure; a missing one throws
}
