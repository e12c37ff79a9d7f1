#include "common/fileutils.h"

#include "log_capture.h"
#include "temp_file.h"

#include <gtest/gtest.h>

#include <string_view>
#include <unistd.h>

using namespace std::string_view_literals;

TEST(fileutils, gpio_is_the_first_character)
{
    for (const auto &[content, expected] : {std::pair("0"sv, 0),
                                            {"1", 1},
                                            {"1\n", 1},
                                            {"0x", 0},
                                            {"2", -1},
                                            {"\n1", -1},
                                            {" 1", -1},
                                            {"/", -1}}) {
        const temp_file file(content);
        clear_log();
        EXPECT_EQ(fileutils_read_gpio(file.path()), expected) << content;
        EXPECT_EQ(logged_messages(),
                  expected == -1
                      ? log_messages{"value read (" + std::string(content.substr(0, 1)) + ") is not 0 or 1"}
                      : log_messages{});
    }
}

TEST(fileutils, register_is_one_number_of_four_characters)
{
    const std::pair<std::string_view, int> rows[] = {
        {"0x2a\n", 0x2A}, {"0X7F", 0x7F},  {"0255", 0255}, {"0012", 10}, {"1234", 1234 & 0xFF},
        {"0400", 0},      {"0x2ax", 0x2A}, {"0000", 0},    {"  42", 42}, {"142\n", -1},
        {"0x1\n", -1},    {"0xzz", -1},    {"0089", -1},   {"12 4", -1}, {"    ", -1},
        {"0x1\0"sv, -1},  {"abcd", -1},
    };
    for (const auto &[content, expected] : rows) {
        const temp_file file(content);
        uint8_t value = 77;
        clear_log();
        EXPECT_EQ(fileutils_read_register_u8(file.path(), &value), expected == -1 ? -1 : 0) << content;
        EXPECT_EQ(value, expected == -1 ? 77 : expected) << content;
        const std::string text(content.substr(0, content.find('\0')));
        EXPECT_EQ(logged_messages(), expected == -1
                                         ? log_messages{"error converting string \"" + text.substr(0, 4) +
                                                        "\" to unsigned long (errno 0)"}
                                         : log_messages{});
    }
}

TEST(fileutils, unreadable_files_are_reported_with_path_and_count)
{
    const temp_file three("42\n");
    uint8_t value = 77;
    EXPECT_EQ(fileutils_read_gpio("/nonexistent"), -1);
    EXPECT_EQ(fileutils_read_gpio("/tmp"), -1);
    EXPECT_EQ(fileutils_read_register_u8("/nonexistent", &value), -1);
    EXPECT_EQ(fileutils_read_register_u8(three.path(), &value), -1);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(logged_messages(), (log_messages{"couldn't open file /nonexistent for reading",
                                               "error reading from file /tmp (read 0 bytes, expected 1)",
                                               "couldn't open file /nonexistent for reading",
                                               std::string("error reading from file ") + three.path() +
                                                   " (read 3 bytes, expected 4)"}));
}

TEST(fileutils, nothing_is_read_past_the_value)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "10x2arest", 9), 9);
    const std::string path = "/proc/self/fd/" + std::to_string(ends[0]);
    uint8_t value = 0;
    EXPECT_EQ(fileutils_read_gpio(path.c_str()), 1);
    EXPECT_EQ(fileutils_read_register_u8(path.c_str(), &value), 0);
    EXPECT_EQ(value, 0x2A);
    char rest[5] = {};
    EXPECT_EQ(read(ends[0], rest, 4), 4);
    EXPECT_STREQ(rest, "rest");
}
