#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

// The columns of the terminal behind standard error, 0 if there is none.
inline int terminal_columns() {
    winsize size{};
    if (isatty(STDERR_FILENO) == 0) {
        return 0;
    }
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// A line on the terminal that each new one overwrites, cut to its width; nothing where there is no terminal.
class ProgressLine {
public:
    ~ProgressLine() { show(""); }

    void show(const std::string& text) const {
        if (columns_ > 0) {
            fmt::print(stderr, "\r\033[K{:.{}}", text, columns_ - 1);
        }
    }

private:
    int columns_ = terminal_columns();
};
