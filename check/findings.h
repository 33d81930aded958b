#pragma once

#include "call.h"
#include "text.h"

namespace csr_products::check {

// An error makes the result wrong or endangers memory; a note may be meant.
enum class Severity { Error, Note };

struct Complaint {
    Severity severity;
    Text<200> text;
};

// What the checks of one call found.
class Findings {
public:
    // Returns false, as a check does that finds an error.
    template <class... Values>
    bool error(const char* format, const Values&... values) noexcept {
        has_errors = true;
        return add(Severity::Error, format, values...);
    }

    template <class... Values>
    void note(const char* format, const Values&... values) noexcept {
        add(Severity::Note, format, values...);
    }

    const Complaint* begin() const noexcept { return complaints_; }
    const Complaint* end() const noexcept { return complaints_ + count_; }

    bool has_errors = false;

private:
    template <class... Values>
    bool add(Severity severity, const char* format, const Values&... values) noexcept {
        if (count_ < std::size(complaints_)) {
            complaints_[count_++] = {severity, Text<200>(format, values...)};
        }
        return false;
    }

    Complaint complaints_[8];
    std::size_t count_ = 0;
};

} // namespace csr_products::check
