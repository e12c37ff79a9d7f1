// The card: its MAC address, dip switch, type and port map, and the names of its ports and media. This daemon
// needs the address, the switch and the names; type and port map are for the platform's other programs, which
// share the module. Functions return 0, or -1 with out-parameters untouched, unless said otherwise. Logs as
// component "hwinfo".
#pragma once

#include <cstdint>

// Ports A to H are the front ports; CPU is the switch port that leads to the card's processor. The last two
// are the ends of the link between the card's two switches; they have no names.
enum lum_port {
    LUM_PORT_A,
    LUM_PORT_B,
    LUM_PORT_C,
    LUM_PORT_D,
    LUM_PORT_E,
    LUM_PORT_F,
    LUM_PORT_G,
    LUM_PORT_H,
    LUM_PORT_CPU,
    LUM_PORT_LINK_DOWN,
    LUM_PORT_LINK_UP,
};
constexpr int LUM_FRONT_PORTS = 8;

// Media of a port, NONE where its media card is missing.
enum lum_type {
    LUM_TYPE_ETH,
    LUM_TYPE_DSL,
    LUM_TYPE_SMF,
    LUM_TYPE_MMF,
    LUM_TYPE_NONE,
    LUM_TYPE_UNKNOWN,
};

// "A" to "H", "CPU", or lower case; null for a number without a name.
const char *hwinfo_lumport_enum_to_str_bigcap(int port);
const char *hwinfo_lumport_enum_to_str(int port);

// "cpu" in any case is the CPU port; of any other text only the first letter counts, a to h in either case.
[[nodiscard]] int hwinfo_lumport_str_to_enum(const char *text, int *port_out);

// "eth", "dsl", "smf", "mmf", "none", "unknown"; null for any other number.
const char *hwinfo_lumtype_enum_to_str(int type);
// LUM_TYPE_UNKNOWN for any other text.
int hwinfo_lumtype_str_to_enum(const char *text);

// The name of a port for a log message: its upper-case name, or its number where it has none.
struct port_name {
    explicit port_name(int port);
    char text[12];
};

// The MAC address of eth0 (6 bytes), which identifies the node; read from the kernel on every call.
[[nodiscard]] int hwinfo_get_local_mac_addr(uint8_t *mac_out);

// The dip switch's byte, read anew on every call from the register file that VEXA_CARD_ADDR_FILE names: the
// whole of it, the card address (0 to 127) in its low bits, the offline flag in its highest. -1 when it can't
// be read.
[[nodiscard]] int hwinfo_get_dipswitch();
[[nodiscard]] int hwinfo_get_card_addr();
[[nodiscard]] int hwinfo_get_card_offline();

// Reads the card's description from the files that the VEXA_* variables name and selects its port map. Until
// then the port map queries fail and the getters give zeros; after a failure they give what was read before
// it.
[[nodiscard]] int hwinfo_init();

[[nodiscard]] int hwinfo_get_hw_card_type(uint32_t *type_out);
[[nodiscard]] int hwinfo_get_card_flavor(uint32_t *flavor_out);
int hwinfo_get_card_hw_ver();
int hwinfo_is_old_card();

// A media card slot's media, LUM_TYPE_NONE when it is empty, LUM_TYPE_UNKNOWN on any failure.
int hwinfo_mc_type_get(const char *presence_path, const char *type_path);

// Of the selected map: its rows (see lum_port), its front ports and its switches.
[[nodiscard]] int hwinfo_get_nb_entries(uint32_t *count_out);
[[nodiscard]] int hwinfo_get_nb_ports(uint32_t *count_out);
[[nodiscard]] int hwinfo_get_nb_switches(uint32_t *count_out);

struct switch_port {
    uint32_t switch_number;
    uint32_t port;
};
[[nodiscard]] int hwinfo_port_get_switch_map(int port, switch_port *map_out);
[[nodiscard]] int hwinfo_port_get_mc_index(int port, int *index_out);
[[nodiscard]] int hwinfo_port_get_type(int port, int *type_out);
[[nodiscard]] int hwinfo_get_switch_upstream_port(int switch_number, int *port_out);
[[nodiscard]] int hwinfo_get_switch_downstream_port(int switch_number, int *port_out);

// The fixed multicast address of the remote management.
[[nodiscard]] int hwinfo_get_management_mac_addr(uint8_t *mac_out);
