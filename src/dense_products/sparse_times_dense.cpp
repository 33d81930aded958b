// C := op(A)*B or C := op(A)*B + C, with A sparse and B and C dense, column-major.

#include "csr_products.h"
#include "operand/product_constants.h"
#include "operand/sparse_handle.h"
#include "operand/zero_fill.h"

namespace csr_products {
namespace {

struct DenseOperand {
    double* values;
    std::int64_t leading_dimension;
};

// C := op(A)*B + beta*C. A is m x k; plain, B has k rows and C has m, and transposed the other way round.
void multiply(sparse_operation_t operation, const CsrOperand& a, const DescriptorPreset& preset, DenseOperand b,
              std::int64_t columns, double beta, DenseOperand c) noexcept {
    const SparseHandle handle(a);
    if (handle.wrapped()) {
        mkl_sparse_d_mm(operation, Alpha, handle.get(), preset, ColumnMajor, b.values, columns, b.leading_dimension,
                        beta, c.values, c.leading_dimension);
    } else {
        zero_fill(c.values, a);
    }
}

} // namespace
} // namespace csr_products

using namespace csr_products;

// Lines break by operand.
// clang-format off

void spgmatgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept {
    multiply(NonTranspose, {m, k, val, col_ind, row_ptr}, GeneralFull, {b, k}, n, Overwrite, {c, m});
}

void spgmatgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept {
    multiply(NonTranspose, {m, k, val, col_ind, row_ptr}, GeneralFull, {b, ldb}, n, Overwrite, {c, ldc});
}

void spgmatgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept {
    multiply(NonTranspose, {m, k, val, col_ind, row_ptr}, SymmetricUpper, {b, k}, n, Overwrite, {c, m});
}

void spgmatgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept {
    multiply(NonTranspose, {m, k, val, col_ind, row_ptr}, SymmetricUpper, {b, ldb}, n, Overwrite, {c, ldc});
}

void spgmatgmatsum_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept {
    multiply(NonTranspose, {m, k, val, col_ind, row_ptr}, GeneralFull, {b, ldb}, n, Accumulate, {c, ldc});
}

// Kept on purpose: a second name of the long spgmatgmat_mkl_S_int64, which does not accumulate.
[[gnu::alias("_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l")]]
void spgmatgmatsum_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept;

// Kept on purpose: the transposed entries pass the leading dimensions of the plain product, k for B
// and m for C, although B then has m rows and C has k.
void spgmattrgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept {
    multiply(Transpose, {m, k, val, col_ind, row_ptr}, GeneralFull, {b, k}, n, Overwrite, {c, m});
}

void spgmattrgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept {
    multiply(Transpose, {m, k, val, col_ind, row_ptr}, SymmetricUpper, {b, k}, n, Overwrite, {c, m});
}

// clang-format on
