// Feeds the files of a directory, or single files, to a fuzzer's entry point.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

unsigned replay(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
    if (file.bad() || !file.is_open()) {
        perror(path.c_str());
        exit(EXIT_FAILURE);
    }
    fprintf(stderr, "%s\n", path.c_str()); // the last one named is the one that fails
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    unsigned inputs = 0;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            inputs += replay(argv[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            inputs += replay(entry.path());
        }
    }
    fprintf(stderr, "%u inputs\n", inputs);
    return inputs == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
