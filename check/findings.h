#pragma once

#include "call.h"
#include "lines.h"

namespace csr_products::check {

// An error makes the result wrong or endangers memory; a note may be meant.
struct Complaint {
    bool is_error;
    Text<200> text;
};

// What the checks of one call found.
struct Findings {
    Complaint complaints[8];
    std::size_t count = 0;
    bool has_errors = false;

    // Returns false, as a check does that finds an error.
    template <class... Values>
    bool error(const char* format, const Values&... values) noexcept {
        return add(true, format, values...);
    }

    template <class... Values>
    void note(const char* format, const Values&... values) noexcept {
        add(false, format, values...);
    }

    template <class... Values>
    bool add(bool is_error, const char* format, const Values&... values) noexcept {
        has_errors |= is_error;
        if (count < std::size(complaints)) {
            complaints[count++] = {is_error, Text<200>(format, values...)};
        }
        return false;
    }
};

} // namespace csr_products::check
