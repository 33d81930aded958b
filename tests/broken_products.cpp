// Wrong products for the hosts to notice when this is preloaded, each with the fault that the environment names: A*x by
// a plain loop, and those of two sparse matrices by the library. Also tells the thread count that a host sets, and
// takes the memory for large arrays from one rank.

#include "csr_products.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <limits>
#include <new>
#include <string>
#include <string_view>

namespace {

using Int = std::int64_t;

std::string_view variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// Calls the library's own function.
template <class... Types>
void call_next(const char* symbol, Types... arguments) {
    reinterpret_cast<void (*)(Types...)>(dlsym(RTLD_NEXT, symbol))(arguments...);
}

void spoil(double* values, Int count) {
    std::for_each(values, values + count, [](double& value) { value *= 1 + 1e-11; });
}

} // namespace

void* operator new(std::size_t size) { // NOLINT(misc-new-delete-overloads): memory that free() releases
    void* const memory = std::malloc(size);
    if (memory == nullptr || (size > 65536 && variable("CSR_PRODUCTS_FAULT") == "no memory on rank 1" &&
                              variable("OMPI_COMM_WORLD_RANK") == "1")) {
        throw std::bad_alloc();
    }
    return memory;
}

void spgmatgvec_mkl_G_int64(double* val, Int* col_ind, Int* row_ptr, double* x, Int m, Int /*k*/, double* y) noexcept {
    static int calls = 0;
    const std::string_view fault = variable("CSR_PRODUCTS_FAULT");
    if (++calls % 2 == 0 && fault == "every second A*x does nothing") {
        return;
    }
    const double scale = fault == "slightly wrong"                            ? 1 + 1e-11
                         : fault == "the first calls are wrong" && calls <= 2 ? 2
                                                                              : 1;
    for (Int i = 0; i < m; ++i) {
        y[i] = fault == "a NaN in the last row" && i == m - 1 ? std::numeric_limits<double>::quiet_NaN() : 0.0;
        for (Int p = row_ptr[i] - 1; p < row_ptr[i + 1] - 1; ++p) {
            y[i] += scale * val[p] * x[col_ind[p] - 1];
        }
    }
}

void spgmatspgmattr_gmat_mkl_int64_new(Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                                       double* b_val, Int* b_col_ind, Int* b_row_ptr, double* c) noexcept {
    if (variable("CSR_PRODUCTS_FAULT") == "no dense A*B^T") {
        return;
    }
    call_next("_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_", m, k, n, a_val, a_col_ind, a_row_ptr, b_val,
              b_col_ind, b_row_ptr, c);
    spoil(c, variable("CSR_PRODUCTS_FAULT") == "a dense A*B^T" ? m * n : 0);
}

void spgmatspgmattr_mkl_int64_new(Int stage, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                                  double* b_val, Int* b_col_ind, Int* b_row_ptr, Int ignored_count, double* c_val,
                                  Int* c_col_ind, Int* c_row_ptr, Int& ignored_result) noexcept {
    if (variable("CSR_PRODUCTS_FAULT") == "no stage " + std::to_string(stage)) {
        return;
    }
    call_next("_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl", stage, m, k, n, a_val, a_col_ind,
              a_row_ptr, b_val, b_col_ind, b_row_ptr, ignored_count, c_val, c_col_ind, c_row_ptr, &ignored_result);
    if (variable("CSR_PRODUCTS_FAULT") == "stage " + std::to_string(stage)) {
        spoil(c_val, c_val == nullptr ? 0 : c_row_ptr[m] - 1);
        c_row_ptr[1] += stage == 1 ? 1 : 0;
    }
}

void qz_mkl_set_num_threads_int64(int count) noexcept {
    std::printf("threads: %d\n", count);
}
