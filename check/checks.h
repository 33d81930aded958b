#pragma once

#include "findings.h"

namespace csr_products::check {

// Checks what can be known before the call from its arguments and its arrays, and notes the arrays that are there.
// Whether a product is computed, and all of them are right.
bool check_arguments(Call& call, Findings& found) noexcept;

// Whether an element is in both.
bool overlap(const Block& one, const Block& other) noexcept;

// Whether C is what a count leaves. By this the library tells its finish from a refresh.
bool is_counted(const Sparse& c) noexcept;

} // namespace csr_products::check
