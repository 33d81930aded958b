#pragma once

#include "history.h"

#include <pthread.h>

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
    int cancellation = 0; // a thread that is cancelled in here would leave its call among the running ones
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    begin(call);
    real(arguments...);
    end(call);
    pthread_setcancelstate(cancellation, nullptr);
}

} // namespace csr_products::check
