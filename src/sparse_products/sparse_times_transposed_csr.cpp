// C := A*B^T, with A, B and C sparse, in one call or in stages.

#include "csr_products.h"
#include "operand/product_constants.h"
#include "operand/sparse_handle.h"
#include "sparse_products/caller_owned_output.h"
#include "sparse_products/source_window.h"

#include <algorithm>

namespace {

sparse_request_t request_of(std::int64_t stage) noexcept {
    switch (stage) {
    case 1:
        return SPARSE_STAGE_NNZ_COUNT;
    case 2:
        return SPARSE_STAGE_FINALIZE_MULT;
    default:
        return SPARSE_STAGE_FULL_MULT;
    }
}

// What the export tells of a product: MKL's arrays, or the caller's own behind the wrapped output.
struct ExportedCsr {
    std::int64_t rows;
    const std::int64_t* rows_start;
    const std::int64_t* col_indx;
    const double* values;
};

// An export that fails writes nothing: the row count is then C's own, and the arrays are null.
ExportedCsr exported(sparse_matrix_t handle, const CsrOperand& c) noexcept {
    sparse_index_base_t index_base = SPARSE_INDEX_BASE_ONE;
    MKL_INT rows = c.rows;
    MKL_INT cols = c.cols;
    MKL_INT* rows_start = nullptr;
    MKL_INT* rows_end = nullptr;
    MKL_INT* col_indx = nullptr;
    double* values = nullptr;
    mkl_sparse_d_export_csr(handle, &index_base, &rows, &cols, &rows_start, &rows_end, &col_indx, &values);
    return {rows, reinterpret_cast<const std::int64_t*>(rows_start), reinterpret_cast<const std::int64_t*>(col_indx),
            values};
}

// Copies the exported rows + 1 elements. Returns the last, the one-based position behind the stored
// entries, or 0 if the copy ended before it.
std::int64_t copy_row_pointer(const ExportedCsr& product, std::int64_t* row_ptr) noexcept {
    const auto count = static_cast<std::int64_t>(static_cast<std::uint64_t>(product.rows) + 1);
    SourceWindow window;
    for (std::int64_t i = 0; i < count;) {
        const auto rows_start = window.read(product.rows_start + i, count - i);
        if (rows_start.count == 0) {
            return 0;
        }
        std::copy_n(rows_start.data, rows_start.count, row_ptr + i);
        i += rows_start.count;
    }
    return count > 0 ? row_ptr[count - 1] : 0;
}

// One pass over both arrays, unrolled by four.
void copy_elements(const std::int64_t* col_indx, const double* values, std::int64_t count, std::int64_t* col_ind,
                   double* val) noexcept {
    constexpr std::int64_t unroll = 4;
    std::int64_t i = 0;
    for (; i <= count - unroll; i += unroll) {
        col_ind[i] = col_indx[i];
        col_ind[i + 1] = col_indx[i + 1];
        col_ind[i + 2] = col_indx[i + 2];
        col_ind[i + 3] = col_indx[i + 3];
        val[i] = values[i];
        val[i + 1] = values[i + 1];
        val[i + 2] = values[i + 2];
        val[i + 3] = values[i + 3];
    }
    for (; i < count; ++i) {
        col_ind[i] = col_indx[i];
        val[i] = values[i];
    }
}

// Kept on purpose: the copy runs over the dense size of C as the caller gave it, not over the stored
// entries and not over the exported shape. It ends early only where MKL's arrays cannot be read; arrays
// that are full, or the caller's own, have all the elements.
void copy_entries(const ExportedCsr& product, std::int64_t end_of_stored, const CsrOperand& c) noexcept {
    const std::int64_t total = dense_size(c);
    const bool has_arrays = product.col_indx != nullptr && product.values != nullptr;
    const bool callers_own = product.col_indx == c.col_ind && product.values == c.val;
    if (has_arrays && (end_of_stored > total || callers_own)) {
        copy_elements(product.col_indx, product.values, total, c.col_ind, c.val);
        return;
    }
    SourceWindow col_indx_window;
    SourceWindow values_window;
    for (std::int64_t i = 0; i < total;) {
        const auto col_indx = col_indx_window.read(product.col_indx + i, total - i);
        const auto values = values_window.read(product.values + i, total - i);
        const std::int64_t count = std::min(col_indx.count, values.count);
        if (count == 0) {
            return;
        }
        copy_elements(col_indx.data, values.data, count, c.col_ind + i, c.val + i);
        i += count;
    }
}

// Kept on purpose: no wrap is examined, MKL gets the handles as they stand.
void multiply(sparse_request_t request, const CsrOperand& a, const CsrOperand& b, const CsrOperand& c) noexcept {
    const CallerOwnedOutput caller_owned(c); // outlives the handles
    const SparseHandle a_handle(a);
    const SparseHandle b_handle(b);
    SparseHandle product(c);
    // Kept on purpose: when MKL puts a handle of its own into the slot, the wrapped output is lost.
    mkl_sparse_sp2m(NonTranspose, GeneralLower, a_handle.get(), Transpose, GeneralLower, b_handle.get(), request,
                    product.slot());
    const ExportedCsr result = exported(product.get(), c);
    copy_entries(result, copy_row_pointer(result, c.row_ptr), c);
}

} // namespace

void spgmatspgmattr_mkl_int64_new(std::int64_t stage, std::int64_t m, std::int64_t k, std::int64_t n, //
                                  double* const a_val, std::int64_t* const a_col_ind,
                                  std::int64_t* const a_row_ptr, //
                                  double* const b_val, std::int64_t* const b_col_ind,
                                  std::int64_t* const b_row_ptr,  //
                                  std::int64_t /*ignored_count*/, //
                                  double* const c_val, std::int64_t* const c_col_ind,
                                  std::int64_t* const c_row_ptr, //
                                  std::int64_t& /*ignored_result*/) noexcept {
    multiply(request_of(stage), {m, k, a_val, a_col_ind, a_row_ptr}, {n, k, b_val, b_col_ind, b_row_ptr},
             {m, n, c_val, c_col_ind, c_row_ptr});
}
