#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

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

} // namespace csr_products::check
