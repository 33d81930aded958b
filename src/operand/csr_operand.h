#pragma once

#include <cstdint>

namespace csr_products {

// A borrowed one-based CSR matrix. val and col_ind hold nnz entries, row_ptr holds rows + 1.
struct CsrOperand {
    std::int64_t rows;
    std::int64_t cols;
    double* val;
    std::int64_t* col_ind;
    std::int64_t* row_ptr;
};

// rows * cols modulo 2^64: two negative dimensions give a positive count.
inline std::int64_t dense_size(const CsrOperand& a) noexcept {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a.rows) * static_cast<std::uint64_t>(a.cols));
}

} // namespace csr_products
