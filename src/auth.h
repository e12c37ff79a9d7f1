// The challenge that guards activate and remote download.
//
// The daemon publishes a retained list of indices into a table of words that it shares with the authorised
// clients; a client answers with the MD5 digest of the words at these indices, one after the other:
//
//     pub/diag/command/aut/tbl_idx   1;17 4 99
//     response                       32 hexadecimal digits
//
// Every right response uses the challenge up, and so does every wrong one from the third in a row on.
// Functions return 0, or -1 after logging why.
#pragma once

// Publishes the first challenge; called once at start-up, with the broker connected.
[[nodiscard]] int auth_init();

// Whether response, the digits and anything behind them, answers the challenge in force. -1 also when the
// next challenge could not be published: no client can answer then until the one after it.
[[nodiscard]] int auth_check(const char *response, bool *ok);
