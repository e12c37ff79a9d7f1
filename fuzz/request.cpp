// What clients request, while network and card go on.
#include "steps.h"

using enum fuzz::step;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr fuzz::step KINDS[] = {COMMAND, COMMAND, PACKET, RUN, STALL, FACT, COMMAND, PACKET};
    fuzz::run_input({data, size}, KINDS);
    return 0;
}
