#pragma once

#include "findings.h"

namespace csr_products::check {

// Whether each call is written, and each complaint.
extern const bool traces;

// Writes each complaint when its place makes it for the first time, and counts the others. Returns whether the process
// is to end: at an error, if that was asked for.
bool report(const Call& call, const Findings& found) noexcept;

extern std::uint64_t errors;
extern std::uint64_t notes;

// Writes the complaints that were made more than once.
void write_repeated() noexcept;
void forget_complaints() noexcept;

} // namespace csr_products::check
