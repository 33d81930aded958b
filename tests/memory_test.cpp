// Calls for which memory runs out. The program has malloc, calloc and realloc of its own, which MKL then calls too.
// A request of at least 8 KB fails on demand. Below that neither MKL nor the OpenMP runtime survives.

#include "csr_products.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <vector>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace {

using Int = std::int64_t;

constexpr std::size_t least = 8192;
std::atomic<int> requests = 0;
std::atomic<int> first_failure = -1, last_failure = -1;

bool fails(std::size_t size) {
    if (size < least) {
        return false;
    }
    const int request = requests++;
    const bool failing = request >= first_failure && request <= last_failure;
    errno = failing ? ENOMEM : errno;
    return failing;
}

} // namespace

extern "C" {
void* malloc(std::size_t size) {
    return fails(size) ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    return fails(count * size) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    return fails(size) ? nullptr : __libc_realloc(block, size);
}
}

namespace {

constexpr Int n = 300;
constexpr double untouched = -77;

// A band of ones, and what its product with its own transpose leaves.
struct Products {
    std::vector<double> val, dense = std::vector<double>(n * n, untouched), c_val = dense;
    std::vector<Int> col_ind, row_ptr{1}, c_col_ind = std::vector<Int>(n * n, untouched),
                                          c_row_ptr = std::vector<Int>(n + 1, untouched);

    Products() {
        for (Int i = 0; i < n; ++i) {
            for (Int j = i; j < std::min(i + 20, n); ++j) {
                val.push_back(1.0);
                col_ind.push_back(j + 1);
            }
            row_ptr.push_back(Int(val.size()) + 1);
        }
    }
    void multiply_dense() {
        spgmatspgmattr_gmat_mkl_int64_new(n, n, n, val.data(), col_ind.data(), row_ptr.data(), val.data(),
                                          col_ind.data(), row_ptr.data(), dense.data());
    }
    void multiply_csr(Int stage) {
        Int ignored = 0;
        spgmatspgmattr_mkl_int64_new(stage, n, n, n, val.data(), col_ind.data(), row_ptr.data(), val.data(),
                                     col_ind.data(), row_ptr.data(), 0, c_val.data(), c_col_ind.data(),
                                     c_row_ptr.data(), ignored);
    }
    bool operator==(const Products& other) const {
        return dense == other.dense && c_val == other.c_val && c_col_ind == other.c_col_ind &&
               c_row_ptr == other.c_row_ptr;
    }
};

TEST(OutOfMemory, OutputsStayAndTheNextProductIsRight) {
    qz_mkl_set_num_threads_int64(1);
    Products product;
    product.multiply_csr(0);
    Products counted;
    counted.multiply_csr(1);
    const struct {
        const char* name;
        Products before;
        std::function<void(Products&)> call;
    } cases[] = {{"dense", Products(), [](Products& p) { p.multiply_dense(); }},
                 {"one call", Products(), [](Products& p) { p.multiply_csr(0); }},
                 {"count", Products(), [](Products& p) { p.multiply_csr(1); }},
                 {"finish", counted, [](Products& p) { p.multiply_csr(2); }},
                 {"refresh", product, [](Products& p) { p.multiply_csr(2); }}};
    int failures = 0;
    for (const auto& t : cases) {
        Products expected = t.before;
        const int before = requests;
        t.call(expected);
        const int of_a_call = requests - before;
        for (int request = 0; request < of_a_call; ++request, ++failures) {
            for (const bool once : {true, false}) {
                SCOPED_TRACE(testing::Message() << t.name << ", request " << request << ", once " << once);
                Products p = t.before;
                first_failure = requests + request;
                last_failure = once ? first_failure.load() : 1 << 30;
                t.call(p);
                first_failure = last_failure = -1;
                EXPECT_TRUE(p == t.before);
                t.call(p);
                EXPECT_TRUE(p == expected);
            }
        }
    }
    EXPECT_GE(failures, 10) << "MKL takes its memory elsewhere";
}

} // namespace
