#include "screen/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace
{

constexpr std::string_view ENTER = "\x1b[?1049h\x1b[?25l\x1b[?7l"; // alternate screen, no cursor, no wrapping
constexpr std::string_view LEAVE = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr std::string_view HOME = "\x1b[H";
constexpr std::string_view CLEAR = "\x1b[2J";
// Before the text: behind the last column it would take the last character with it.
constexpr std::string_view CLEAR_LINE = "\x1b[0m\x1b[2K";
// By text_style.
constexpr std::string_view STYLES[] = {"\x1b[0m",    "\x1b[0;2m",  "\x1b[0;1m", "\x1b[0;7m",
                                       "\x1b[0;31m", "\x1b[0;33m", "\x1b[0;32m"};

struct key_code {
    std::string_view code;
    key meaning;
};
// The first that fits counts: the escape key alone comes last.
constexpr key_code KEYS[] = {
    {"q", key::QUIT},
    {"Q", key::QUIT},
    {"k", key::UP},
    {"j", key::DOWN},
    {"\x1b[A", key::UP},
    {"\x1b[B", key::DOWN},
    {"\x1bOA", key::UP},
    {"\x1bOB", key::DOWN},
    {"\x1b[5~", key::PAGE_UP},
    {"\x1b[6~", key::PAGE_DOWN},
    {"\r", key::ENTER},
    {"\n", key::ENTER},
    {"m", key::SORT_MAC},
    {"n", key::SORT_NUMBER},
    {"f", key::SORT_FAULTS},
    {"c", key::SORT_CHANGE},
    {"\x7f", key::BACK},
    {"\b", key::BACK},
    {"\x1b[D", key::BACK},
    {"\x1bOD", key::BACK},
    {"\x1b", key::BACK},
};

bool write_all(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written == -1 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
}

void append_styled(std::string &text, const screen_line &line)
{
    static const bool has_colours = getenv("NO_COLOR") == nullptr;
    for (const styled_text &part : line) {
        const bool is_colour = part.style >= text_style::RED;
        text += STYLES[static_cast<size_t>(is_colour && !has_colours ? text_style::PLAIN : part.style)];
        text += part.text;
    }
}

} // namespace

bool terminal_is_screen()
{
    const char *const name = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && name != nullptr && *name != '\0' && std::string_view(name) != "dumb";
}

terminal_size current_terminal_size()
{
    winsize size{};
    const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return is_known ? terminal_size{size.ws_col, size.ws_row} : terminal_size{80, 24};
}

full_screen::full_screen()
{
    enter();
}

full_screen::~full_screen()
{
    leave();
}

void full_screen::enter()
{
    is_saved = tcgetattr(STDIN_FILENO, &saved) == 0;
    if (is_saved) {
        termios raw = saved;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    write_all(ENTER);
    redraw();
}

void full_screen::leave()
{
    write_all(LEAVE);
    if (is_saved) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    }
}

void full_screen::suspend()
{
    leave();
    raise(SIGSTOP);
    enter();
}

bool full_screen::draw(const std::vector<screen_line> &lines)
{
    std::string frame(HOME);
    for (size_t i = 0; i < lines.size(); i++) {
        frame += i == 0 ? "" : "\r\n";
        frame += CLEAR_LINE;
        append_styled(frame, lines[i]);
    }
    if (frame == shown) {
        return true;
    }
    const bool is_drawn = write_all(shown.empty() ? std::string(CLEAR) + frame : frame);
    shown = std::move(frame);
    return is_drawn;
}

bool read_keys(std::vector<key> &keys)
{
    char buffer[64];
    const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
    if (length <= 0) {
        return length == -1 && (errno == EINTR || errno == EAGAIN);
    }
    std::string_view typed(buffer, static_cast<size_t>(length));
    while (!typed.empty()) {
        key meaning = key::OTHER;
        size_t size = 1;
        for (const key_code &candidate : KEYS) {
            if (typed.starts_with(candidate.code)) {
                meaning = candidate.meaning;
                size = candidate.code.size();
                break;
            }
        }
        keys.push_back(meaning);
        typed.remove_prefix(size);
    }
    return true;
}

void terminal_print(const screen_line &line)
{
    static const bool is_styled = terminal_is_screen();
    std::string text;
    if (is_styled) {
        append_styled(text, line);
        text += STYLES[static_cast<size_t>(text_style::PLAIN)];
    } else {
        for (const styled_text &part : line) {
            text += part.text;
        }
        text.erase(text.find_last_not_of(' ') + 1);
    }
    puts(text.c_str());
}
