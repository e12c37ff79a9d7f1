#include "hwinfo/hwinfo.h"

#include "common/fileutils.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/unique_fd.h"

#include <net/if.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

namespace
{

constexpr const char *log_source = "hwinfo/hwinfo.c";

constexpr uint32_t KNOWN_CARD_TYPE = 0xAE;
constexpr uint8_t LAST_OLD_FPGA_REV = 31;
constexpr int DIPSWITCH_ADDR_MASK = 0x7F;
constexpr int DIPSWITCH_OFFLINE_SHIFT = 7;
constexpr uint8_t OLD_MEDIA_CARD_MASK = 0x07;
constexpr uint8_t NEW_MEDIA_CARD_MASK = 0x0F;

enum flavor_code : uint32_t {
    FLAVOR_NIC_1 = 1,
    FLAVOR_NIC_2 = 2,
    FLAVOR_NIC_BOX = 3,
    FLAVOR_11 = 11,
};

constexpr int MEDIA_CARDS = 2;
// Media card index of the ports that sit on the card itself.
constexpr int32_t ON_CARD = MEDIA_CARDS;

struct named_port {
    const char *lower;
    const char *upper;
};
constexpr std::array<named_port, LUM_PORT_CPU + 1> PORT_NAMES = {{
    {"a", "A"},
    {"b", "B"},
    {"c", "C"},
    {"d", "D"},
    {"e", "E"},
    {"f", "F"},
    {"g", "G"},
    {"h", "H"},
    {"cpu", "CPU"},
}};

constexpr std::array<const char *, LUM_TYPE_UNKNOWN + 1> TYPE_NAMES = {"eth", "dsl",  "smf",
                                                                       "mmf", "none", "unknown"};

constexpr std::array<uint8_t, MAC_SIZE> MANAGEMENT_MAC = {0x01, 0x50, 0x43, 0x00, 0x00, 0x00};

constexpr size_t GPIO_BITS = 4;
using gpio_paths = std::array<const char *, GPIO_BITS>; // lowest bit first
constexpr gpio_paths FLAVOR_VARIABLES = {"VEXA_GPIO_FLAVOR0", "VEXA_GPIO_FLAVOR1", "VEXA_GPIO_FLAVOR2",
                                         "VEXA_GPIO_FLAVOR3"};
constexpr gpio_paths HW_VER_VARIABLES = {"VEXA_GPIO_HW_VER0", "VEXA_GPIO_HW_VER1", "VEXA_GPIO_HW_VER2",
                                         "VEXA_GPIO_HW_VER3"};
constexpr gpio_paths HW_VER_DEFAULT_PATHS = {"/sys/class/gpio/p1.15/value", "/sys/class/gpio/p1.16/value",
                                             "/sys/class/gpio/p1.17/value", "/sys/class/gpio/p1.18/value"};

struct port_map_entry {
    int32_t port;
    int32_t switch_number;
    int32_t switch_port;
    int32_t media_card;
    int32_t type = LUM_TYPE_UNKNOWN;
};

// The front ports come first.
struct port_map {
    int32_t entry_count;
    int32_t front_port_count;
    int32_t switch_count;
    port_map_entry entries[LUM_PORT_LINK_UP + 1];
};

port_map lum_map_nic_new = {
    11,
    8,
    2,
    {{LUM_PORT_A, 0, 3, ON_CARD},
     {LUM_PORT_B, 1, 3, ON_CARD},
     {LUM_PORT_C, 1, 4, ON_CARD},
     {LUM_PORT_D, 0, 2, ON_CARD},
     {LUM_PORT_E, 0, 0, 0},
     {LUM_PORT_F, 1, 0, 0},
     {LUM_PORT_G, 0, 1, 1},
     {LUM_PORT_H, 1, 1, 1},
     {LUM_PORT_CPU, 0, 4, ON_CARD},
     {LUM_PORT_LINK_DOWN, 0, 5, ON_CARD},
     {LUM_PORT_LINK_UP, 1, 5, ON_CARD}},
};

port_map lum_map_nic_old = {
    11,
    8,
    2,
    {{LUM_PORT_A, 0, 3, ON_CARD},
     {LUM_PORT_B, 0, 2, ON_CARD},
     {LUM_PORT_C, 1, 4, ON_CARD},
     {LUM_PORT_D, 1, 3, ON_CARD},
     {LUM_PORT_E, 0, 0, 0},
     {LUM_PORT_F, 1, 0, 0},
     {LUM_PORT_G, 0, 1, 1},
     {LUM_PORT_H, 1, 1, 1},
     {LUM_PORT_CPU, 0, 4, ON_CARD},
     {LUM_PORT_LINK_DOWN, 0, 5, ON_CARD},
     {LUM_PORT_LINK_UP, 1, 5, ON_CARD}},
};

port_map lum_map_nic_box = {
    9,
    6,
    2,
    {{LUM_PORT_A, 0, 3, ON_CARD},
     {LUM_PORT_B, 1, 3, ON_CARD},
     {LUM_PORT_C, 1, 4, ON_CARD},
     {LUM_PORT_D, 0, 2, ON_CARD},
     {LUM_PORT_E, 0, 0, 0},
     {LUM_PORT_F, 1, 0, 0},
     {LUM_PORT_CPU, 0, 4, ON_CARD},
     {LUM_PORT_LINK_DOWN, 0, 5, ON_CARD},
     {LUM_PORT_LINK_UP, 1, 5, ON_CARD}},
};

uint32_t hardware_card_type;
uint32_t card_flavor;
uint32_t card_hw_ver;
uint32_t is_old_card;
port_map *lum_map;

const named_port *find_port_name(int port)
{
    return port >= 0 && static_cast<size_t>(port) < PORT_NAMES.size() ? &PORT_NAMES[static_cast<size_t>(port)]
                                                                      : nullptr;
}

// The variable's value; null, after logging, when it is unset.
const char *get_path(const char *variable)
{
    const char *const path = getenv(variable);
    if (path == nullptr) {
        log_component_error(LUMLOG_HWINFO, "couldn't get %s environment variable", variable);
    }
    return path;
}

int read_gpios(const gpio_paths &paths, uint32_t &value_out)
{
    uint32_t value = 0;
    for (size_t bit = 0; bit < paths.size(); bit++) {
        const int level = fileutils_read_gpio(paths[bit]);
        if (level == -1) {
            return -1;
        }
        value |= static_cast<uint32_t>(level) << bit;
    }
    value_out = value;
    return 0;
}

gpio_paths get_gpio_paths(const gpio_paths &variables)
{
    gpio_paths paths{};
    std::transform(variables.begin(), variables.end(), paths.begin(), getenv);
    return paths;
}

int init_card_type()
{
    const char *const path = get_path("VEXA_CARD_TYPE_FILE");
    if (path == nullptr) {
        return -1;
    }
    uint8_t value = 0;
    if (fileutils_read_register_u8(path, &value) == -1) {
        return log_component_failure(LUMLOG_HWINFO, "error reading card type value (path %s)", path);
    }
    if (value != KNOWN_CARD_TYPE) {
        return log_component_failure(LUMLOG_HWINFO, "unknown card type 0x%x", value);
    }
    hardware_card_type = value;
    return 0;
}

int init_flavor()
{
    uint32_t value = 0;
    if (read_gpios(get_gpio_paths(FLAVOR_VARIABLES), value) == -1) {
        return -1;
    }
    switch (value) {
    case FLAVOR_NIC_1:
    case FLAVOR_NIC_2:
    case FLAVOR_NIC_BOX:
    case FLAVOR_11:
        card_flavor = value;
        return 0;
    default:
        return log_component_failure(LUMLOG_HWINFO, "unknown flavor value: %d", static_cast<int>(value));
    }
}

int init_hw_ver()
{
    gpio_paths paths = get_gpio_paths(HW_VER_VARIABLES);
    if (std::find(paths.begin(), paths.end(), nullptr) != paths.end()) {
        paths = HW_VER_DEFAULT_PATHS;
    }
    return read_gpios(paths, card_hw_ver);
}

int init_fpga_rev()
{
    const char *const path = get_path("VEXA_FPGA_REV_FILE");
    if (path == nullptr) {
        return -1;
    }
    uint8_t value = 0;
    if (fileutils_read_register_u8(path, &value) == -1) {
        return log_component_failure(LUMLOG_HWINFO, "error reading FPGA rev (path %s)", path);
    }
    is_old_card = value <= LAST_OLD_FPGA_REV;
    return 0;
}

int select_map()
{
    switch (card_flavor) {
    case FLAVOR_NIC_1:
    case FLAVOR_NIC_2:
        lum_map = is_old_card ? &lum_map_nic_old : &lum_map_nic_new;
        return 0;
    case FLAVOR_NIC_BOX:
        lum_map = &lum_map_nic_box;
        return 0;
    default:
        return log_component_failure(LUMLOG_HWINFO, "unsupported card flavor %d",
                                     static_cast<int>(card_flavor));
    }
}

int set_port_types()
{
    struct media_card {
        const char *presence_variable;
        const char *type_variable;
    };
    constexpr std::array<media_card, MEDIA_CARDS> SLOTS = {{
        {"VEXA_MEDIACARD0_PRESENCE", "VEXA_MEDIACARD0_FILE"},
        {"VEXA_MEDIACARD1_PRESENCE", "VEXA_MEDIACARD1_FILE"},
    }};
    std::array<int32_t, MEDIA_CARDS + 1> types{};
    for (size_t i = 0; i < SLOTS.size(); i++) {
        types[i] = hwinfo_mc_type_get(getenv(SLOTS[i].presence_variable), getenv(SLOTS[i].type_variable));
        if (types[i] == LUM_TYPE_UNKNOWN) {
            return log_component_failure(LUMLOG_HWINFO, "mc%zu error", i);
        }
    }
    types[ON_CARD] = LUM_TYPE_ETH;
    for (port_map_entry &entry :
         std::span(lum_map->entries, static_cast<size_t>(lum_map->front_port_count))) {
        entry.type = types[static_cast<size_t>(entry.media_card)];
    }
    return 0;
}

int get_count(int32_t port_map::*count, uint32_t *count_out)
{
    if (count_out == nullptr) {
        return log_component_failure(LUMLOG_HWINFO, "NULL pointer received as argument");
    }
    if (lum_map == nullptr) {
        return -1;
    }
    *count_out = static_cast<uint32_t>(lum_map->*count);
    return 0;
}

// The port's row of the selected map, null when there is none or the caller has no place for the answer.
const port_map_entry *find_entry(int port, const void *out)
{
    if (out == nullptr) {
        log_component_error(LUMLOG_HWINFO, "NULL pointer received as argument");
        return nullptr;
    }
    if (lum_map == nullptr) {
        return nullptr;
    }
    for (const port_map_entry &entry :
         std::span(lum_map->entries, static_cast<size_t>(lum_map->entry_count))) {
        if (entry.port == port) {
            return &entry;
        }
    }
    return nullptr;
}

template <typename T>
int copy_out(const T &value, T *value_out)
{
    if (value_out == nullptr) {
        return log_component_failure(LUMLOG_HWINFO, "NULL pointer received as argument");
    }
    *value_out = value;
    return 0;
}

} // namespace

const char *hwinfo_lumport_enum_to_str_bigcap(int port)
{
    const named_port *const name = find_port_name(port);
    return name != nullptr ? name->upper : nullptr;
}

const char *hwinfo_lumport_enum_to_str(int port)
{
    const named_port *const name = find_port_name(port);
    return name != nullptr ? name->lower : nullptr;
}

int hwinfo_lumport_str_to_enum(const char *text, int *port_out)
{
    if (text == nullptr || port_out == nullptr) {
        return -1;
    }
    if (strcasecmp(text, "cpu") == 0) {
        *port_out = LUM_PORT_CPU;
        return 0;
    }
    for (const char first_letter : {'a', 'A'}) {
        const int port = text[0] - first_letter;
        if (port >= LUM_PORT_A && port <= LUM_PORT_H) {
            *port_out = port;
            return 0;
        }
    }
    return -1;
}

const char *hwinfo_lumtype_enum_to_str(int type)
{
    return type >= 0 && static_cast<size_t>(type) < TYPE_NAMES.size() ? TYPE_NAMES[static_cast<size_t>(type)]
                                                                      : nullptr;
}

int hwinfo_lumtype_str_to_enum(const char *text)
{
    if (text == nullptr) {
        return LUM_TYPE_UNKNOWN;
    }
    int type = LUM_TYPE_ETH;
    while (type < LUM_TYPE_UNKNOWN && strcasecmp(text, TYPE_NAMES[static_cast<size_t>(type)]) != 0) {
        type++;
    }
    return type;
}

port_name::port_name(int port)
{
    const char *const name = hwinfo_lumport_enum_to_str_bigcap(port);
    if (name != nullptr) {
        snprintf(text, sizeof text, "%s", name);
    } else {
        snprintf(text, sizeof text, "%d", port);
    }
}

int hwinfo_get_local_mac_addr(uint8_t *mac_out)
{
    if (mac_out == nullptr) {
        return log_component_failure(LUMLOG_HWINFO, "NULL pointer received as argument");
    }
    const unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.is_open()) {
        return log_component_failure(LUMLOG_HWINFO, "couldn't create socket (errno %d)", errno);
    }
    ifreq request{};
    snprintf(request.ifr_name, sizeof request.ifr_name, "eth0");
    if (ioctl(sock.get(), SIOCGIFHWADDR, &request) == -1) {
        return log_component_failure(LUMLOG_HWINFO, "couldn't get MAC address (errno %d)", errno);
    }
    memcpy(mac_out, request.ifr_hwaddr.sa_data, MAC_SIZE);
    return 0;
}

int hwinfo_get_dipswitch()
{
    const char *const path = get_path("VEXA_CARD_ADDR_FILE");
    if (path == nullptr) {
        return -1;
    }
    uint8_t value = 0;
    if (fileutils_read_register_u8(path, &value) == -1) {
        return log_component_failure(LUMLOG_HWINFO, "error reading card address (path %s)", path);
    }
    return value;
}

int hwinfo_get_card_addr()
{
    const int dipswitch = hwinfo_get_dipswitch();
    return dipswitch == -1 ? -1 : dipswitch & DIPSWITCH_ADDR_MASK;
}

int hwinfo_get_card_offline()
{
    const int dipswitch = hwinfo_get_dipswitch();
    return dipswitch == -1 ? -1 : dipswitch >> DIPSWITCH_OFFLINE_SHIFT;
}

int hwinfo_init()
{
    struct init_step {
        int (*run)();
        const char *failure; // null where the step's own message says it all
    };
    constexpr std::array<init_step, 6> STEPS = {{
        {init_card_type, "HW card type initialization failed"},
        {init_flavor, "HW card flavor initialization failed"},
        {init_hw_ver, "HW card ver initialization failed"},
        {init_fpga_rev, "FPGA rev initialization failed"},
        {select_map, nullptr},
        {set_port_types, "map port types failed"},
    }};
    for (const init_step &step : STEPS) {
        if (step.run() == -1) {
            if (step.failure != nullptr) {
                log_component_error(LUMLOG_HWINFO, "%s", step.failure);
            }
            return -1;
        }
    }
    return 0;
}

int hwinfo_get_hw_card_type(uint32_t *type_out)
{
    return copy_out(hardware_card_type, type_out);
}

int hwinfo_get_card_flavor(uint32_t *flavor_out)
{
    return copy_out(card_flavor, flavor_out);
}

int hwinfo_get_card_hw_ver()
{
    return static_cast<int>(card_hw_ver);
}

int hwinfo_is_old_card()
{
    return static_cast<int>(is_old_card);
}

int hwinfo_mc_type_get(const char *presence_path, const char *type_path)
{
    if (presence_path == nullptr || type_path == nullptr) {
        log_component_error(LUMLOG_HWINFO, "error null args");
        return LUM_TYPE_UNKNOWN;
    }
    const int is_present = fileutils_read_gpio(presence_path);
    if (is_present == -1) {
        log_component_error(LUMLOG_HWINFO, "error gpio");
        return LUM_TYPE_UNKNOWN;
    }
    if (!is_present) {
        return LUM_TYPE_NONE;
    }
    uint8_t value = 0;
    if (fileutils_read_register_u8(type_path, &value) == -1) {
        log_component_error(LUMLOG_HWINFO, "error reading register path");
        return LUM_TYPE_UNKNOWN;
    }
    switch (value & (is_old_card ? OLD_MEDIA_CARD_MASK : NEW_MEDIA_CARD_MASK)) {
    case 1:
        return LUM_TYPE_ETH;
    case 2:
        return LUM_TYPE_DSL;
    case 4:
        return LUM_TYPE_SMF;
    case 5:
        return LUM_TYPE_MMF;
    default:
        log_component_error(LUMLOG_HWINFO, "unknown type (%d)", value);
        return LUM_TYPE_UNKNOWN;
    }
}

int hwinfo_get_nb_entries(uint32_t *count_out)
{
    return get_count(&port_map::entry_count, count_out);
}

int hwinfo_get_nb_ports(uint32_t *count_out)
{
    return get_count(&port_map::front_port_count, count_out);
}

int hwinfo_get_nb_switches(uint32_t *count_out)
{
    return get_count(&port_map::switch_count, count_out);
}

int hwinfo_port_get_switch_map(int port, switch_port *map_out)
{
    const port_map_entry *const entry = find_entry(port, map_out);
    if (entry == nullptr) {
        return -1;
    }
    *map_out = {static_cast<uint32_t>(entry->switch_number), static_cast<uint32_t>(entry->switch_port)};
    return 0;
}

int hwinfo_port_get_mc_index(int port, int *index_out)
{
    const port_map_entry *const entry = find_entry(port, index_out);
    if (entry == nullptr) {
        return -1;
    }
    *index_out = entry->media_card;
    return 0;
}

int hwinfo_port_get_type(int port, int *type_out)
{
    const port_map_entry *const entry = find_entry(port, type_out);
    if (entry == nullptr) {
        return -1;
    }
    *type_out = entry->type;
    return 0;
}

int hwinfo_get_switch_upstream_port(int switch_number, int *port_out)
{
    switch (switch_number) {
    case 0:
        return copy_out<int>(LUM_PORT_CPU, port_out);
    case 1:
        return copy_out<int>(LUM_PORT_LINK_UP, port_out);
    default:
        return -1;
    }
}

int hwinfo_get_switch_downstream_port(int switch_number, int *port_out)
{
    return switch_number == 0 ? copy_out<int>(LUM_PORT_LINK_DOWN, port_out) : -1;
}

int hwinfo_get_management_mac_addr(uint8_t *mac_out)
{
    if (mac_out == nullptr) {
        return log_component_failure(LUMLOG_HWINFO, "NULL pointer received as argument");
    }
    std::copy(MANAGEMENT_MAC.begin(), MANAGEMENT_MAC.end(), mac_out);
    return 0;
}
