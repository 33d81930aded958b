#pragma once

#include "findings.h"

namespace csr_products::check {

// The structures that CSR products left, known by their contents: arrays may have been copied, compressed or put
// together.

// Checks a stage 2 against the counts and the products before it. Only of operands that were found to be right.
void check_stage(const Call& call, Findings& found) noexcept;

// Remembers what a call left in C.
void remember(const Call& call) noexcept;

// How often a product computed a structure that C had held already.
extern std::atomic<std::uint64_t> repeated_structures;

} // namespace csr_products::check
