// Whether a broker's host takes a TCP connection, found out without standing still: what else has to be looked at is.
#pragma once

#include "broker/session.h"

// Throws failure where it doesn't within the limit.
void probe_broker(const broker_address &broker, std::chrono::milliseconds limit,
                  std::span<wait_input> inputs);

// Serves the inputs for so long, or until the descriptor is writable or has failed: true. -1: only the inputs.
bool serve_inputs(std::span<wait_input> inputs, std::chrono::milliseconds limit, int writable = -1);
