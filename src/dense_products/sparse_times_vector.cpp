// y := A*x or y := A*x + y, with A sparse.

#include "csr_products.h"
#include "operand/product_constants.h"
#include "operand/sparse_handle.h"
#include "operand/zero_fill.h"

namespace csr_products {
namespace {

// y := A*x + beta*y. A is m x k, x holds k elements and y holds m.
void multiply(const CsrOperand& a, const double* x, double beta, double* y) noexcept {
    const SparseHandle handle(a);
    if (handle.wrapped()) {
        mkl_sparse_d_mv(NonTranspose, Alpha, handle.get(), GeneralFull, x, beta, y);
    } else {
        zero_fill(y, a);
    }
}

} // namespace
} // namespace csr_products

using namespace csr_products;

// Lines break by operand.
// clang-format off

void spgmatgvec_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t k,
    double* const y) noexcept {
    multiply({m, k, val, col_ind, row_ptr}, x, Overwrite, y);
}

void spgmatgvecsum_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t k,
    double* const y) noexcept {
    multiply({m, k, val, col_ind, row_ptr}, x, Accumulate, y);
}

// clang-format on
