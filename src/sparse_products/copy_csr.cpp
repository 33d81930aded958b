#include "sparse_products/copy_csr.h"

#include <algorithm>

namespace csr_products {
namespace {

// All four are read before one is written, which lets the compiler move them together although the
// two arrays may be the same.
template <class T>
void copy_four(const T* source, T* output) noexcept {
    const T first = source[0];
    const T second = source[1];
    const T third = source[2];
    const T fourth = source[3];
    output[0] = first;
    output[1] = second;
    output[2] = third;
    output[3] = fourth;
}

// One pass over both arrays, unrolled by four.
void copy_both(const std::int64_t* col_indx, const double* values, std::int64_t count, std::int64_t* col_ind,
               double* val) noexcept {
    constexpr std::int64_t unroll = 4;
    std::int64_t i = 0;
    for (; i <= count - unroll; i += unroll) {
        copy_four(col_indx + i, col_ind + i);
        copy_four(values + i, val + i);
    }
    for (; i < count; ++i) {
        col_ind[i] = col_indx[i];
        val[i] = values[i];
    }
}

template <class T>
void copy_from(std::int64_t first, ExportedArray<T> source, std::int64_t total, T* output) noexcept {
    if (output == nullptr) {
        return;
    }
    std::int64_t i = first;
    for (; i < std::min(source.length, total); ++i) {
        output[i] = source.data[i];
    }
    std::fill(output + i, output + total, T{});
}

// The elements behind the end of the shorter array. Out of line, since a full product has none.
[[gnu::noinline]] void copy_rest(ExportedArray<std::int64_t> col_indx, ExportedArray<double> values,
                                 const CsrOperand& c, std::int64_t first) noexcept {
    copy_from(first, col_indx, dense_size(c), c.col_ind);
    copy_from(first, values, dense_size(c), c.val);
}

} // namespace

void copy_row_pointer(const std::int64_t* rows_start, std::int64_t rows, std::int64_t* row_ptr) noexcept {
    const auto count = static_cast<std::int64_t>(static_cast<std::uint64_t>(rows) + 1);
    if (row_ptr != nullptr) {
        std::copy_n(rows_start, std::max<std::int64_t>(count, 0), row_ptr);
    }
}

// Kept on purpose: the copy runs over the dense size of C as the caller gave it, not over the stored
// entries and not over the exported shape.
void copy_entries(ExportedArray<std::int64_t> col_indx, ExportedArray<double> values, const CsrOperand& c) noexcept {
    if (col_indx.data == c.col_ind && values.data == c.val) {
        return; // the caller's own arrays, as after a refresh
    }
    const std::int64_t total = std::max<std::int64_t>(dense_size(c), 0);
    const bool has_both = c.col_ind != nullptr && c.val != nullptr;
    const std::int64_t in_both = has_both ? std::min({total, col_indx.length, values.length}) : 0;
    copy_both(col_indx.data, values.data, in_both, c.col_ind, c.val);
    if (in_both < total) {
        copy_rest(col_indx, values, c, in_both);
    }
}

} // namespace csr_products
