#include "screen/terminal.h"

#include <iconv.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
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
    const char *const no_colour = getenv("NO_COLOR");
    const bool has_colours = no_colour == nullptr || *no_colour == '\0';
    for (const styled_text &part : line) {
        const bool is_colour = part.style >= text_style::RED;
        text += STYLES[static_cast<size_t>(is_colour && !has_colours ? text_style::PLAIN : part.style)];
        text += terminal_text(part.text, STDOUT_FILENO);
    }
}

class charset
{
public:
    charset() : converter(iconv_open((std::string(nl_langinfo(CODESET)) + "//TRANSLIT").c_str(), "UTF-8")) {}
    ~charset()
    {
        if (is_known()) {
            iconv_close(converter);
        }
    }
    charset(const charset &) = delete;
    charset &operator=(const charset &) = delete;

    // The one byte that stands for a character of UTF-8.
    char byte_of(std::string_view character) const
    {
        char in[MB_LEN_MAX];
        char out = '?';
        char *from = in;
        char *to = &out;
        size_t left = character.copy(in, sizeof in);
        size_t room = 1;
        // A single byte, for that is the room of the character in its line.
        const bool is_converted =
            is_known() && iconv(converter, &from, &left, &to, &room) != static_cast<size_t>(-1) && room == 0;
        if (!is_converted && is_known()) {
            iconv(converter, nullptr, nullptr, nullptr, nullptr);
        }
        return is_converted ? out : '?';
    }

private:
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is how iconv_open() fails
    bool is_known() const { return converter != reinterpret_cast<iconv_t>(-1); }

    iconv_t converter;
};

} // namespace

std::string terminal_text(std::string text, int descriptor)
{
    const auto is_ascii = [](char c) { return static_cast<signed char>(c) >= 0; };
    if (is_utf8_locale() || isatty(descriptor) == 0 || std::all_of(text.begin(), text.end(), is_ascii)) {
        return text;
    }
    static const charset known;
    std::string shown;
    for (std::string_view rest = text; !rest.empty();) {
        const character next = first_character(rest);
        shown += is_ascii(rest[0]) ? rest[0] : known.byte_of(rest.substr(0, next.size));
        rest.remove_prefix(next.size);
    }
    return shown;
}

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
            text += terminal_text(part.text, STDOUT_FILENO);
        }
        text.erase(text.find_last_not_of(' ') + 1);
    }
    puts(text.c_str());
}
