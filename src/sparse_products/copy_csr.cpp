#include "sparse_products/copy_csr.h"

#include <algorithm>

namespace csr_products {
namespace {

// One pass over both arrays, unrolled by four.
void copy_entries(const std::int64_t* __restrict col_indx, const double* __restrict values, std::int64_t count,
                  std::int64_t* __restrict col_ind, double* __restrict val) noexcept {
    constexpr std::int64_t unroll = 4;
    std::int64_t i = 0;
    for (; i <= count - unroll; i += unroll) {
        std::copy_n(col_indx + i, unroll, col_ind + i);
        std::copy_n(values + i, unroll, val + i);
    }
    for (; i < count; ++i) {
        col_ind[i] = col_indx[i];
        val[i] = values[i];
    }
}

// MKL's arrays have as many elements as the row pointer tells, and none if they are null.
std::int64_t stored_entries(const ExportedCsr& product) noexcept {
    const bool has_entries = product.col_indx != nullptr && product.values != nullptr;
    return has_entries ? product.rows_start[product.rows] - product.rows_start[0] : 0;
}

} // namespace

// Kept on purpose: the entries run over the dense size of C as the caller gave it, not over the stored
// entries and not over the exported shape.
void copy_csr(const ExportedCsr& product, const CsrOperand& c) noexcept {
    if (product.rows_start == nullptr || product.rows < 0) {
        return; // nothing was exported
    }
    // The column numbers alone tell the caller's own arrays, as after a refresh: in place of a null c_val, MKL
    // exports values of its own.
    if (c.col_ind != nullptr && product.col_indx == c.col_ind) {
        return;
    }
    if (c.row_ptr != nullptr) {
        std::copy_n(product.rows_start, product.rows + 1, c.row_ptr);
    }
    const std::int64_t total = std::max<std::int64_t>(dense_size(c), 0);
    const std::int64_t stored = std::clamp<std::int64_t>(stored_entries(product), 0, total);
    if (c.col_ind != nullptr && c.val != nullptr) {
        copy_entries(product.col_indx, product.values, stored, c.col_ind, c.val);
    } else if (c.col_ind != nullptr) {
        std::copy_n(product.col_indx, stored, c.col_ind);
    } else if (c.val != nullptr) {
        std::copy_n(product.values, stored, c.val);
    }
    if (c.col_ind != nullptr) {
        std::fill(c.col_ind + stored, c.col_ind + total, 0);
    }
    if (c.val != nullptr) {
        std::fill(c.val + stored, c.val + total, 0.0);
    }
}

} // namespace csr_products
