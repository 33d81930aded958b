// C := A*B^T, with A and B sparse and C dense, column-major.

#include "csr_products.h"
#include "operand/product_constants.h"
#include "operand/sparse_handle.h"

namespace csr_products {
namespace {

// C := A*B^T, with A m x k, B n x k and C m x n.
// Kept on purpose: neither wrap is examined, and MKL gets the handles as they are.
void multiply(const CsrOperand& a, const CsrOperand& b, double* c) noexcept {
    const SparseHandle a_handle(a);
    const SparseHandle b_handle(b);
    mkl_sparse_d_sp2md(NonTranspose, GeneralLower, a_handle.get(), Transpose, GeneralLower, b_handle.get(), Alpha,
                       Overwrite, c, ColumnMajor, a.rows);
}

} // namespace
} // namespace csr_products

using namespace csr_products;

// Lines break by operand.
// clang-format off

void spgmatspgmattr_gmat_mkl_int64_new(
    std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    double* const c) noexcept {
    multiply({m, k, a_val, a_col_ind, a_row_ptr}, {n, k, b_val, b_col_ind, b_row_ptr}, c);
}

// clang-format on
