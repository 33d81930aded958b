// Calls one product again and again, by its entry or by the same calls of MKL made directly, for
// callgrind to count. Usage: own_cost PRODUCT entry|direct CALLS, PRODUCT one of mv mm sp2md sp2m

#include "csr_products.h"

#include <mkl_service.h>
#include <mkl_spblas.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

using Int = std::int64_t;

constexpr Int n = 4;
constexpr matrix_descr general{SPARSE_MATRIX_TYPE_GENERAL, SPARSE_FILL_MODE_FULL, SPARSE_DIAG_NON_UNIT};
constexpr matrix_descr lower{SPARSE_MATRIX_TYPE_GENERAL, SPARSE_FILL_MODE_LOWER, SPARSE_DIAG_NON_UNIT};

// A full 4 x 4 matrix, so that its products are full too.
double val[n * n] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
Int col_ind[n * n] = {1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4};
Int row_ptr[n + 1] = {1, 5, 9, 13, 17};
double b[n * n];
double c[n * n];
Int c_col_ind[n * n];
Int c_row_ptr[n + 1];
Int ignored;

sparse_matrix_t wrap(double* values, Int* columns, Int* rows) {
    sparse_matrix_t handle = nullptr;
    auto* const rows_start = reinterpret_cast<MKL_INT*>(rows);
    mkl_sparse_d_create_csr(&handle, SPARSE_INDEX_BASE_ONE, n, n, rows_start, rows_start + 1,
                            reinterpret_cast<MKL_INT*>(columns), values);
    return handle;
}

using Call = void (*)();

const std::map<std::string, Call> calls{
    {"mv entry", [] { spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, b, n, n, c); }},
    {"mv direct",
     [] {
         sparse_matrix_t a = wrap(val, col_ind, row_ptr);
         mkl_sparse_d_mv(SPARSE_OPERATION_NON_TRANSPOSE, 1.0, a, general, b, 0.0, c);
         mkl_sparse_destroy(a);
     }},
    {"mm entry", [] { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, n, n, n, c); }},
    {"mm direct",
     [] {
         sparse_matrix_t a = wrap(val, col_ind, row_ptr);
         mkl_sparse_d_mm(SPARSE_OPERATION_NON_TRANSPOSE, 1.0, a, general, SPARSE_LAYOUT_COLUMN_MAJOR, b, n, n, 0.0, c,
                         n);
         mkl_sparse_destroy(a);
     }},
    {"sp2md entry",
     [] { spgmatspgmattr_gmat_mkl_int64_new(n, n, n, val, col_ind, row_ptr, val, col_ind, row_ptr, c); }},
    {"sp2md direct",
     [] {
         sparse_matrix_t first = wrap(val, col_ind, row_ptr);
         sparse_matrix_t second = wrap(val, col_ind, row_ptr);
         mkl_sparse_d_sp2md(SPARSE_OPERATION_NON_TRANSPOSE, lower, first, SPARSE_OPERATION_TRANSPOSE, lower, second,
                            1.0, 0.0, c, SPARSE_LAYOUT_COLUMN_MAJOR, n);
         mkl_sparse_destroy(second);
         mkl_sparse_destroy(first);
     }},
    {"sp2m entry",
     [] {
         spgmatspgmattr_mkl_int64_new(0, n, n, n, val, col_ind, row_ptr, val, col_ind, row_ptr, 0, c, c_col_ind,
                                      c_row_ptr, ignored);
     }},
    {"sp2m direct", [] { // with the copy of the result, which is part of the work
         sparse_matrix_t first = wrap(val, col_ind, row_ptr);
         sparse_matrix_t second = wrap(val, col_ind, row_ptr);
         sparse_matrix_t product = wrap(c, c_col_ind, c_row_ptr);
         mkl_sparse_sp2m(SPARSE_OPERATION_NON_TRANSPOSE, lower, first, SPARSE_OPERATION_TRANSPOSE, lower, second,
                         SPARSE_STAGE_FULL_MULT, &product);
         sparse_index_base_t base{};
         MKL_INT rows = 0;
         MKL_INT cols = 0;
         MKL_INT* rows_start = nullptr;
         MKL_INT* rows_end = nullptr;
         MKL_INT* columns = nullptr;
         double* values = nullptr;
         mkl_sparse_d_export_csr(product, &base, &rows, &cols, &rows_start, &rows_end, &columns, &values);
         std::memcpy(c_row_ptr, rows_start, sizeof c_row_ptr);
         std::memcpy(c_col_ind, columns, sizeof c_col_ind);
         std::memcpy(c, values, sizeof c);
         mkl_sparse_destroy(product);
         mkl_sparse_destroy(second);
         mkl_sparse_destroy(first);
     }}};

} // namespace

int main(int argc, char** argv) {
    const auto call = argc == 4 ? calls.find(argv[1] + std::string(" ") + argv[2]) : calls.end();
    if (call == calls.end()) {
        std::fputs("own_cost: usage: own_cost mv|mm|sp2md|sp2m entry|direct CALLS\n", stderr);
        return 1;
    }
    qz_mkl_set_num_threads_int64(1);
    mkl_set_num_threads(1);
    for (int i = 0; i < std::atoi(argv[3]); ++i) {
        call->second();
    }
    return 0;
}
