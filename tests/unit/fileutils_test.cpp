#include "common/fileutils.h"

#include "log_capture.h"
#include "temp_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

namespace
{

bool is_close_failing;

} // namespace

extern "C" {
int __real_close(int fd);
int __wrap_close(int fd);

int __wrap_close(int fd)
{
    const int result = __real_close(fd);
    if (is_close_failing) {
        errno = EIO;
        return -1;
    }
    return result;
}
}

TEST(fileutils, gpio_is_the_first_character)
{
    for (const auto &[content, expected] : {std::pair("0", 0), {"1", 1}, {"1\n", 1}, {"0x", 0}}) {
        const temp_file file(content);
        EXPECT_EQ(fileutils_read_gpio(file.path()), expected) << content;
    }
    EXPECT_EQ(logged_messages(), (log_messages{}));
    for (const auto &[content, character] : {std::pair("2", '2'), {"\n1", '\n'}, {" 1", ' '}, {"/", '/'}}) {
        const temp_file file(content);
        clear_log();
        EXPECT_EQ(fileutils_read_gpio(file.path()), -1) << content;
        EXPECT_EQ(logged_messages(),
                  (log_messages{std::string("value read (") + character + ") is not 0 or 1"}));
    }
}

TEST(fileutils, register_is_one_number_of_four_characters)
{
    const struct {
        const char *content;
        int expected;
    } good[] = {
        {"0x2a\n", 0x2A}, {"0X7F", 0x7F},  {"0255", 0255}, {"0012", 10}, {"1234", 1234 & 0xFF},
        {"0400", 0},      {"0x2ax", 0x2A}, {"0000", 0},    {"  42", 42},
    };
    for (const auto &test : good) {
        const temp_file file(test.content);
        uint8_t value = 77;
        EXPECT_EQ(fileutils_read_register_u8(file.path(), &value), 0) << test.content;
        EXPECT_EQ(value, test.expected) << test.content;
    }
    EXPECT_EQ(logged_messages(), (log_messages{}));

    for (const std::string_view content : {std::string_view("142\n"),
                                           {"0x1\n"},
                                           {"0x"
                                            "zz"},
                                           {"0089"},
                                           {"12 4"},
                                           {"    "},
                                           {"0x1\0", 4},
                                           {"abcd"}}) {
        const temp_file file(content);
        uint8_t value = 77;
        clear_log();
        EXPECT_EQ(fileutils_read_register_u8(file.path(), &value), -1) << content;
        EXPECT_EQ(value, 77);
        EXPECT_EQ(logged_messages(),
                  (log_messages{"error converting string \"" + std::string(content.data()).substr(0, 4) +
                                "\" to unsigned long (errno 0)"}));
    }
}

TEST(fileutils, unreadable_files_are_reported_with_path_and_count)
{
    const temp_file empty("");
    const temp_file three("42\n");
    const std::string empty_path = empty.path();
    const std::string three_path = three.path();
    uint8_t value = 77;
    EXPECT_EQ(fileutils_read_gpio(nullptr), -1);
    EXPECT_EQ(fileutils_read_gpio("/nonexistent"), -1);
    EXPECT_EQ(fileutils_read_gpio(empty.path()), -1);
    EXPECT_EQ(fileutils_read_gpio("/tmp"), -1);
    EXPECT_EQ(fileutils_read_register_u8(nullptr, &value), -1);
    EXPECT_EQ(fileutils_read_register_u8(three.path(), nullptr), -1);
    EXPECT_EQ(fileutils_read_register_u8("/nonexistent", &value), -1);
    EXPECT_EQ(fileutils_read_register_u8(three.path(), &value), -1);
    is_close_failing = true;
    EXPECT_EQ(fileutils_read_gpio(empty.path()), -1);
    EXPECT_EQ(fileutils_read_register_u8(three.path(), &value), -1);
    is_close_failing = false;
    EXPECT_EQ(value, 77);
    EXPECT_EQ(logged_messages(),
              (log_messages{"no path specified", "couldn't open file /nonexistent for reading",
                            "error reading from file " + empty_path + " (read 0 bytes, expected 1)",
                            "error reading from file /tmp (read 0 bytes, expected 1)", "no path specified",
                            "no value destination specified", "couldn't open file /nonexistent for reading",
                            "error reading from file " + three_path + " (read 3 bytes, expected 4)",
                            "error closing file " + empty_path, "error closing file " + three_path}));
    EXPECT_TRUE(logged_lines()[0].text.starts_with("[ERROR] lumlog(" + std::to_string(getpid()) +
                                                   ") - common/fileutils.c:"));
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
