#pragma once

#include <algorithm>
#include <fmt/format.h>

namespace csr_products::check {

// A text of limited length: nothing is allocated, and what has no room is left out.
template <std::size_t Capacity>
class Text {
public:
    Text() = default;

    template <class... Values>
    explicit Text(const char* format, const Values&... values) noexcept {
        append(format, values...);
    }

    template <class... Values>
    void append(const char* format, const Values&... values) noexcept {
        const std::size_t room = Capacity - size_;
        size_ += std::min(fmt::format_to_n(data_ + size_, room, fmt::string_view(format), values...).size, room);
    }

    std::string_view view() const noexcept { return {data_, size_}; }

private:
    char data_[Capacity];
    std::size_t size_ = 0;
};

// Takes the file that the lines go to, or standard error.
void open_output() noexcept;

// Writes one line, to standard error if the file does not take it, and loses it where nothing can be written.
void write_text(std::string_view line) noexcept;

template <class... Values>
void write_line(const char* format, const Values&... values) noexcept {
    write_text(Text<800>(format, values...).view());
}

} // namespace csr_products::check
