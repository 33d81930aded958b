// C := A*B^T, with A, B and C sparse, in one call or in stages.

#include "csr_products.h"
#include "operand/product_constants.h"
#include "operand/sparse_handle.h"
#include "sparse_products/copy_csr.h"
#include "sparse_products/lent_arrays.h"

namespace csr_products {
namespace {

// The state that a count leaves: a row pointer without column numbers. A structure without entries has nothing
// to finish, and its col_ind need not hold an element.
bool is_counted(const CsrOperand& c) noexcept {
    return c.rows > 0 && c.cols > 0 && c.row_ptr != nullptr && c.col_ind != nullptr && c.row_ptr[0] == 1 &&
           c.row_ptr[c.rows] > 1 && c.col_ind[0] == 0;
}

sparse_request_t request_of(std::int64_t stage, const CsrOperand& c) noexcept {
    switch (stage) {
    case 1:
        return SPARSE_STAGE_NNZ_COUNT;
    case 2:
        // MKL's finalize uses the column numbers in the caller's array, and zeros there corrupt its
        // memory. The finish of a count is therefore a full product.
        return is_counted(c) ? SPARSE_STAGE_FULL_MULT : SPARSE_STAGE_FINALIZE_MULT;
    default:
        return SPARSE_STAGE_FULL_MULT;
    }
}

// C := A*B^T or a part of it, with A m x k, B n x k and C m x n.
// Kept on purpose: no wrap is examined, and MKL gets the handles as they are.
void multiply(std::int64_t stage, const CsrOperand& a, const CsrOperand& b, const CsrOperand& c) noexcept {
    const LentArrays lent(c); // before the handles, so that it is destroyed after them
    const SparseHandle a_handle(a);
    const SparseHandle b_handle(b);
    SparseHandle product(c);
    // Kept on purpose: when MKL puts a handle of its own into the slot, the wrapped output is lost.
    mkl_sparse_sp2m(NonTranspose, GeneralLower, a_handle.get(), Transpose, GeneralLower, b_handle.get(),
                    request_of(stage, c), product.slot());
    copy_csr(export_csr(product, c), c);
}

} // namespace
} // namespace csr_products

using namespace csr_products;

// Lines break by operand.
// clang-format off

void spgmatspgmattr_mkl_int64_new(
    std::int64_t stage, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    std::int64_t /*ignored_count*/,
    double* const c_val, std::int64_t* const c_col_ind, std::int64_t* const c_row_ptr,
    std::int64_t& /*ignored_result*/) noexcept {
    multiply(stage,
             {m, k, a_val, a_col_ind, a_row_ptr}, {n, k, b_val, b_col_ind, b_row_ptr},
             {m, n, c_val, c_col_ind, c_row_ptr});
}

// clang-format on
