// The thirteen functions: each call is checked, and then computed by the library.

#include "csr_products.h"
#include "watch.h"

using namespace csr_products::check;

namespace {

Entry matrix_G{"_Z22spgmatgmat_mkl_G_int64PdPlS0_S_lllS_"};
Entry matrix_G_long{"_Z22spgmatgmat_mkl_G_int64PdPlS0_S_llllS_l", Long};
Entry matrix_S{"_Z22spgmatgmat_mkl_S_int64PdPlS0_S_lllS_", Symmetric};
Entry matrix_S_long{"_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l", Symmetric | Long};
Entry matrix_sum_G{"_Z25spgmatgmatsum_mkl_G_int64PdPlS0_S_llllS_l", Accumulates};
Entry matrix_sum_S{"_Z25spgmatgmatsum_mkl_S_int64PdPlS0_S_llllS_l", Symmetric | NamedSum};
Entry transposed_G{"_Z24spgmattrgmat_mkl_G_int64PdPlS0_S_lllS_", Transposed};
Entry transposed_S{"_Z24spgmattrgmat_mkl_S_int64PdPlS0_S_lllS_", Symmetric};
Entry vector_G{"_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_"};
Entry vector_sum_G{"_Z25spgmatgvecsum_mkl_G_int64PdPlS0_S_llS_", Accumulates};
Entry sparse_dense{"_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_"};
Entry sparse_csr{"_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl"};
Entry thread_count{"_Z28qz_mkl_set_num_threads_int64i"};

} // namespace

Entry* const csr_products::check::entries[13] = {
    &matrix_G,     &matrix_G_long, &matrix_S,     &matrix_S_long, &matrix_sum_G, &matrix_sum_S, &transposed_G,
    &transposed_S, &vector_G,      &vector_sum_G, &sparse_dense,  &sparse_csr,   &thread_count};

// clang-format off

void spgmatgmat_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept
    { watch(matrix_G, val, col_ind, row_ptr, b, m, k, n, c); }

void spgmatgmat_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                            double* c, Int ldc) noexcept
    { watch(matrix_G_long, val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc); }

void spgmatgmat_mkl_S_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept
    { watch(matrix_S, val, col_ind, row_ptr, b, m, k, n, c); }

void spgmatgmat_mkl_S_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                            double* c, Int ldc) noexcept
    { watch(matrix_S_long, val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc); }

void spgmatgmatsum_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                               double* c, Int ldc) noexcept
    { watch(matrix_sum_G, val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc); }

void spgmatgmatsum_mkl_S_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                               double* c, Int ldc) noexcept
    { watch(matrix_sum_S, val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc); }

void spgmattrgmat_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept
    { watch(transposed_G, val, col_ind, row_ptr, b, m, k, n, c); }

void spgmattrgmat_mkl_S_int64(double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept
    { watch(transposed_S, val, col_ind, row_ptr, b, m, k, n, c); }

void spgmatgvec_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* x, Int m, Int k, double* y) noexcept
    { watch(vector_G, val, col_ind, row_ptr, x, m, k, y); }

void spgmatgvecsum_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* x, Int m, Int k, double* y) noexcept
    { watch(vector_sum_G, val, col_ind, row_ptr, x, m, k, y); }

void spgmatspgmattr_gmat_mkl_int64_new(Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                                       double* b_val, Int* b_col_ind, Int* b_row_ptr, double* c) noexcept
    { watch(sparse_dense, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, c); }

// The last argument may be null in C: it goes on as the address that it is.
void spgmatspgmattr_mkl_int64_new(Int stage, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                                  double* b_val, Int* b_col_ind, Int* b_row_ptr, Int ignored_count,
                                  double* c_val, Int* c_col_ind, Int* c_row_ptr, Int& ignored_result) noexcept
    { watch(sparse_csr, stage, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, ignored_count, c_val, c_col_ind, c_row_ptr, &ignored_result); }

void qz_mkl_set_num_threads_int64(int count) noexcept
    { watch(thread_count, count); }

// clang-format on
