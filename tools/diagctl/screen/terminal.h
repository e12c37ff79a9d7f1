// The terminal as a full screen: the alternate screen with a hidden cursor, keys read one by one without
// echo. What was on the screen before comes back on leaving.
#pragma once

#include "screen/text.h"

#include <termios.h>

// Whether a full screen can be shown: standard output is a terminal that knows how to place the cursor.
bool terminal_is_screen();

// The size in characters, 80 by 24 where the terminal does not tell.
struct terminal_size {
    size_t width;
    size_t height;
};
terminal_size current_terminal_size();

// The full screen, from here to its end.
class full_screen
{
public:
    full_screen();
    ~full_screen();
    full_screen(const full_screen &) = delete;
    full_screen &operator=(const full_screen &) = delete;

    // Shows the lines from the top of the screen, as many as it has. False when the terminal is gone.
    bool draw(const std::vector<screen_line> &lines);
    // Forgets what is shown, so that the next drawing paints all of it.
    void redraw() { shown.clear(); }
    // Stops the process as the terminal's user asked to, with the terminal as it was before.
    void suspend();

private:
    void enter();
    void leave();

    termios saved{};
    bool is_saved = false;
    std::string shown; // the last frame, not drawn again while nothing changes
};

enum class key {
    QUIT,
    UP,
    DOWN,
    PAGE_UP,
    PAGE_DOWN,
    ENTER,
    BACK,
    SORT_MAC,
    SORT_NUMBER,
    SORT_FAULTS,
    SORT_CHANGE,
    OTHER,
};

// The keys that wait on standard input; false when it has ended.
bool read_keys(std::vector<key> &keys);

// The text as the descriptor's terminal can show it: a question mark stands for a character that the charset
// of the user's locale hasn't. Files and programs get UTF-8 as it is.
std::string terminal_text(std::string text, int descriptor);

// Writes the line to standard output, with its styles if that is a terminal that shows them.
void terminal_print(const screen_line &line);
