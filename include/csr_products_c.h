/// @file
/// @brief The thirteen functions, for hosts in C.
///
/// The functions of csr_products.h under names for C. Shapes, failures and warnings stand there and hold
/// here: a sparse operand is `val`, `col_ind`, `row_ptr`, one-based; dense ones are column-major.
/// Each declaration is bound to a symbol of the library by an assembler label (GCC, Clang).
/// @warning A column stands at most once in a row of any operand. Otherwise values are wrong, and the
/// products of two sparse matrices corrupt the process's memory.

#pragma once

#if defined(__cplusplus) && !defined(DOXYGEN)
#error "csr_products_c.h is for C; in C++, include csr_products.h"
#else

#include <stdint.h>

// Lines break by operand.
// clang-format off

/// C := A*B. A is m x k, B is k x n.
void spgmatgmat_mkl_G_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t m, int64_t k, int64_t n, double* c) __asm__("_Z22spgmatgmat_mkl_G_int64PdPlS0_S_lllS_");
/// C := A*B, with leading dimensions.
void spgmatgmat_mkl_G_int64_ld(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t ldb, int64_t m, int64_t k, int64_t n, double* c, int64_t ldc)
    __asm__("_Z22spgmatgmat_mkl_G_int64PdPlS0_S_llllS_l");

/// C := A*B, A symmetric by its upper triangle. This and the other `_S` may write beyond the m rows
/// of C and behind C (m < k), or read beyond the k rows of B and behind B (m > k).
void spgmatgmat_mkl_S_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t m, int64_t k, int64_t n, double* c) __asm__("_Z22spgmatgmat_mkl_S_int64PdPlS0_S_lllS_");
/// C := A*B, A symmetric by its upper triangle, with leading dimensions.
void spgmatgmat_mkl_S_int64_ld(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t ldb, int64_t m, int64_t k, int64_t n, double* c, int64_t ldc)
    __asm__("_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l");

/// C := A*B + C, with leading dimensions.
void spgmatgmatsum_mkl_G_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t ldb, int64_t m, int64_t k, int64_t n, double* c, int64_t ldc)
    __asm__("_Z25spgmatgmatsum_mkl_G_int64PdPlS0_S_llllS_l");

/// C := A*B, A symmetric, with leading dimensions.
/// @warning Despite its name this does not accumulate.
void spgmatgmatsum_mkl_S_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t ldb, int64_t m, int64_t k, int64_t n, double* c, int64_t ldc)
    __asm__("_Z25spgmatgmatsum_mkl_S_int64PdPlS0_S_llllS_l");

/// C := A^T*B.
/// @warning Correct only when m = k or n = 1: the leading dimensions are k for B and m for C. Otherwise B is
/// read, or C is written, beyond its end.
void spgmattrgmat_mkl_G_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t m, int64_t k, int64_t n, double* c) __asm__("_Z24spgmattrgmat_mkl_G_int64PdPlS0_S_lllS_");
/// C := A^T*B, A symmetric.
void spgmattrgmat_mkl_S_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* b,
    int64_t m, int64_t k, int64_t n, double* c) __asm__("_Z24spgmattrgmat_mkl_S_int64PdPlS0_S_lllS_");

/// y := A*x.
void spgmatgvec_mkl_G_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* x,
    int64_t m, int64_t k, double* y) __asm__("_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_");
/// y := A*x + y.
void spgmatgvecsum_mkl_G_int64(const double* val, const int64_t* col_ind, const int64_t* row_ptr, const double* x,
    int64_t m, int64_t k, double* y) __asm__("_Z25spgmatgvecsum_mkl_G_int64PdPlS0_S_llS_");

/// C := A*B^T, dense. A is m x k, B is n x k, both sparse.
void spgmatspgmattr_gmat_mkl_int64_new(int64_t m, int64_t k, int64_t n,
    const double* a_val, const int64_t* a_col_ind, const int64_t* a_row_ptr,
    const double* b_val, const int64_t* b_col_ind, const int64_t* b_row_ptr,
    double* c) __asm__("_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_");

/// C := A*B^T, one-based CSR: `stage` 0 in one call, 1 a count, 2 its finish or a refresh of the values.
/// `c_val` and `c_col_ind` hold m*n elements each, at the finish too; for a refresh, the stored entries alone.
/// A null output is not written. Stage 2 needs `c_col_ind` and `c_row_ptr`; it writes nothing where the
/// product has no entries. `ignored_result` may be null.
/// @warning Stage 2 takes operands with the structure that they had at the count or the product. A refresh
/// takes `c_col_ind` and `c_row_ptr` unchecked: they must stand as that product left them, in that order.
void spgmatspgmattr_mkl_int64_new(int64_t stage, int64_t m, int64_t k, int64_t n,
    const double* a_val, const int64_t* a_col_ind, const int64_t* a_row_ptr,
    const double* b_val, const int64_t* b_col_ind, const int64_t* b_row_ptr,
    int64_t ignored_count, double* c_val, int64_t* c_col_ind, int64_t* c_row_ptr,
    const int64_t* ignored_result) __asm__("_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl");

/// MKL's thread count.
/// @warning Not while a product of the last two kinds runs on another thread.
void qz_mkl_set_num_threads_int64(int count) __asm__("_Z28qz_mkl_set_num_threads_int64i");

#endif
