// Commands of MQTT clients to this node and, through it, to others.
//
//     pub/diag/command/request     CID;TID;keyword[;arguments]     12;7;noop
//     pub/diag/command/response    CID;TID;ACK                     12;7;ACK
//                                  CID;TID;NACK;reason             12;8;NACK;unknown command
//
// CID names the client and, with that, its subscriptions on other nodes; TID one of its requests. Both are
// the client's choice.
#pragma once

#include <cstdint>

// Starts serving requests; called once at start-up, after all other modules. Lists of nodes address this
// card, and every other that carries it, by node_number: 1..255, or 0 for none. 0, or -1 after logging why.
[[nodiscard]] int command_init(uint8_t node_number);
