/// @file
/// @brief The thirteen functions, for hosts in C++.
///
/// Double-precision sparse-matrix products on Intel oneMKL. csr_products_c.h declares the same functions
/// for C, csr_products.f90 for Fortran and csr_products.py for Python.
///
/// @section operands Operands
/// A **sparse operand** of `rows` x `cols` in one-based CSR form is three arrays, always in this order:
///   - `val`      the stored entries, row by row: nnz elements
///   - `col_ind`  the column number of each, 1 ... cols: nnz elements
///   - `row_ptr`  rows + 1 elements; row i (from 0) owns the entries at the one-based positions
///                row_ptr[i] ... row_ptr[i+1] - 1, so row_ptr[0] is 1 and nnz is row_ptr[rows] - 1
///
/// The column numbers of a row may stand in any order. A column stands at most once in a row.
/// @warning A column that stands twice in a row of any operand gives wrong values. In the products of two
/// sparse matrices it corrupts the process's memory.
///
/// A **dense operand** is an array of column-major doubles. Element (i, j) of an array with leading
/// dimension ld is at i + j*ld, counted from 0.
///
/// The caller owns every array. Operands are read and never written, so a const array may be passed
/// through a const_cast. An output must not overlap an operand. What a call allocates does not outlive it,
/// except the handle described with spgmatspgmattr_mkl_int64_new(), and what MKL and the OpenMP runtime keep
/// after the first call of a process, of a thread, or on more threads than before.
///
/// @section threads Threads
/// Calls with different outputs may run at the same time. A call needs at most 64 KB of stack. It may
/// change `errno`. The child of a fork may call, whether the parent has called or not, unless another
/// thread of the parent was inside a call.
///
/// @section exceptions Floating-point exceptions
/// MKL may raise them on the way to a right result. A host that traps them disables the traps around each
/// call (`feholdexcept`, `fesetenv`).
///
/// @section failure Failure
/// The library reports nothing, by contract: no status, no exception, no message. `csr-products-check` runs a
/// program and says which of its calls break what stands here. An operand cannot be
/// wrapped as an MKL handle when one of its dimensions is <= 0, or when its `col_ind` or `row_ptr` is null;
/// MKL checks nothing else about it. Each group of functions describes what a failed wrap does to the
/// output. After any other failure the output holds what MKL left there.
/// @warning The data() of an empty std::vector is null. A matrix without entries therefore needs a
/// `col_ind` with at least one element, and a `val` too. If only its `val` is null, the vector functions
/// and the CSR product (as A) compute, and all others leave the output as it was. If its `col_ind` is null
/// too, it cannot be wrapped before MKL 2025.1; from there on it behaves as if only `val` were null. A host
/// must not rely on either.
/// @warning An operand with entries whose `val` is null is wrapped, from MKL 2025.1 on even if its `col_ind`
/// is null too. Its products have wrong values or end the process.
///
/// @section loading Loading
/// A host that loads `libcsr_products.so.1` with dlopen finds each function by its symbol.

#pragma once

#ifndef __cplusplus
#error "csr_products.h is for C++; in C, include csr_products_c.h"
#else

#include <cstdint>

#pragma GCC visibility push(default)

// Lines break by operand.
// clang-format off

/// @defgroup dense_matrix Sparse times dense matrix
///
/// A is m x k and sparse. `_G` takes A as it stands. `_S` treats A as symmetric (m = k): it uses the
/// entries on and above the diagonal, and mirrors them. Those below may be stored or not. They may be
/// read, but they never reach the result, even where they are NaN. With m < k, `_S` may write k rows of
/// each column of C: between m and ldc, and behind C where ldc < k. With m > k, it may read m rows of each
/// column of B: up to (n-1)*ldb + m elements, and behind B where ldb < m.
///
/// The short forms imply the leading dimensions k for B and m for C. The long forms take `ldb` >= k
/// and `ldc` >= m. B holds ldb*n elements, C holds ldc*n. MKL does not check leading dimensions.
/// Elements of C between m and ldc are not touched.
///
/// **A failed wrap** sets the first m*k elements of `c` to 0.0, in the accumulating function too:
/// A's own shape, neither C's m*n nor `ldc`. That reaches past C where m*k exceeds C's elements, so a
/// host that may pass an operand that cannot be wrapped provides at least m*k. The product m*k is
/// taken modulo 2^64 and as a signed number; it is positive for two negative dimensions. Nothing is
/// written when it is <= 0.
/// @{

/// C := A*B.
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @par Symbol
/// `_Z22spgmatgmat_mkl_G_int64PdPlS0_S_lllS_`
void spgmatgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept;

/// C := A*B, with leading dimensions.
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @par Symbol
/// `_Z22spgmatgmat_mkl_G_int64PdPlS0_S_llllS_l`
void spgmatgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept;

/// C := A*B, A symmetric.
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @par Symbol
/// `_Z22spgmatgmat_mkl_S_int64PdPlS0_S_lllS_`
void spgmatgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept;

/// C := A*B, A symmetric, with leading dimensions.
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @par Symbol
/// `_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l`
void spgmatgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept;

/// C := A*B + C, with leading dimensions.
///
/// `b` is k x n, `c` is m x n, read and written. A failed wrap destroys what C held.
/// @par Symbol
/// `_Z25spgmatgmatsum_mkl_G_int64PdPlS0_S_llllS_l`
void spgmatgmatsum_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept;

/// C := A*B, A symmetric, with leading dimensions: **does not accumulate**.
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @warning Despite its name this does not accumulate. It is a second name of the long
/// spgmatgmat_mkl_S_int64(), and stays so.
/// @par Symbol
/// `_Z25spgmatgmatsum_mkl_S_int64PdPlS0_S_llllS_l`
void spgmatgmatsum_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t ldb, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c, std::int64_t ldc) noexcept;

/// C := A^T*B.
///
/// `b` is m x n, `c` is k x n and overwritten.
/// @warning The leading dimensions are those of the plain product, k for B and m for C, for any m
/// and k. They are correct only when m = k or n = 1. Otherwise the columns of C overlap and B is read up
/// to (n-1)*k + m elements, beyond its m*n (m < k), or the columns of B overlap and C is written up to
/// (n-1)*m + k elements, beyond its k*n (m > k). For a rectangular A and n > 1, pass A as square:
/// s = max(m, k) instead of m and k, a `row_ptr` of s + 1 elements padded with its last one, and B and C
/// with s rows.
/// @par Symbol
/// `_Z24spgmattrgmat_mkl_G_int64PdPlS0_S_lllS_`
void spgmattrgmat_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept;

/// C := A^T*B, A symmetric: the same product as the short spgmatgmat_mkl_S_int64().
///
/// `b` is k x n, `c` is m x n and overwritten.
/// @par Symbol
/// `_Z24spgmattrgmat_mkl_S_int64PdPlS0_S_lllS_`
void spgmattrgmat_mkl_S_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const b, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const c) noexcept;

/// @}

/// @defgroup vector Sparse times vector
///
/// A is m x k and sparse, `x` holds k elements, `y` holds m.
///
/// **A failed wrap** sets the first m*k elements of `y` to 0.0, in the accumulating function too.
/// That is A's shape and not y's length, so it reaches past y where k > 1. The product m*k is taken
/// modulo 2^64 and as a signed number; it is positive for two negative dimensions. Nothing is written
/// when it is <= 0.
/// @{

/// y := A*x.
///
/// `y` is overwritten.
/// @par Symbol
/// `_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_`
void spgmatgvec_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t k,
    double* const y) noexcept;

/// y := A*x + y.
///
/// `y` is read and written. A failed wrap destroys what y held.
/// @par Symbol
/// `_Z25spgmatgvecsum_mkl_G_int64PdPlS0_S_llS_`
void spgmatgvecsum_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t k,
    double* const y) noexcept;

/// @}

/// @defgroup transposed_sparse Sparse times transposed sparse
///
/// A is m x k, B is n x k, both sparse; C is m x n.
///
/// **A failed wrap** of A or B leaves C as it was, and so does a B without any stored entry, which MKL
/// refuses.
/// @warning A column that stands twice in a row of A or B corrupts the process's memory.
/// @{

/// C := A*B^T, dense.
///
/// `c` is m x n, column-major, with leading dimension m, and overwritten.
/// @par Symbol
/// `_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_`
void spgmatspgmattr_gmat_mkl_int64_new(
    std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    double* const c) noexcept;

/// C := A*B^T, one-based CSR, in one call or in stages.
///
/// `c_row_ptr` holds m + 1 elements. `c_val` and `c_col_ind` hold **m*n elements each**, the dense
/// size of C, however few entries are stored. A call that computes the structure of C writes all of
/// them: the stored entries first, then zeros. A refresh needs the stored entries alone.
///
/// An output array that is null is not written. Stage 2 needs `c_col_ind` and `c_row_ptr`: with either
/// null it writes nothing. A count with `c_val` and `c_col_ind` null takes no m*n elements, but its finish
/// does, and c_col_ind[0] must be 0 there: arrays of the counted nnz are too short for it. One call with a
/// null `c_val`, then a refresh, takes m*n elements of `c_col_ind`, and of `c_val` the stored entries alone.
///
/// nnz is c_row_ptr[m] - 1. The column numbers within a row come in MKL's order, which need not be
/// ascending. That order depends on nothing but this row of A and the rows of B that share a column with
/// it. C may be an operand of another call as it stands. What each `stage` leaves:
///
///   - **Any value but 1 and 2**, conventionally 0: the row pointer and the product.
///   - **1**, a count: the row pointer. `c_col_ind` and `c_val` are all zeros.
///   - **2 on the arrays that a count left**, its finish: the row pointer and the product.
///   - **2 on any other arrays**, a refresh: new values for the column numbers that are there. The
///     row pointer, the column numbers and the elements behind the stored entries stay as they were.
///
/// Stage 2 takes operands with the structure that they had at the count or at the product, the columns of
/// each row in the same order; only their values may have changed. A structure without entries has nothing
/// to finish or to refresh: stage 2 then writes no element.
///
/// Stage 2 recognises the arrays that a count left by c_row_ptr[0] = 1, c_row_ptr[m] > 1 and
/// c_col_ind[0] = 0. On any other arrays it refreshes the values. `c_col_ind` and `c_row_ptr` must then
/// stand as a product of those operands left them, in that order. A host that wants sorted columns sorts a
/// copy, values and columns together.
/// @warning MKL does not check the column numbers of a refresh. Others than those of such a product
/// corrupt the process's memory. Operands of another structure may corrupt it too. The same columns in
/// another order, in C or in an operand, may give wrong values. A `c_col_ind` whose first element the host
/// made 0 is taken for that of a count, and all m*n elements are then written.
///
/// A host may put `c_col_ind` and `c_row_ptr` together from smaller products, and then refresh them: each
/// product takes some consecutive rows of A and only the rows of B that share a column with them. The rows
/// of B that are left keep their order, and so do the columns, which may be numbered anew; entries of B in
/// columns that these rows of A do not have may be left out. This takes memory for the entries of C and for
/// one smaller product at a time, each of which leaves a handle; `examples/large` shows it.
///
/// Each call that computes the structure of C may leave one MKL handle behind: stages 0 and 1, and stage 2
/// after a count. With some releases of MKL a product that MKL refuses leaves one too. A refresh leaves
/// none. A handle takes 17 to 26 KB, by the release.
///
/// `ignored_count` is never read. `ignored_result` is neither read nor written; in C it may be null.
/// @par Symbol
/// `_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl`
void spgmatspgmattr_mkl_int64_new(
    std::int64_t stage, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    std::int64_t ignored_count,
    double* const c_val, std::int64_t* const c_col_ind, std::int64_t* const c_row_ptr,
    std::int64_t& ignored_result) noexcept;

/// @}

/// @defgroup runtime Thread count
/// @{

/// Sets how many threads MKL may use for the products that start afterwards, in the whole process.
///
/// It takes precedence over MKL's environment variables. A count <= 0 changes nothing. The count is a
/// plain 32-bit `int`.
/// @warning Do not call this while a sparse-times-transposed-sparse product runs on another thread:
/// that corrupts MKL's heap.
/// @par Symbol
/// `_Z28qz_mkl_set_num_threads_int64i`
void qz_mkl_set_num_threads_int64(int count) noexcept;

/// @}

// clang-format on

#pragma GCC visibility pop

#endif
