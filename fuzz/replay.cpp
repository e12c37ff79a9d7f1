// Plays files, or those of directories, each to a daemon of its own: replay FUZZER FILE...
#include "steps.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace
{

unsigned replay(const char *fuzzer, const std::filesystem::path &path)
{
    const std::vector<uint8_t> input = fuzz::read_input(path);
    fprintf(stderr, "%s\n", path.c_str()); // the last one named is the one that fails
    fuzz::subject daemon;
    daemon.start();
    fuzz::play(daemon, input, fuzz::steps_of(fuzzer));
    daemon.finish();
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    unsigned inputs = 0;
    for (int i = 2; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            inputs += replay(argv[1], argv[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            inputs += replay(argv[1], entry.path());
        }
    }
    fprintf(stderr, "%u inputs\n", inputs);
    return inputs == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
