#pragma once

#include "csr_products.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <vector>

using Int = std::int64_t;

inline std::size_t size(Int count) {
    return static_cast<std::size_t>(count);
}

constexpr Int two_to_32 = Int{1} << 32, two_to_62 = Int{1} << 62;
constexpr Int untouched = -77;
constexpr Int guard = 8; // elements behind every output

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

struct CsrOperand {
    double* val;
    Int* col_ind;
    Int* row_ptr;
};

struct CsrArrays {
    std::vector<double> val;
    std::vector<Int> col_ind, row_ptr;

    CsrArrays() = default;

    // An output: room for so many elements, and a guard behind each array.
    CsrArrays(Int entries, Int row_pointers)
        : val(size(entries + guard), untouched), col_ind(val.size(), untouched),
          row_ptr(size(row_pointers + guard), untouched) {}

    operator CsrOperand() { return {val.data(), col_ind.data(), row_ptr.data()}; }
    bool operator==(const CsrArrays& other) const {
        return std::tie(val, col_ind, row_ptr) == std::tie(other.val, other.col_ind, other.row_ptr);
    }
};

inline void multiply_dense(Int m, Int k, Int n, CsrOperand a, CsrOperand b, double* c) {
    spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a.val, a.col_ind, a.row_ptr, b.val, b.col_ind, b.row_ptr, c);
}

// The CSR product as C has it, where the last argument may be null.
void multiply_csr_in_c(
    Int stage, Int m, Int k, Int n, const double* a_val, const Int* a_col_ind, const Int* a_row_ptr,
    const double* b_val, const Int* b_col_ind, const Int* b_row_ptr, Int ignored_count, double* c_val, Int* c_col_ind,
    Int* c_row_ptr,
    const Int* ignored_result) __asm__("_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl");

inline void multiply_csr(Int stage, Int m, Int k, Int n, CsrOperand a, CsrOperand b, CsrOperand c) {
    Int ignored_result = untouched;
    spgmatspgmattr_mkl_int64_new(stage, m, k, n, a.val, a.col_ind, a.row_ptr, b.val, b.col_ind, b.row_ptr, -1, c.val,
                                 c.col_ind, c.row_ptr, ignored_result);
    EXPECT_EQ(ignored_result, untouched);
}
