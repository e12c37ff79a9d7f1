// Statistics of the card's fire ports: for each port whose announced type is "fire" or "firespur" the
// counters since the last reset, quarter-hour and daily performance-monitoring (PM) records and the port
// status.
//
//     local/diag/port/<PORT>/type                    which ports are tracked
//     local/diag/port/<PORT>/{media,link_down,grnd,stats,status}
//                                                    their facts; the layouts of stats and status, and of the
//                                                    records published, are in records.h
//     pub/diag/<MAC>/<PORT>/stats                    published with every message on .../stats and by a reset
//     pub/diag/<MAC>/<PORT>/pm/...                   published as periods and days are closed
//
// Link, ground fault, media, type and status go to the summary module. Functions return 0, or -1 after
// logging why.
#pragma once

// Subscribes to the port types and starts the PM timer; called once at start-up, with the broker connected.
[[nodiscard]] int stats_init();

// Lets the statistics of a port (hwinfo's numbers) start again from zero, without a PM history; its status is
// computed anew. Fails for a port that is not tracked.
[[nodiscard]] int stats_reset_port(int port);

// Resets every tracked port; -1 when one of them failed, the others being reset all the same.
[[nodiscard]] int stats_reset_all();
