// The entry point of the fuzzer FUZZER: an input is played to a daemon of its own.
#include "steps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::subject daemon;
    daemon.start();
    fuzz::play(daemon, {data, size}, fuzz::steps_of(FUZZER));
    daemon.finish();
    return 0;
}
