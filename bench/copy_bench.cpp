// The copy of the CSR product alone, against two memcpy of the same bytes: the library's code on an
// MKL that does nothing but export given arrays.

#include "csr_products.h"

#include <benchmark/benchmark.h>
#include <mkl_spblas.h>

#include <cstring>
#include <numeric>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>
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

// What a sparse result would cost if the whole source were asked for first and read afterwards. Not an
// option: another thread may unmap what was readable a moment ago.
void copy_after_probe(benchmark::State& state) {
    const auto probe = [](const void* array) {
        auto* const data = static_cast<char*>(const_cast<void*>(array));
        const std::size_t offset_in_page = reinterpret_cast<std::uintptr_t>(array) % 4096;
        madvise(data - offset_in_page, 8 * elements + offset_in_page, MADV_POPULATE_READ);
    };
    for ([[maybe_unused]] auto _ : state) {
        probe(exported.values.data());
        probe(exported.col_indx.data());
        std::memcpy(c_val.data(), exported.values.data(), 8 * elements);
        std::memcpy(c_col_ind.data(), exported.col_indx.data(), 8 * elements);
        benchmark::ClobberMemory();
    }
}

// The kernel's own copy, straight into the caller's arrays: what no snapshot through it can undercut.
void copy_by_kernel(benchmark::State& state) {
    const auto copy = [](void* to, const void* from) {
        const iovec target{to, 8 * elements};
        const iovec source{const_cast<void*>(from), 8 * elements};
        return process_vm_readv(getpid(), &target, 1, &source, 1, 0);
    };
    for ([[maybe_unused]] auto _ : state) {
        if (copy(c_val.data(), exported.values.data()) < 0 || copy(c_col_ind.data(), exported.col_indx.data()) < 0) {
            state.SkipWithError("process_vm_readv is refused");
            break;
        }
    }
}

BENCHMARK_CAPTURE(copy_by_entry, full, elements)->Name("copy/full");
BENCHMARK_CAPTURE(copy_by_entry, sparse, elements / 500)->Name("copy/sparse");
BENCHMARK(copy_by_memcpy)->Name("copy/memcpy");
BENCHMARK(copy_after_probe)->Name("copy/probe and memcpy");
BENCHMARK(copy_by_kernel)->Name("copy/kernel alone");

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
