// What comes from the card's own broker, while the network goes on.
#include "steps.h"

using enum fuzz::step;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr fuzz::step KINDS[] = {FACT, OWN_TOPIC, TOPIC, RUN, STALL, PACKET, COMMAND, FACT};
    fuzz::run_input({data, size}, KINDS);
    return 0;
}
