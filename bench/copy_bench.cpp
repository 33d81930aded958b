// The copy of the CSR product alone, against two memcpy of the same bytes.

#include "sparse_products/copy_csr.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

using Int = std::int64_t;

constexpr Int rows = 3000;
constexpr Int elements = rows * rows;

const std::vector<Int> col_indx(elements, 1);
const std::vector<double> values(elements, 1.0);
std::vector<Int> c_col_ind(elements);
std::vector<double> c_val(elements);

// All entries stand in the last row.
void copy_by_library(benchmark::State& state, Int stored) {
    std::vector<Int> rows_start(rows + 1, 1);
    rows_start.back() = stored + 1;
    const csr_products::CsrOperand c{rows, rows, c_val.data(), c_col_ind.data(), nullptr};
    for ([[maybe_unused]] auto _ : state) {
        csr_products::copy_csr({rows, rows_start.data(), col_indx.data(), values.data()}, c);
        benchmark::ClobberMemory();
    }
}

void copy_by_memcpy(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(c_col_ind.data(), col_indx.data(), 8 * elements);
        std::memcpy(c_val.data(), values.data(), 8 * elements);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(copy_by_library, full, elements)->Name("copy/full");
BENCHMARK_CAPTURE(copy_by_library, half, elements / 2)->Name("copy/half");
BENCHMARK_CAPTURE(copy_by_library, sparse, elements / 500)->Name("copy/sparse");
BENCHMARK(copy_by_memcpy)->Name("copy/memcpy");

} // namespace
