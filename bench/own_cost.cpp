// Calls one product again and again, by its entry or by the same calls of MKL made directly. Callgrind counts
// the calls behind the first ones: the start of the process and of MKL varies by thousands of instructions.
// Usage: valgrind --tool=callgrind --collect-atstart=no own_cost PRODUCT entry|direct CALLS
//   PRODUCT   one of mv mm sp2md sp2m

#include "csr_products.h"
#include "direct_mkl.h"

#include <mkl_service.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

using csr_products::CsrOperand;
using Int = std::int64_t;

constexpr Int n = 4;
constexpr int first_calls = 100;

// A full 4 x 4 matrix, so that its products are full too.
double val[n * n] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
Int col_ind[n * n] = {1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4};
Int row_ptr[n + 1] = {1, 5, 9, 13, 17};
double b[n * n];
double c[n * n];
Int c_col_ind[n * n];
Int c_row_ptr[n + 1];
Int ignored;

const CsrOperand operand{n, n, val, col_ind, row_ptr};
const CsrOperand result{n, n, c, c_col_ind, c_row_ptr};

using Call = void (*)();

const std::map<std::string, Call> calls{
    {"mv entry", [] { spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, b, n, n, c); }},
    {"mv direct", [] { direct::multiply_vector(operand, b, 0.0, c); }},
    {"mm entry", [] { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, n, n, n, c); }},
    {"mm direct",
     [] { direct::multiply_dense(csr_products::NonTranspose, operand, csr_products::GeneralFull, b, n, 0.0, c); }},
    {"sp2md entry",
     [] { spgmatspgmattr_gmat_mkl_int64_new(n, n, n, val, col_ind, row_ptr, val, col_ind, row_ptr, c); }},
    {"sp2md direct", [] { direct::multiply_transposed(operand, operand, c); }},
    {"sp2m entry",
     [] {
         spgmatspgmattr_mkl_int64_new(0, n, n, n, val, col_ind, row_ptr, val, col_ind, row_ptr, 0, c, c_col_ind,
                                      c_row_ptr, ignored);
     }},
    {"sp2m direct", [] { direct::multiply_transposed(operand, operand, result); }}};

} // namespace

int main(int argc, char** argv) {
    const auto call = argc == 4 ? calls.find(argv[1] + std::string(" ") + argv[2]) : calls.end();
    const int count = argc == 4 ? std::atoi(argv[3]) : 0;
    if (call == calls.end() || count <= 0) {
        std::fputs("own_cost: usage: own_cost mv|mm|sp2md|sp2m entry|direct CALLS\n", stderr);
        return 1;
    }
    qz_mkl_set_num_threads_int64(1);
    mkl_set_num_threads(1);
    for (int i = -first_calls; i < count; ++i) {
        if (i == 0) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        call->second();
    }
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}
