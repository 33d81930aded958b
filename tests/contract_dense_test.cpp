// The ten sparse-by-dense entries and the thread count, call by call, against a scripted MKL.

#include "csr_products.h"
#include "scripted_mkl.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using Int = std::int64_t;

constexpr double untouched = -7.25;
constexpr Int output_size = 32;

double val[1];
Int col_ind[1];
Int row_ptr[2];
double b[1];
std::array<double, output_size> c;

struct Entry {
    const char* name;
    void (*call)(Int m, Int k);
    const char* product; // as recorded for m = 3, k = 4, two columns, ldb = 9, ldc = 8
};

const Entry entries[] = {
    {"spgmatgmat G short", [](Int m, Int k) { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, 2, c.data()); },
     "mm 10 alpha 1 {handle} 20/42/50 layout 102 {b} columns 2 ld 4 beta 0 {c} ld 3"},
    {"spgmatgmat G long",
     [](Int m, Int k) { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, 9, m, k, 2, c.data(), 8); },
     "mm 10 alpha 1 {handle} 20/42/50 layout 102 {b} columns 2 ld 9 beta 0 {c} ld 8"},
    {"spgmatgmat S short", [](Int m, Int k) { spgmatgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, 2, c.data()); },
     "mm 10 alpha 1 {handle} 21/41/50 layout 102 {b} columns 2 ld 4 beta 0 {c} ld 3"},
    {"spgmatgmat S long",
     [](Int m, Int k) { spgmatgmat_mkl_S_int64(val, col_ind, row_ptr, b, 9, m, k, 2, c.data(), 8); },
     "mm 10 alpha 1 {handle} 21/41/50 layout 102 {b} columns 2 ld 9 beta 0 {c} ld 8"},
    {"spgmatgmatsum G",
     [](Int m, Int k) { spgmatgmatsum_mkl_G_int64(val, col_ind, row_ptr, b, 9, m, k, 2, c.data(), 8); },
     "mm 10 alpha 1 {handle} 20/42/50 layout 102 {b} columns 2 ld 9 beta 1 {c} ld 8"},
    {"spgmatgmatsum S",
     [](Int m, Int k) { spgmatgmatsum_mkl_S_int64(val, col_ind, row_ptr, b, 9, m, k, 2, c.data(), 8); },
     "mm 10 alpha 1 {handle} 21/41/50 layout 102 {b} columns 2 ld 9 beta 0 {c} ld 8"},
    {"spgmattrgmat G", [](Int m, Int k) { spgmattrgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, 2, c.data()); },
     "mm 11 alpha 1 {handle} 20/42/50 layout 102 {b} columns 2 ld 4 beta 0 {c} ld 3"},
    {"spgmattrgmat S", [](Int m, Int k) { spgmattrgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, 2, c.data()); },
     "mm 11 alpha 1 {handle} 21/41/50 layout 102 {b} columns 2 ld 4 beta 0 {c} ld 3"},
    {"spgmatgvec", [](Int m, Int k) { spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, b, m, k, c.data()); },
     "mv 10 alpha 1 {handle} 20/42/50 {b} beta 0 {c}"},
    {"spgmatgvecsum", [](Int m, Int k) { spgmatgvecsum_mkl_G_int64(val, col_ind, row_ptr, b, m, k, c.data()); },
     "mv 10 alpha 1 {handle} 20/42/50 {b} beta 1 {c}"},
};

void run(const Entry& entry, ScriptedMkl::Wrap wrap, Int m, Int k) {
    const auto product_status = mkl.product_status;
    mkl = {};
    mkl.product_status = product_status;
    mkl.wraps = {wrap};
    c.fill(untouched);
    entry.call(m, k);
}

std::string create(Int m, Int k) {
    return fmt::format("create 0x0 base 1 {}x{} {} {} {} {}", m, k, fmt::ptr(row_ptr), fmt::ptr(row_ptr + 1),
                       fmt::ptr(col_ind), fmt::ptr(val));
}

std::string destroy(sparse_matrix_t handle) {
    return fmt::format("destroy {}", fmt::ptr(handle));
}

// The first count elements of the output are zero, and the rest are as they were.
void expect_cleared(Int count) {
    std::array<double, output_size> expected{};
    std::fill(expected.begin() + count, expected.end(), untouched);
    EXPECT_EQ(c, expected);
}

const sparse_matrix_t handle = fake_handle(0xa0);

TEST(DenseContract, WrappedOperandGoesIntoOneProduct) {
    for (const Entry& entry : entries) {
        for (const auto product_status : {SPARSE_STATUS_SUCCESS, SPARSE_STATUS_INVALID_VALUE}) {
            SCOPED_TRACE(fmt::format("{}, product status {}", entry.name, int{product_status}));
            mkl.product_status = product_status;
            run(entry, {SPARSE_STATUS_SUCCESS, handle}, 3, 4);
            const std::string product = fmt::format(fmt::runtime(entry.product), fmt::arg("handle", fmt::ptr(handle)),
                                                    fmt::arg("b", fmt::ptr(+b)), fmt::arg("c", fmt::ptr(c.data())));
            EXPECT_EQ(mkl.calls, (std::vector{create(3, 4), product, destroy(handle)}));
            expect_cleared(0);
        }
    }
}

TEST(DenseContract, FailedWrapClearsTheOperandsShape) {
    for (const Entry& entry : entries) {
        for (int status = SPARSE_STATUS_NOT_INITIALIZED; status <= SPARSE_STATUS_NOT_SUPPORTED; ++status) {
            for (const sparse_matrix_t left : {sparse_matrix_t{}, handle}) {
                SCOPED_TRACE(fmt::format("{}, status {}, handle {}", entry.name, status, fmt::ptr(left)));
                run(entry, {static_cast<sparse_status_t>(status), left}, 3, 4);
                EXPECT_EQ(mkl.calls, (std::vector{create(3, 4), destroy(left)}));
                expect_cleared(12);
            }
        }
    }
}

TEST(DenseContract, ClearedCountIsAProductModulo2To64) {
    constexpr Int two_to_32 = Int{1} << 32;
    constexpr Int two_to_62 = Int{1} << 62;
    const struct {
        Int m, k, count;
    } shapes[] = {{3, 3, 9},
                  {4, 1, 4},
                  {4, 4, 16},
                  {0, 5, 0},
                  {5, 0, 0},
                  {-2, 3, 0},
                  {2, -3, 0},
                  {-2, -3, 6},
                  {two_to_32, two_to_32, 0},
                  {two_to_62, 2, 0}, // wraps to a negative count
                  {two_to_62 + 2, 4, 8}};
    for (const Entry& entry : entries) {
        for (const auto& shape : shapes) {
            SCOPED_TRACE(fmt::format("{}, {} x {}", entry.name, shape.m, shape.k));
            run(entry, {SPARSE_STATUS_INVALID_VALUE, nullptr}, shape.m, shape.k);
            expect_cleared(shape.count);
        }
    }
}

TEST(RuntimeContract, ThreadCountIsPassedUnchanged) {
    mkl = {};
    for (const int count : {1, 0, -3, 2147483647}) {
        qz_mkl_set_num_threads_int64(count);
    }
    EXPECT_EQ(mkl.calls, (std::vector<std::string>{"threads 1", "threads 0", "threads -3", "threads 2147483647"}));
}

} // namespace
