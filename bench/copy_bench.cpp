// The copy of the CSR product alone, against two memcpy of the same bytes: the library's code on an
// MKL that does nothing but export given arrays.

#include "csr_products.h"

#include <benchmark/benchmark.h>
#include <mkl_spblas.h>

#include <cstring>
#include <numeric>
#include <vector>

namespace {

using Int = std::int64_t;

constexpr Int rows = 3000;
constexpr Int elements = rows * rows;

struct Exported {
    std::vector<MKL_INT> rows_start = std::vector<MKL_INT>(rows + 1, 1);
    std::vector<MKL_INT> col_indx = std::vector<MKL_INT>(elements, 1);
    std::vector<double> values = std::vector<double>(elements, 1.0);
};

Exported exported;
std::vector<double> c_val(elements);
std::vector<Int> c_col_ind(elements);
std::vector<Int> c_row_ptr(rows + 1);

void copy_by_entry(benchmark::State& state, Int stored) {
    exported.rows_start.back() = stored + 1;
    Int ignored = 0;
    for ([[maybe_unused]] auto _ : state) {
        spgmatspgmattr_mkl_int64_new(0, rows, 1, rows, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                     c_val.data(), c_col_ind.data(), c_row_ptr.data(), ignored);
    }
    state.SetBytesProcessed(32 * elements * state.iterations());
}

void copy_by_memcpy(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(c_val.data(), exported.values.data(), 8 * elements);
        std::memcpy(c_col_ind.data(), exported.col_indx.data(), 8 * elements);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(32 * elements * state.iterations());
}

BENCHMARK_CAPTURE(copy_by_entry, full, elements)->Name("copy/full");
BENCHMARK_CAPTURE(copy_by_entry, sparse, elements / 500)->Name("copy/sparse");
BENCHMARK(copy_by_memcpy)->Name("copy/memcpy");

} // namespace

extern "C" {

sparse_status_t mkl_sparse_d_create_csr(sparse_matrix_t* /*handle*/, sparse_index_base_t /*base*/, MKL_INT /*rows*/,
                                        MKL_INT /*cols*/, MKL_INT* /*rows_start*/, MKL_INT* /*rows_end*/,
                                        MKL_INT* /*col_indx*/, double* /*values*/) {
    return SPARSE_STATUS_SUCCESS;
}

sparse_status_t mkl_sparse_sp2m(sparse_operation_t /*operation_a*/, matrix_descr /*descr_a*/, sparse_matrix_t /*a*/,
                                sparse_operation_t /*operation_b*/, matrix_descr /*descr_b*/, sparse_matrix_t /*b*/,
                                sparse_request_t /*request*/, sparse_matrix_t* /*c*/) {
    return SPARSE_STATUS_SUCCESS;
}

sparse_status_t mkl_sparse_d_export_csr(sparse_matrix_t /*handle*/, sparse_index_base_t* /*base*/, MKL_INT* /*rows*/,
                                        MKL_INT* /*cols*/, MKL_INT** rows_start, MKL_INT** /*rows_end*/,
                                        MKL_INT** col_indx, double** values) {
    *rows_start = exported.rows_start.data();
    *col_indx = exported.col_indx.data();
    *values = exported.values.data();
    return SPARSE_STATUS_SUCCESS;
}

sparse_status_t mkl_sparse_destroy(sparse_matrix_t /*handle*/) {
    return SPARSE_STATUS_SUCCESS;
}

void mkl_serv_free(void* /*block*/) {}

} // extern "C"
