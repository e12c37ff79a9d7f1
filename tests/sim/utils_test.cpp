// The readers of the software versions.
#include "platform.h"
#include "utils.h"

using namespace sim;

namespace
{

constexpr size_t NAME_SIZE = 10;
constexpr size_t VERSION_SIZE = 40;

using reader = int (*)(char *name, size_t name_size, char *version, size_t version_size);

struct versions {
    int result;
    std::string name;
    std::string version;
};

versions read(reader get)
{
    char name[NAME_SIZE + 1] = "..........";
    char version[VERSION_SIZE + 1] = "........................................";
    const int result = get(name, NAME_SIZE, version, VERSION_SIZE);
    return {result, name, version};
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, ' ');
    return text;
}

TEST(software_versions, take_what_is_before_and_behind_the_first_colon)
{
    const std::string eboot = "bootrev=";
    const std::string long_text(300, 'x');
    const struct {
        std::string text;
        std::string name;
        std::string version;
        std::string version_end; // against the right edge
    } rows[] = {
        {"abc:def ghi\n", "abc", "def ghi\n", ""},
        {"abc:def:ghi", "abc", "def:ghi", ""},
        {"no colon\n", "no colon\n", "", ""},
        {"name longer than ten:" + long_text, "name longe", std::string(VERSION_SIZE, 'x'), ""},
        {long_text + ":behind the buffer", "xxxxxxxxxx", "", ""},
        {":\nsecond:line", "", "\n", ""},
        {eboot + "abc:def\n", "abc", "def\n", "def"},
        {"a=\"b\" " + eboot + "\"abc:def ghi-jkl\"\n", "abc", "def", "jkl"},
        {eboot + "\"abc:def ghi-jkl-mno\" quiet\n", "abc", "def ghi-jkl-mno\"", "quiet"},
        {eboot + "abc:1-2 last=\"x:y\"\n", "x", "y\"\n", "y"},
        {eboot + "abc\n", "abc\n", "", ""},
        {eboot + "abc:-\n", "abc", "-\n", "\n"},
        {eboot + "abc:d " + std::string(50, 'y'), "abc", std::string(VERSION_SIZE, 'y'), ""},
        {eboot + "one:1 " + eboot + "two:2", "one", "1", "bootrev=two:2"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const bool is_eboot = row.text.find(eboot) != std::string::npos;
        set_file(is_eboot ? "/proc/cmdline" : "/REVISION", row.text);
        const versions found = read(is_eboot ? get_eboot_version : get_eos_version);
        EXPECT_EQ(found.result, 0);
        EXPECT_EQ(found.name, padded(row.name, NAME_SIZE));
        EXPECT_EQ(found.version,
                  padded(row.version, VERSION_SIZE - row.version_end.size()) + row.version_end);
        if (!is_eboot) {
            set_file("/REVISION_PRIAPP", row.text);
            EXPECT_EQ(read(get_priapp_version).name, found.name);
        }
    }
    EXPECT_EQ(take_log(), lines());
}

TEST(software_versions, leave_blanks_when_there_is_nothing_to_read)
{
    const struct {
        reader get;
        const char *path;
    } rows[] = {{get_eos_version, "/REVISION"},
                {get_priapp_version, "/REVISION_PRIAPP"},
                {get_eboot_version, "/proc/cmdline"}};
    for (const auto &row : rows) {
        const std::string path = row.path;
        const auto expect_failure = [&](const std::string &log) {
            const versions found = read(row.get);
            EXPECT_EQ(found.result, -1);
            EXPECT_EQ(found.name + found.version, std::string(NAME_SIZE + VERSION_SIZE, ' '));
            EXPECT_EQ(take_log(), lines({"utils: " + log}));
        };
        set_file(path, std::nullopt);
        expect_failure("couldn't open file " + path);
        set_file(path, "");
        expect_failure("couldn't read from file " + path);
        char field[1] = {'.'};
        EXPECT_EQ(row.get(nullptr, 1, field, 1), -1);
        EXPECT_EQ(row.get(field, 1, nullptr, 1), -1);
        EXPECT_EQ(field[0], '.');
        EXPECT_EQ(take_log(), lines(2, "utils: NULL pointer received as argument"));
    }
    set_file("/proc/cmdline", "quiet boot=rev:1");
    EXPECT_EQ(read(get_eboot_version).result, -1);
    EXPECT_EQ(take_log(), lines({"utils: couldn't find bootrev string"}));
    EXPECT_EQ(open_descriptors(), lines());
}

} // namespace
