#pragma once

#include "findings.h"

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else // arrays are then seen to the end of their pages under it
#define RUNNING_ON_VALGRIND 0
#define VALGRIND_CHECK_MEM_IS_ADDRESSABLE(address, size) 0
#define VALGRIND_DISABLE_ERROR_REPORTING
#define VALGRIND_ENABLE_ERROR_REPORTING
#endif

namespace csr_products::check {

// While one lives, valgrind reports nothing of its thread.
struct Unreported {
    Unreported() noexcept { VALGRIND_DISABLE_ERROR_REPORTING; }
    ~Unreported() { VALGRIND_ENABLE_ERROR_REPORTING; }
};

// How many of the block's elements are there, counted from its first: to the element under AddressSanitizer and
// memcheck, and else to the end of the last page that can be read.
Int accessible(const Block& block) noexcept;

// Whether the first and the last page of an array that is there can be written, where the kernel tells.
bool is_writable(const Block& block) noexcept;

// Checks what can be known before the call from its arguments and its arrays, and notes the arrays that are there.
// Whether a product is computed, and all of them are right.
bool check_arguments(Call& call, Findings& found) noexcept;

// Checks a stage 2 against the counts and the products before it: their structures are known by their contents, since
// arrays may have been copied, compressed or put together. Only of operands that were found to be right.
void check_stage(const Call& call, Findings& found) noexcept;

// Remembers what a call left in C.
void remember(const Call& call) noexcept;

// Whether an element is in both.
bool overlap(const Block& one, const Block& other) noexcept;

// Whether C is what a count leaves. By this the library tells its finish from a refresh.
bool is_counted(const Sparse& c) noexcept;

} // namespace csr_products::check
