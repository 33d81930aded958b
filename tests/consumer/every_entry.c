// Calls every function once, by its name in C, on operands that cannot be written and whose dimensions all
// differ, and compares with plain loops.

#include <csr_products_c.h>

#include <stdio.h>
#include <string.h>

enum { m = 3, k = 4, n = 2, ldb = 6, ldc = 5, most = 30 };

// A is m x k, B is n x k, S is k x k with its upper triangle stored; each as CSR and dense, column-major.
static const double a_val[] = {2, -1, 3, 5, 7};
static const int64_t a_col_ind[] = {1, 4, 2, 1, 3}, a_row_ptr[] = {1, 3, 4, 6};
static const double a[] = {2, 0, 5, 0, 3, 0, 0, 0, 7, -1, 0, 0};
static const double b_val[] = {4, 6, 9};
static const int64_t b_col_ind[] = {1, 3, 4}, b_row_ptr[] = {1, 3, 4};
static const double b[] = {4, 0, 0, 0, 6, 0, 0, 9};
static const double s_val[] = {1, 2, 3, 4, 5};
static const int64_t s_col_ind[] = {1, 3, 2, 4, 4}, s_row_ptr[] = {1, 3, 5, 5, 6};
static const double s[] = {1, 0, 2, 0, 0, 3, 0, 4, 2, 0, 0, 0, 0, 4, 0, 5};
static const double x[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}; // the dense operand, ldb * n

static double c[most], expected[most];
static int failures = 0;

static void check(const char* name) {
    if (memcmp(c, expected, sizeof c) != 0) {
        printf("%s: wrong product\n", name);
        ++failures;
    }
    for (int i = 0; i < most; ++i) {
        c[i] = expected[i] = 100 + i;
    }
}

// c is op(matrix) * x + beta * what it held, with op(matrix) of rows x inner.
static void check_product(const char* name, const double* matrix, int rows, int inner, int transposed, int columns,
                          int ld_x, double beta, int ld_c) {
    for (int i = 0; i < rows * columns; ++i) {
        const int row = i % rows, j = i / rows;
        double* const element = &expected[row + j * ld_c];
        *element *= beta;
        for (int p = 0; p < inner; ++p) {
            *element += matrix[transposed ? p + row * inner : row + p * rows] * x[p + j * ld_x];
        }
    }
    check(name);
}

int main(void) {
    int64_t c_col_ind[m * n], c_row_ptr[m + 1], ignored = 0;
    qz_mkl_set_num_threads_int64(2);
    check("nothing"); // prepares the outputs
    spgmatgmat_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m, k, n, c);
    check_product("spgmatgmat_mkl_G_int64", a, m, k, 0, n, k, 0, m);
    spgmatgmat_mkl_G_int64_ld(a_val, a_col_ind, a_row_ptr, x, ldb, m, k, n, c, ldc);
    check_product("spgmatgmat_mkl_G_int64_ld", a, m, k, 0, n, ldb, 0, ldc);
    spgmatgmat_mkl_S_int64(s_val, s_col_ind, s_row_ptr, x, k, k, n, c);
    check_product("spgmatgmat_mkl_S_int64", s, k, k, 0, n, k, 0, k);
    spgmatgmat_mkl_S_int64_ld(s_val, s_col_ind, s_row_ptr, x, ldb, k, k, n, c, ldc);
    check_product("spgmatgmat_mkl_S_int64_ld", s, k, k, 0, n, ldb, 0, ldc);
    spgmatgmatsum_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, ldb, m, k, n, c, ldc);
    check_product("spgmatgmatsum_mkl_G_int64", a, m, k, 0, n, ldb, 1, ldc);
    spgmatgmatsum_mkl_S_int64(s_val, s_col_ind, s_row_ptr, x, ldb, k, k, n, c, ldc);
    check_product("spgmatgmatsum_mkl_S_int64", s, k, k, 0, n, ldb, 0, ldc);
    spgmattrgmat_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m, k, 1, c);
    check_product("spgmattrgmat_mkl_G_int64", a, k, m, 1, 1, k, 0, m);
    spgmattrgmat_mkl_S_int64(s_val, s_col_ind, s_row_ptr, x, k, k, n, c);
    check_product("spgmattrgmat_mkl_S_int64", s, k, k, 1, n, k, 0, k);
    spgmatgvec_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m, k, c);
    check_product("spgmatgvec_mkl_G_int64", a, m, k, 0, 1, k, 0, m);
    spgmatgvecsum_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m, k, c);
    check_product("spgmatgvecsum_mkl_G_int64", a, m, k, 0, 1, k, 1, m);

    double product[m * n] = {0}; // A * B^T
    for (int i = 0; i < m * n * k; ++i) {
        product[i % (m * n)] += a[i % m + i / (m * n) * m] * b[i / m % n + i / (m * n) * n];
    }
    spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, c);
    memcpy(expected, product, sizeof product);
    check("spgmatspgmattr_gmat_mkl_int64_new");
    spgmatspgmattr_mkl_int64_new(0, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, 0, c, c_col_ind,
                                 c_row_ptr, &ignored);
    for (int i = 0; i < m; ++i) {
        for (int64_t p = c_row_ptr[i] - 1; p < c_row_ptr[i + 1] - 1; ++p) {
            product[i + (c_col_ind[p] - 1) * m] -= c[p];
        }
    }
    memset(c, 0, sizeof c);
    memset(expected, 0, sizeof expected);
    memcpy(expected, product, sizeof product); // what is left of it
    check("spgmatspgmattr_mkl_int64_new");
    puts(failures == 0 ? "all thirteen agree" : "some differ");
    return failures;
}
