#pragma once

#include "lines.h"

#include <cstdint>

namespace csr_products::check {

// Where a call came from: "assembly.cpp:88 in assemble" where there is debug information, or else the module, for
// addr2line, and the function.
Text<200> place_of(const void* return_address) noexcept;

// Of the file and the address of the module that holds the code: another may have been at the same address before.
std::uint64_t hash_of_module(const void* code) noexcept;

} // namespace csr_products::check
