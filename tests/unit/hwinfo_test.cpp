#include "hwinfo/hwinfo.h"

#include "log_capture.h"
#include "process.h"
#include "temp_file.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <map>
#include <memory>

namespace
{

constexpr const char *SHORT_REGISTER = "error reading from file * (read 0 bytes, expected 4)";

// The files of a card that hwinfo_init accepts: flavor 1, hardware version 10, new, media cards smf and none.
class card
{
public:
    card()
    {
        for (const auto &[variable, content] : std::map<std::string, const char *>{
                 {"VEXA_CARD_ADDR_FILE", "0x85"},
                 {"VEXA_CARD_TYPE_FILE", "0xAE"},
                 {"VEXA_GPIO_FLAVOR0", "1"},
                 {"VEXA_GPIO_FLAVOR1", "0"},
                 {"VEXA_GPIO_FLAVOR2", "0"},
                 {"VEXA_GPIO_FLAVOR3", "0"},
                 {"VEXA_GPIO_HW_VER0", "0"},
                 {"VEXA_GPIO_HW_VER1", "1"},
                 {"VEXA_GPIO_HW_VER2", "0"},
                 {"VEXA_GPIO_HW_VER3", "1"},
                 {"VEXA_FPGA_REV_FILE", "0x20"},
                 {"VEXA_MEDIACARD0_PRESENCE", "1"},
                 {"VEXA_MEDIACARD0_FILE", "0x04"},
                 {"VEXA_MEDIACARD1_PRESENCE", "0"},
                 {"VEXA_MEDIACARD1_FILE", "0x01"},
             }) {
            set(variable, content);
        }
    }
    void set(const std::string &variable, const char *content)
    {
        files_[variable] = std::make_unique<temp_file>(content);
        setenv(variable.c_str(), files_[variable]->path(), 1);
    }
    const char *path(const std::string &variable) { return files_[variable]->path(); }

private:
    std::map<std::string, std::unique_ptr<temp_file>> files_;
};

} // namespace

TEST(hwinfo, port_text_counts_by_its_first_letter_unless_it_is_cpu)
{
    const struct {
        const char *text;
        int port;
    } cases[] = {
        {"CPU", 8}, {"cpu", 8}, {"Cpu", 8}, {"cpux", 2},  {"cp", 2}, {"c", 2},
        {"b", 1},   {"B", 1},   {"b1", 1},  {"Bravo", 1}, {"a", 0},  {"H", 7},
        {"i", -1},  {"I", -1},  {"@", -1},  {"`", -1},    {"1", -1}, {"", -1},
    };
    for (const auto &test : cases) {
        int port = -1;
        EXPECT_EQ(hwinfo_lumport_str_to_enum(test.text, &port), test.port == -1 ? -1 : 0) << test.text;
        EXPECT_EQ(port, test.port) << test.text;
    }
    EXPECT_EQ(logged_messages(), (log_messages{}));
}

TEST(hwinfo, numbers_without_a_name_have_none_and_log_as_numbers)
{
    for (const int port : {-1, INT_MIN, 9, 10, 255, INT_MAX}) {
        EXPECT_EQ(hwinfo_lumport_enum_to_str_bigcap(port), nullptr) << port;
        EXPECT_EQ(hwinfo_lumport_enum_to_str(port), nullptr) << port;
        EXPECT_EQ(port_name(port).text, std::to_string(port));
    }
    EXPECT_STREQ(port_name(LUM_PORT_A).text, "A");
    EXPECT_STREQ(port_name(LUM_PORT_CPU).text, "CPU");
    EXPECT_STREQ(hwinfo_lumport_enum_to_str(LUM_PORT_H), "h");
    for (const int type : {-1, 6, INT_MAX}) {
        EXPECT_EQ(hwinfo_lumtype_enum_to_str(type), nullptr) << type;
    }
    for (int type = LUM_TYPE_ETH; type <= LUM_TYPE_UNKNOWN; type++) {
        EXPECT_EQ(hwinfo_lumtype_str_to_enum(hwinfo_lumtype_enum_to_str(type)), type);
    }
    EXPECT_EQ(hwinfo_lumtype_str_to_enum("ETH"), LUM_TYPE_ETH);
    for (const char *const other : {"ether", "et", "", "eth "}) {
        EXPECT_EQ(hwinfo_lumtype_str_to_enum(other), LUM_TYPE_UNKNOWN);
    }
}

TEST(hwinfo, mac_address_is_that_of_eth0_at_each_call)
{
    if (!enter_network_namespace()) {
        GTEST_SKIP() << "needs a network namespace";
    }
    using mac_bytes = std::array<uint8_t, 6>;
    const mac_bytes untouched = {9, 9, 9, 9, 9, 9};
    mac_bytes mac = untouched;
    EXPECT_EQ(hwinfo_get_local_mac_addr(mac.data()), -1);
    EXPECT_EQ(mac, untouched);

    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    strcpy(request.ifr_newname, "eth0");
    ASSERT_EQ(ioctl(sock, SIOCSIFNAME, &request), 0);
    for (const uint8_t last : {uint8_t{0x5E}, uint8_t{0xFF}}) {
        const mac_bytes expected = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, last};
        request = {};
        strcpy(request.ifr_name, "eth0");
        request.ifr_hwaddr.sa_family = ARPHRD_LOOPBACK;
        memcpy(request.ifr_hwaddr.sa_data, expected.data(), expected.size());
        ASSERT_EQ(ioctl(sock, SIOCSIFHWADDR, &request), 0) << errno;
        EXPECT_EQ(hwinfo_get_local_mac_addr(mac.data()), 0);
        EXPECT_EQ(mac, expected);
    }
    const no_descriptors limit;
    EXPECT_EQ(hwinfo_get_local_mac_addr(mac.data()), -1);
    EXPECT_EQ(logged_messages(),
              (log_messages{"couldn't get MAC address (errno 19)", "couldn't create socket (errno 24)"}));
}

TEST(hwinfo, dip_switch_splits_into_address_and_offline_flag_at_each_call)
{
    card files;
    EXPECT_EQ(hwinfo_get_dipswitch(), 0x85);
    EXPECT_EQ(hwinfo_get_card_addr(), 5);
    EXPECT_EQ(hwinfo_get_card_offline(), 1);
    files.set("VEXA_CARD_ADDR_FILE", "0x7f");
    EXPECT_EQ(hwinfo_get_card_addr(), 127);
    EXPECT_EQ(hwinfo_get_card_offline(), 0);
    EXPECT_EQ(logged_messages(), (log_messages{}));

    files.set("VEXA_CARD_ADDR_FILE", "42\n");
    const std::string path = files.path("VEXA_CARD_ADDR_FILE");
    const std::string cause = "error reading from file " + path + " (read 3 bytes, expected 4)";
    const std::string context = "error reading card address (path " + path + ")";
    EXPECT_EQ(hwinfo_get_dipswitch(), -1);
    EXPECT_EQ(hwinfo_get_card_addr(), -1);
    EXPECT_EQ(hwinfo_get_card_offline(), -1);
    unsetenv("VEXA_CARD_ADDR_FILE");
    EXPECT_EQ(hwinfo_get_card_addr(), -1);
    EXPECT_EQ(logged_messages(), (log_messages{cause, context, cause, context, cause, context,
                                               "couldn't get VEXA_CARD_ADDR_FILE environment variable"}));
}

TEST(hwinfo, each_failing_step_of_init_is_named)
{
    const char *const no_type = "HW card type initialization failed";
    const char *const no_flavor = "HW card flavor initialization failed";
    const char *const no_hw_ver = "HW card ver initialization failed";
    const char *const no_fpga = "FPGA rev initialization failed";
    const char *const no_types = "map port types failed";
    const struct {
        const char *variable;
        const char *content;   // null: the variable is unset
        log_messages messages; // the first '*' stands for the file's path
    } cases[] = {
        {"VEXA_CARD_TYPE_FILE", nullptr, {"couldn't get VEXA_CARD_TYPE_FILE environment variable", no_type}},
        {"VEXA_CARD_TYPE_FILE", "", {SHORT_REGISTER, "error reading card type value (path *)", no_type}},
        {"VEXA_CARD_TYPE_FILE", "0xAF", {"unknown card type 0xaf", no_type}},
        {"VEXA_GPIO_FLAVOR2", nullptr, {"no path specified", no_flavor}},
        {"VEXA_GPIO_FLAVOR2", "x", {"value read (x) is not 0 or 1", no_flavor}},
        {"VEXA_GPIO_FLAVOR2", "1", {"unknown flavor value: 5", no_flavor}},
        {"VEXA_GPIO_FLAVOR0", "0", {"unknown flavor value: 0", no_flavor}},
        {"VEXA_GPIO_HW_VER3", "x", {"value read (x) is not 0 or 1", no_hw_ver}},
        {"VEXA_GPIO_HW_VER3",
         nullptr,
         {"couldn't open file /sys/class/gpio/p1.15/value for reading", no_hw_ver}},
        {"VEXA_FPGA_REV_FILE", nullptr, {"couldn't get VEXA_FPGA_REV_FILE environment variable", no_fpga}},
        {"VEXA_FPGA_REV_FILE", "", {SHORT_REGISTER, "error reading FPGA rev (path *)", no_fpga}},
        {"VEXA_MEDIACARD0_PRESENCE", nullptr, {"error null args", "mc0 error", no_types}},
        {"VEXA_MEDIACARD1_FILE", nullptr, {"error null args", "mc1 error", no_types}},
        {"VEXA_MEDIACARD0_PRESENCE",
         "2",
         {"value read (2) is not 0 or 1", "error gpio", "mc0 error", no_types}},
        {"VEXA_MEDIACARD0_FILE", "", {SHORT_REGISTER, "error reading register path", "mc0 error", no_types}},
        {"VEXA_MEDIACARD0_FILE", "0x03", {"unknown type (3)", "mc0 error", no_types}},
        {"VEXA_MEDIACARD0_FILE", "0x0D", {"unknown type (13)", "mc0 error", no_types}},
    };
    for (const auto &test : cases) {
        card files;
        log_messages expected = test.messages;
        if (test.content == nullptr) {
            unsetenv(test.variable);
        } else {
            files.set(test.variable, test.content);
            for (std::string &message : expected) {
                const size_t place = message.find('*');
                if (place != std::string::npos) {
                    message.replace(place, 1, files.path(test.variable));
                }
            }
        }
        clear_log();
        EXPECT_EQ(hwinfo_init(), expected.empty() ? 0 : -1) << test.variable;
        EXPECT_EQ(logged_messages(), expected) << test.variable;
    }
}

TEST(hwinfo, describes_the_card)
{
    card files;
    ASSERT_EQ(hwinfo_init(), 0);
    uint32_t value = 0;
    EXPECT_EQ(hwinfo_get_card_flavor(&value), 0);
    EXPECT_EQ(value, 1U);
    EXPECT_EQ(hwinfo_get_nb_switches(&value), 0);
    EXPECT_EQ(value, 2U);
    EXPECT_EQ(hwinfo_get_nb_entries(&value), 0);
    EXPECT_EQ(value, 11U);
    int port = 0;
    EXPECT_EQ(hwinfo_get_switch_upstream_port(0, &port), 0);
    EXPECT_EQ(port, LUM_PORT_CPU);
    EXPECT_EQ(hwinfo_get_switch_upstream_port(1, &port), 0);
    EXPECT_EQ(port, LUM_PORT_LINK_UP);
    EXPECT_EQ(hwinfo_get_switch_downstream_port(0, &port), 0);
    EXPECT_EQ(port, LUM_PORT_LINK_DOWN);
    EXPECT_EQ(hwinfo_get_switch_upstream_port(2, &port), -1);
    EXPECT_EQ(hwinfo_get_switch_downstream_port(1, &port), -1);
    EXPECT_EQ(hwinfo_port_get_mc_index(LUM_PORT_LINK_UP + 1, &port), -1);
    std::string media_cards;
    for (int front = LUM_PORT_A; front <= LUM_PORT_H; front++) {
        EXPECT_EQ(hwinfo_port_get_mc_index(front, &port), 0);
        media_cards += std::to_string(port) + " ";
    }
    EXPECT_EQ(media_cards, "2 2 2 2 0 0 1 1 ");
    uint8_t mac[6];
    EXPECT_EQ(hwinfo_get_management_mac_addr(mac), 0);
    const uint8_t management[] = {0x01, 0x50, 0x43, 0, 0, 0};
    EXPECT_TRUE(std::equal(mac, mac + sizeof mac, management));
    EXPECT_EQ(hwinfo_is_old_card(), 0);
}

TEST(hwinfo, places_and_types_every_port)
{
    const struct {
        std::vector<std::pair<const char *, const char *>> changes; // of the accepted card
        const char *switch_ports;                                   // switch and its port, for each port
        const char *types;
    } rows[] = {
        // A flavor without ports, the first: the map of another would stay.
        {{{"VEXA_GPIO_FLAVOR1", "1"}, {"VEXA_GPIO_FLAVOR3", "1"}},
         "-- -- -- -- -- -- -- -- -- -- -- ",
         "-----------"},
        {{}, "03 13 14 02 00 10 01 11 04 05 15 ", "00002244555"},
        // An old card, whose media have three bits.
        {{{"VEXA_FPGA_REV_FILE", "0x1f"},
          {"VEXA_MEDIACARD0_FILE", "0x0D"},
          {"VEXA_GPIO_FLAVOR0", "0"},
          {"VEXA_GPIO_FLAVOR1", "1"}},
         "03 02 14 13 00 10 01 11 04 05 15 ",
         "00003344555"},
        // A box with six front ports.
        {{{"VEXA_GPIO_FLAVOR1", "1"}, {"VEXA_MEDIACARD0_FILE", "0x02"}},
         "03 13 14 02 00 10 -- -- 04 05 15 ",
         "000011--555"},
    };
    for (const auto &row : rows) {
        card files;
        for (const auto &[variable, content] : row.changes) {
            files.set(variable, content);
        }
        const bool has_map = strchr(row.types, '0') != nullptr;
        clear_log();
        EXPECT_EQ(hwinfo_init(), has_map ? 0 : -1);
        EXPECT_EQ(logged_messages(), has_map ? log_messages{} : log_messages{"unsupported card flavor 11"});
        EXPECT_EQ(hwinfo_get_card_hw_ver(), 10);
        std::string switch_ports;
        std::string types;
        for (int port = LUM_PORT_A; port <= LUM_PORT_LINK_UP; port++) {
            switch_port place{};
            int type = 0;
            switch_ports += hwinfo_port_get_switch_map(port, &place) == 0
                                ? std::to_string(place.switch_number) + std::to_string(place.port) + " "
                                : "-- ";
            types += hwinfo_port_get_type(port, &type) == 0 ? std::to_string(type) : "-";
        }
        EXPECT_EQ(switch_ports, row.switch_ports);
        EXPECT_EQ(types, row.types);
        uint32_t count = 0;
        EXPECT_EQ(hwinfo_get_nb_ports(&count), has_map ? 0 : -1);
        EXPECT_EQ(count, LUM_FRONT_PORTS - std::count(types.begin(), types.begin() + LUM_FRONT_PORTS, '-'));
    }
}
