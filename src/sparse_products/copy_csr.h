#pragma once

#include "operand/csr_operand.h"
#include "operand/sparse_handle.h"

namespace csr_products {

// Copies a product into the caller's arrays: rows + 1 elements of the row pointer, and dense_size(c)
// elements of the column numbers and of the values, the stored entries first and then zeros. Does nothing
// if nothing was exported, skips an output array that is null, and leaves arrays alone that are the
// caller's own.
void copy_csr(const ExportedCsr& product, const CsrOperand& c) noexcept;

} // namespace csr_products
