#pragma once

#include "text.h"

namespace csr_products::check {

using Place = Text<200>;

// Where a call came from: "assembly.cpp:88 in assemble" where there is debug information, or else the module, for
// addr2line, and the function.
Place place_of(const void* return_address) noexcept;

} // namespace csr_products::check
