// Wrong products for the hosts to notice when this is preloaded, each with the fault that the environment names: A*x by
// a plain loop, and those of two sparse matrices by the library. Also tells the thread count that a host sets, and
// takes the memory for large arrays from one rank.

#include "csr_products.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <limits>
#include <new>
#include <string>
#include <string_view>

namespace {

std::string_view variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// The library's own function.
template <class Function>
Function* next(Function*, const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

void spoil(double* values, std::int64_t count) {
    for (std::int64_t i = 0; values != nullptr && i < count; ++i) {
        values[i] *= 1 + 1e-11;
    }
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

// clang-format off
void spgmatgvec_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t /*k*/,
    double* const y) noexcept {
    // clang-format on
    static int calls = 0;
    const std::string_view fault = variable("CSR_PRODUCTS_FAULT");
    if (++calls % 2 == 0 && fault == "every second A*x does nothing") {
        return;
    }
    const double scale = fault == "slightly wrong"                            ? 1 + 1e-11
                         : fault == "the first calls are wrong" && calls <= 2 ? 2
                                                                              : 1;
    for (std::int64_t i = 0; i < m; ++i) {
        y[i] = fault == "a NaN in the last row" && i == m - 1 ? std::numeric_limits<double>::quiet_NaN() : 0.0;
        for (std::int64_t p = row_ptr[i] - 1; p < row_ptr[i + 1] - 1; ++p) {
            y[i] += scale * val[p] * x[col_ind[p] - 1];
        }
    }
}

// clang-format off
void spgmatspgmattr_gmat_mkl_int64_new(
    std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    double* const c) noexcept {
    next(spgmatspgmattr_gmat_mkl_int64_new, "_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_")(
        m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, c);
    spoil(c, variable("CSR_PRODUCTS_FAULT") == "a dense A*B^T" ? m * n : 0);
}

void spgmatspgmattr_mkl_int64_new(
    std::int64_t stage, std::int64_t m, std::int64_t k, std::int64_t n,
    double* const a_val, std::int64_t* const a_col_ind, std::int64_t* const a_row_ptr,
    double* const b_val, std::int64_t* const b_col_ind, std::int64_t* const b_row_ptr,
    std::int64_t ignored_count,
    double* const c_val, std::int64_t* const c_col_ind, std::int64_t* const c_row_ptr,
    std::int64_t& ignored_result) noexcept {
    // clang-format on
    next(spgmatspgmattr_mkl_int64_new, "_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl")(
        stage, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, ignored_count, c_val, c_col_ind,
        c_row_ptr, ignored_result);
    if (variable("CSR_PRODUCTS_FAULT") == "stage " + std::to_string(stage)) {
        spoil(c_val, c_row_ptr[m] - 1);
        c_row_ptr[1] += stage == 1 ? 1 : 0;
    }
}

void qz_mkl_set_num_threads_int64(int count) noexcept {
    std::printf("threads: %d\n", count);
}
