#include "common/lumlog.h"

#include "log_capture.h"
#include "temp_file.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

namespace
{

// The highest level at which the component logs anything, be it only the complaint about the level.
int find_threshold(int facility)
{
    int level = LOG_DEBUG;
    while (level >= LOG_EMERG) {
        clear_log();
        lumlog(level, facility, "test", 1, "probe");
        if (!logged_lines().empty()) {
            break;
        }
        level--;
    }
    return level;
}

// A file and the thresholds of two components that follow from it. It is read once in a process.
using rc_case = std::tuple<std::string, int, int>;
using lumlog_rc = testing::TestWithParam<rc_case>;

} // namespace

TEST(lumlog, line_names_level_component_process_and_place)
{
    lumlog(LOG_ERR, LUMLOG_DIAG, "remote", 87, "packet is too small (%d bytes), ignoring", 3);
    lumlog(LOG_INFO, LUMLOG_DIAG, "remote", 88, "not shown");
    lumlog(LOG_CRIT, LUMLOG_HWINFO, "hwinfo/hwinfo.c", 5, "%s", "50% off");
    lumlog_init(LOG_DEBUG);
    lumlog(LOG_INFO, LUMLOG_DIAG, "x", 1, "shown");
    lumlog(LOG_DEBUG, LUMLOG_LUMLOG, "x", 2, "shown");

    const std::string pid = std::to_string(getpid());
    const struct {
        int priority;
        std::string text;
    } expected[] = {
        {LOG_LOCAL7 | LOG_ERR,
         "[ERROR] diag(" + pid + ") - remote:87 - packet is too small (3 bytes), ignoring"},
        {LOG_LOCAL4 | LOG_CRIT, "[CRITICAL] hwinfo(" + pid + ") - hwinfo/hwinfo.c:5 - 50% off"},
        {LOG_LOCAL7 | LOG_INFO, "[INFO] diag(" + pid + ") - x:1 - shown"},
        {LOG_LOCAL4 | LOG_DEBUG, "[DEBUG] lumlog(" + pid + ") - x:2 - shown"},
    };
    ASSERT_EQ(logged_lines().size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); i++) {
        EXPECT_EQ(logged_lines()[i].priority, expected[i].priority);
        EXPECT_EQ(logged_lines()[i].text, expected[i].text);
    }
}

TEST(lumlog, invalid_level_or_component_is_reported_by_the_library_itself)
{
    lumlog(1, LUMLOG_DIAG, "x", 1, "text");
    lumlog(-1, LUMLOG_DIAG, "x", 1, "text");
    lumlog(4, LUMLOG_DIAG, "x", 1, "text"); // above the threshold: not even a complaint
    lumlog(3, 25, "x", 1, "text");
    lumlog(3, -1, "x", 1, "text");
    lumlog(3, LUMLOG_FACILITIES, "y", 9, "text");
    EXPECT_EQ(logged_messages(),
              (log_messages{"invalid priority level: 1", "invalid priority level: -1",
                            "invalid component: 25", "invalid component: -1", "invalid component: 21"}));
    EXPECT_EQ(logged_lines().back().priority, LOG_LOCAL4 | LOG_ERR);
    EXPECT_EQ(logged_lines().back().text,
              "[ERROR] lumlog(" + std::to_string(getpid()) + ") - y:9 - invalid component: 21");
}

TEST(lumlog, message_that_can_not_be_formatted_still_leaves_a_line)
{
    lumlog(LOG_ERR, LUMLOG_DIAG, "x", 1, "%ls", L"\x4e2d"); // no such character in the C locale
    ASSERT_EQ(logged_lines().size(), 1U);
    EXPECT_EQ(logged_lines()[0].priority, LOG_LOCAL7 | LOG_ERR);
    EXPECT_EQ(logged_lines()[0].text, "[ERROR] diag - x:1 - [couldn't allocate message]");
}

TEST_P(lumlog_rc, sets_thresholds)
{
    const auto &[text, diag, hwinfo] = GetParam();
    const temp_file rc(text);
    setenv("LUMLOG_RC", rc.path(), 1);
    EXPECT_EQ(find_threshold(LUMLOG_DIAG), diag);
    EXPECT_EQ(find_threshold(LUMLOG_HWINFO), hwinfo);
}

INSTANTIATE_TEST_SUITE_P(
    lines, lumlog_rc,
    testing::Values(
        rc_case{"LUMLOG_DIAG.debug\n", 7, 3}, rc_case{"lumlog_diag.CRIT", 2, 3},
        rc_case{"# anything\n\nLUMLOG_DIAG.debug # note\n", 7, 3},
        rc_case{"LUMLOG_DIAG.warning\nLUMLOG_HWINFO.debugger\n", 4, 7}, // begins with the value
        rc_case{"LUMLOG_DIAG.deb\nLUMLOG_HWINFO.none\n", 3, 3},
        rc_case{" LUMLOG_DIAG.debug\nLUMLOG_HWINFO. debug\n", 3, 3},
        rc_case{"..LUMLOG_DIAG...debug.err\n", 7, 3},
        rc_case{"LUMLOG_DIAG.alert\nLUMLOG_DIAG.emerg\nLUMLOG_HWINFO.info\nLUMLOG_HWINFO.notice\n", 0, 5},
        rc_case{std::string(100000, 'x') + "\nLUMLOG_DIAG.panic\nLUMLOG_HWINFO.info" + std::string(9999, 'y'),
                0, 6},
        rc_case{std::string("\0.\0\n\xff\xfe.x\n.\n...\nLUMLOG\nLUMLOG_DIAG.alert", 39), 1, 3}));

TEST(lumlog, rc_line_is_cut_at_its_comment_and_split_at_dots_alone)
{
    const temp_file rc("A.b # c.d\n#x.y\nkey#.value\n\n\n k ..v w.x\nlast.\nE.f\n");
    setenv("LUMLOG_RC", rc.path(), 1);
    char *key = nullptr;
    char *value = nullptr;
    for (const auto &[expected_key, expected_value] :
         {std::pair("A", "b "), {" k ", "v w"}, {"last", "\n"}, {"E", "f\n"}}) {
        ASSERT_EQ(get_next_rcline(&key, &value), 0);
        EXPECT_STREQ(key, expected_key);
        EXPECT_STREQ(value, expected_value);
    }
    EXPECT_EQ(get_next_rcline(&key, &value), -1);
}

TEST(lumlog, rc_file_is_read_at_the_first_message_and_never_again)
{
    const temp_file rc("LUMLOG_DIAG.debug\n");
    lumlog(LOG_ERR, LUMLOG_DIAG, "x", 1, "first");
    setenv("LUMLOG_RC", rc.path(), 1);
    EXPECT_EQ(find_threshold(LUMLOG_DIAG), LOG_ERR);
}

TEST(lumlog, unreadable_rc_file_leaves_the_thresholds_and_errno)
{
    for (const char *const path : {"/nonexistent", "/tmp"}) {
        setenv("LUMLOG_RC", path, 1);
        char *key = nullptr;
        char *value = nullptr;
        EXPECT_EQ(get_next_rcline(&key, &value), -1) << path;
    }
    errno = EPIPE;
    lumlog(LOG_ERR, LUMLOG_DIAG, "test", 1, "first message, which looks for the file");
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(find_threshold(LUMLOG_DIAG), LOG_ERR);
}
