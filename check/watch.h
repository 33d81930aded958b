#pragma once

#include "history.h"

namespace csr_products::check {

extern Entry* const entries[13];

// The function of the library beside this one. Ends the process where that library cannot be loaded.
void* real_entry(Entry& entry) noexcept;

// In the child of a fork no other thread runs.
void forget_running() noexcept;

// Around each call: what is known before it, and what is remembered of it.
class Watch {
public:
    explicit Watch(const Call& call) noexcept;
    ~Watch();

    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    Call call_;
    bool leaves_structure_ = false;
    int slot_;             // among the running calls
    std::uint64_t number_; // of the call in the process
    std::uint64_t start_;  // nanoseconds
};

template <class... Arguments>
void watch(Site site, Arguments... arguments) noexcept {
    const auto real = reinterpret_cast<void (*)(Arguments...)>(real_entry(site.entry));
    const Watch watching(describe(site, arguments...));
    real(arguments...);
}

} // namespace csr_products::check
