#pragma once

#include "history.h"

namespace csr_products::check {

extern Entry* const entries[13];

// The function of the library beside this one. Ends the process where that library cannot be loaded.
void* real_entry(Entry& entry) noexcept;

// In the child of a fork no other thread runs.
void forget_running() noexcept;

// Before and after the library computes: what is known of the call, and what is remembered of it.
void begin(Call& call) noexcept;
void end(const Call& call) noexcept;

template <class... Arguments>
void watch(Site site, Arguments... arguments) noexcept {
    const auto real = reinterpret_cast<void (*)(Arguments...)>(real_entry(site.entry));
    Call call = describe(site, arguments...);
    begin(call);
    real(arguments...);
    end(call);
}

} // namespace csr_products::check
