#pragma once

#include "call.h"

namespace csr_products::check {

extern Entry* const entries[13];

// In this process.
extern std::atomic<std::uint64_t> calls;
extern std::atomic<std::uint64_t> threads;

std::uint64_t nanoseconds_now() noexcept;

// In the child of a fork, where no other thread is.
void forget_calls() noexcept;

// Checks the call, and returns the function of the library beside this one. Ends the process where that library cannot
// be loaded.
void* begin(Call& call) noexcept;

// After the library has computed: what is remembered of the call.
void end(Call& call) noexcept;

// As a part of the entry, which has the address of its caller.
template <class... Arguments>
[[gnu::always_inline]] inline void watch(Entry& entry, Arguments... arguments) noexcept {
    Call call = describe(entry, arguments...);
    call.caller = __builtin_return_address(0);
    const auto real = reinterpret_cast<void (*)(Arguments...)>(begin(call));
    real(arguments...);
    end(call);
}

} // namespace csr_products::check
