#include "utils.h"

#include "log_capture.h"

#include <gtest/gtest.h>

#include <optional>

bool operator==(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

TEST(utils, times_compare_subtract_and_add_across_the_second)
{
    const struct {
        timespec later;
        timespec earlier;
        timespec diff;
        timespec sum;
    } cases[] = {
        {{5, 100}, {3, 900000000}, {1, 100000100}, {8, 900000100}},
        {{2, 700000000}, {1, 600000000}, {1, 100000000}, {4, 300000000}},
        {{4, 5}, {4, 4}, {0, 1}, {8, 9}},
        {{2, 0}, {1, 999999999}, {0, 1}, {3, 999999999}},
        {{1, 500000000}, {0, 500000000}, {1, 0}, {2, 0}},
        {{0, 999999999}, {0, 999999999}, {0, 0}, {1, 999999998}},
    };
    for (const auto &test : cases) {
        const int order = test.diff == timespec{0, 0} ? 0 : 1;
        EXPECT_EQ(timespec_cmp(&test.later, &test.earlier), order);
        EXPECT_EQ(timespec_cmp(&test.earlier, &test.later), -order);
        EXPECT_EQ(timespec_diff(&test.later, &test.earlier), test.diff);
        EXPECT_EQ(timespec_diff(&test.earlier, &test.later), test.diff);
        EXPECT_EQ(timespec_sum(&test.later, &test.earlier), test.sum);
    }
}

TEST(utils, mac_address_is_found_as_scanf_reads_it)
{
    using mac = std::vector<uint8_t>;
    const mac one_to_six = {1, 2, 3, 4, 5, 6};
    const struct {
        const char *topic;
        std::optional<mac> expected;
    } cases[] = {
        {"pub/diag/00-1A-2B-3C-4D-5E/port_summary", mac{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}},
        {"local/diag/node/ff-fe-fd-fc-fb-fa", mac{0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA}},
        {"x/1-2-3-4-5-6", one_to_six},
        {"/1-2-3-4-5-6/7-7-7-7-7-7", one_to_six},
        {"x/7-7-7-7-7/1-2-3-4-5-6/y", one_to_six},
        {"x/ 1- 2-\t3-+4-05-6 and more", one_to_six},
        {"x/1-2-3-4-5-67-8", mac{1, 2, 3, 4, 5, 0x67}},
        {"x/-1-2-3-4-5-6", mac{0xFF, 2, 3, 4, 5, 6}},
        {"1-2-3-4-5-6/x", {}},
        {"x/y1-2-3-4-5-6", {}},
        {"x/001-2-3-4-5-6", {}},
        {"x/1 -2-3-4-5-6", {}},
        {"x/1-2-3-4-5-g", {}},
        {"x/1-2-3-4-5-", {}},
        {"x/1:2:3:4:5:6", {}},
        {"x/", {}},
        {"", {}},
    };
    for (const auto &test : cases) {
        const uint8_t *const found = find_mac_addr_in_topic(test.topic);
        ASSERT_EQ(found != nullptr, test.expected.has_value()) << test.topic;
        if (found != nullptr) {
            EXPECT_EQ(mac(found, found + 6), *test.expected) << test.topic;
        }
    }
    EXPECT_TRUE(logged_lines().empty());
}

TEST(utils, port_is_an_upper_case_level_after_port)
{
    const struct {
        const char *topic;
        int port;
    } good[] = {
        {"local/diag/port/A/type", 0},   {"local/diag/port/C/type", 2}, {"local/diag/port/H/", 7},
        {"local/diag/port/CPU/type", 8}, {"port/B/port/C/", 1},
    };
    for (const auto &test : good) {
        int port = 77;
        EXPECT_EQ(find_port_in_local_topic(test.topic, &port), 0) << test.topic;
        EXPECT_EQ(port, test.port) << test.topic;
    }
    EXPECT_TRUE(logged_lines().empty());

    for (const std::string bad :
         {"port/c/type", "port/I/type", "port/@/type", "port/A", "port/AB/", "port/CPU", "port/CPUX/",
          "port/cpu/", "port/", "port//", "port/x/port/A/"}) {
        int port = 77;
        clear_log();
        EXPECT_EQ(find_port_in_local_topic(bad.c_str(), &port), -1);
        EXPECT_EQ(port, 77);
        EXPECT_EQ(logged_messages(), (log_messages{"invalid port identifier in topic " + bad}));
    }
    clear_log();
    int port = 77;
    EXPECT_EQ(find_port_in_local_topic("local/diag/Port/A", &port), -1);
    EXPECT_EQ(logged_messages(), (log_messages{"couldn't find port in topic local/diag/Port/A"}));
}
