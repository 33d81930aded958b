#pragma once

#include "call.h"

namespace csr_products::check {

// How many of the block's elements are there, counted from its first: to the element under AddressSanitizer and
// memcheck, and else to the end of the last page that can be read.
Int accessible(const Block& block) noexcept;

bool is_on_valgrind() noexcept;

} // namespace csr_products::check
