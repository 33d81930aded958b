// Calls for which memory runs out. The program has a malloc of its own, which MKL then calls too.
// A request of at least 8 KB fails on demand. Below that neither MKL nor the OpenMP runtime survives.

#include "csr_products.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <tuple>
#include <vector>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

using Int = std::int64_t;

std::atomic<int> requests = 0, first_failure = -1, last_failure = -1;

bool fails(std::size_t size) {
    const int request = size < 8192 ? -2 : requests++;
    return request >= first_failure && request <= last_failure;
}

} // namespace

extern "C" void* malloc(std::size_t size) {
    return fails(size) ? nullptr : __libc_malloc(size);
}

namespace {

constexpr Int n = 300;
constexpr int dense = -1; // in place of a stage

// The upper triangle of ones.
std::vector<double> a_val((n + 1) * n / 2, 1.0);
std::vector<Int> a_col_ind, a_row_ptr{1};

// What its products with its own transpose write.
struct Outputs {
    std::vector<double> val = std::vector<double>(n * n, -77);
    std::vector<Int> col_ind = std::vector<Int>(n * n, -77), row_ptr = std::vector<Int>(n + 1, -77);

    void multiply(int stage) {
        double* const v = a_val.data();
        Int* const c = a_col_ind.data();
        Int* const r = a_row_ptr.data();
        Int ignored = 0;
        if (stage == dense) {
            spgmatspgmattr_gmat_mkl_int64_new(n, n, n, v, c, r, v, c, r, val.data());
        } else {
            spgmatspgmattr_mkl_int64_new(stage, n, n, n, v, c, r, v, c, r, 0, val.data(), col_ind.data(),
                                         row_ptr.data(), ignored);
        }
    }
    bool operator==(const Outputs& other) const {
        return std::tie(val, col_ind, row_ptr) == std::tie(other.val, other.col_ind, other.row_ptr);
    }
};

TEST(OutOfMemory, OutputsStayAndTheNextProductIsRight) {
    for (Int i = 1; i <= n; ++i) {
        for (Int j = i; j <= n; ++j) {
            a_col_ind.push_back(j);
        }
        a_row_ptr.push_back(Int(a_col_ind.size()) + 1);
    }
    Outputs product;
    Outputs counted;
    product.multiply(0);
    counted.multiply(1);
    int failures = 0;
    for (const auto& [stage, before] :
         {std::pair{dense, Outputs()}, {0, Outputs()}, {1, Outputs()}, {2, counted}, {2, product}}) {
        Outputs after = before;
        const int first = requests;
        after.multiply(stage);
        const int of_a_call = requests - first;
        for (int request = 0; request < 2 * of_a_call; ++request, ++failures) { // each once, and each from there on
            SCOPED_TRACE(testing::Message() << "stage " << stage << ", request " << request << " of " << of_a_call);
            Outputs outputs = before;
            first_failure = requests + request % of_a_call;
            last_failure = request < of_a_call ? first_failure.load() : INT_MAX;
            outputs.multiply(stage);
            first_failure = last_failure = -1;
            EXPECT_TRUE(outputs == before);
            outputs.multiply(stage);
            EXPECT_TRUE(outputs == after);
        }
    }
    EXPECT_GE(failures, 20) << "MKL takes its memory elsewhere";
}

} // namespace
