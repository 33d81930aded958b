#pragma once

#include "csr_products.h"

#include <functional>
#include <vector>

using Int = std::int64_t;

// One sparse-by-dense entry: what it passes on, in MKL's numbers, and a call that takes the same
// arguments for all of them. The short entries ignore the leading dimensions, the vector entries n too.
struct DenseEntry {
    using Call = std::function<void(double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                                    double* c, Int ldc)>;
    enum Form { short_form, long_form, vector_form };

    const char* name;
    Form form;
    int operation;
    const char* preset; // type/mode/diag
    double beta;
    Call call;
};

inline DenseEntry::Call call_short(void (*f)(double*, Int*, Int*, double*, Int, Int, Int, double*)) {
    return [f](auto* val, auto* col_ind, auto* row_ptr, auto* b, Int, Int m, Int k, Int n, auto* c, Int) {
        f(val, col_ind, row_ptr, b, m, k, n, c);
    };
}

inline DenseEntry::Call call_vector(void (*f)(double*, Int*, Int*, double*, Int, Int, double*)) {
    return [f](auto* val, auto* col_ind, auto* row_ptr, auto* b, Int, Int m, Int k, Int, auto* c, Int) {
        f(val, col_ind, row_ptr, b, m, k, c);
    };
}

inline DenseEntry::Call call_long(void (*f)(double*, Int*, Int*, double*, Int, Int, Int, Int, double*, Int)) {
    return f;
}

inline const std::vector<DenseEntry> dense_entries{
    {"spgmatgmat G", DenseEntry::short_form, 10, "20/42/50", 0.0, call_short(spgmatgmat_mkl_G_int64)},
    {"spgmatgmat G long", DenseEntry::long_form, 10, "20/42/50", 0.0, call_long(spgmatgmat_mkl_G_int64)},
    {"spgmatgmat S", DenseEntry::short_form, 10, "21/41/50", 0.0, call_short(spgmatgmat_mkl_S_int64)},
    {"spgmatgmat S long", DenseEntry::long_form, 10, "21/41/50", 0.0, call_long(spgmatgmat_mkl_S_int64)},
    {"spgmatgmatsum G", DenseEntry::long_form, 10, "20/42/50", 1.0, call_long(spgmatgmatsum_mkl_G_int64)},
    {"spgmatgmatsum S", DenseEntry::long_form, 10, "21/41/50", 0.0, call_long(spgmatgmatsum_mkl_S_int64)},
    {"spgmattrgmat G", DenseEntry::short_form, 11, "20/42/50", 0.0, call_short(spgmattrgmat_mkl_G_int64)},
    {"spgmattrgmat S", DenseEntry::short_form, 11, "21/41/50", 0.0, call_short(spgmattrgmat_mkl_S_int64)},
    {"spgmatgvec G", DenseEntry::vector_form, 10, "20/42/50", 0.0, call_vector(spgmatgvec_mkl_G_int64)},
    {"spgmatgvecsum G", DenseEntry::vector_form, 10, "20/42/50", 1.0, call_vector(spgmatgvecsum_mkl_G_int64)},
};
