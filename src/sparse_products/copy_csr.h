#pragma once

#include "operand/csr_operand.h"

namespace csr_products {

// An array that MKL exported, and how many elements it has.
template <class T>
struct ExportedArray {
    const T* data;
    std::int64_t length;
};

// An output array that is null is skipped by both functions.

// Copies rows + 1 elements.
void copy_row_pointer(const std::int64_t* rows_start, std::int64_t rows, std::int64_t* row_ptr) noexcept;

// Writes dense_size(c) elements of c.col_ind and of c.val: what the exported arrays hold, then zeros.
void copy_entries(ExportedArray<std::int64_t> col_indx, ExportedArray<double> values, const CsrOperand& c) noexcept;

} // namespace csr_products
