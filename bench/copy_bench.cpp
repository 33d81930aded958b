// The copy of the CSR product alone, against two memcpy of the same bytes.

#include "sparse_products/copy_csr.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Int = std::int64_t;

constexpr Int rows = 3000;
constexpr Int elements = rows * rows;

// Aligned to a page, as MKL's blocks are.
template <class T>
const T* exported_array() {
    constexpr std::size_t page = 4096;
    constexpr std::size_t bytes = (sizeof(T) * elements + page - 1) / page * page;
    T* const array = static_cast<T*>(std::aligned_alloc(page, bytes));
    std::fill_n(array, elements, T{1});
    return array;
}

const Int* const col_indx = exported_array<Int>();
const double* const values = exported_array<double>();
std::vector<Int> c_col_ind(elements);
std::vector<double> c_val(elements);

// All entries stand in the last row.
void copy_by_library(benchmark::State& state, Int stored) {
    std::vector<Int> rows_start(rows + 1, 1);
    rows_start.back() = stored + 1;
    const csr_products::CsrOperand c{rows, rows, c_val.data(), c_col_ind.data(), nullptr};
    for ([[maybe_unused]] auto _ : state) {
        csr_products::copy_csr({rows, rows_start.data(), col_indx, values}, c);
        benchmark::ClobberMemory();
    }
}

void copy_by_memcpy(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(c_col_ind.data(), col_indx, 8 * elements);
        std::memcpy(c_val.data(), values, 8 * elements);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(copy_by_library, full, elements)->Name("copy/full");
BENCHMARK_CAPTURE(copy_by_library, half, elements / 2)->Name("copy/half");
BENCHMARK_CAPTURE(copy_by_library, sparse, elements / 500)->Name("copy/sparse");
BENCHMARK(copy_by_memcpy)->Name("copy/memcpy");

} // namespace
