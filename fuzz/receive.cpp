// What comes from the fire network, while the card goes on.
#include "steps.h"

using enum fuzz::step;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr fuzz::step KINDS[] = {DATAGRAM, PACKET, RUN, STALL, FACT, PACKET, OWN_TOPIC, COMMAND};
    fuzz::run_input({data, size}, KINDS);
    return 0;
}
