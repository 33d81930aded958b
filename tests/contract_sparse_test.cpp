// The two sparse-by-sparse entries, call by call, against a scripted MKL.

#include "csr_products.h"
#include "scripted_mkl.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <sys/mman.h>
#include <thread>

namespace {

using Int = std::int64_t;

constexpr Int m = 3;
constexpr Int k = 4;
constexpr Int n = 5;
constexpr Int guard = 8; // elements behind every output
constexpr Int untouched = -77;

double a_val[1];
Int a_col_ind[1];
Int a_row_ptr[m + 1];
double b_val[1];
Int b_col_ind[1];
Int b_row_ptr[n + 1];

const sparse_matrix_t new_handle = fake_handle(0xd0);

// Scripts the wraps of A, B and C, those whose bit is set failing, and returns what they leave.
std::vector<sparse_matrix_t> script_wraps(unsigned failing, bool null_after_failure) {
    mkl = {};
    std::vector<sparse_matrix_t> handles{fake_handle(0xa0), fake_handle(0xb0), fake_handle(0xc0)};
    for (std::size_t i = 0; i < handles.size(); ++i) {
        const bool fails = (failing >> i & 1) != 0;
        handles[i] = fails && null_after_failure ? nullptr : handles[i];
        mkl.wraps.push_back({fails ? SPARSE_STATUS_ALLOC_FAILED : SPARSE_STATUS_SUCCESS, handles[i]});
    }
    return handles;
}

template <class T>
std::string create(Int rows, Int cols, const T* val, const Int* col_ind, const Int* row_ptr) {
    return call_text("create", 0, 1, rows, cols, row_ptr, row_ptr + 1, col_ind, val);
}

// The output holds 1, 2, 3 ... in its first elements, and what it held before from there on.
template <class T>
void expect_counted(const std::vector<T>& output, Int count) {
    std::vector<T> expected(output.size(), untouched);
    std::iota(expected.begin(), expected.begin() + count, T{1});
    EXPECT_EQ(output, expected);
}

struct CsrOutput {
    explicit CsrOutput(Int elements = m * n)
        : val(static_cast<std::size_t>(elements + guard), untouched), col_ind(val.size(), untouched),
          row_ptr(m + 1 + guard, untouched) {}

    void multiply(Int stage = 0, Int rows = m, Int columns = n) {
        Int ignored_result = untouched;
        spgmatspgmattr_mkl_int64_new(stage, rows, k, columns, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr,
                                     -1, val.data(), col_ind.data(), row_ptr.data(), ignored_result);
        EXPECT_EQ(ignored_result, untouched);
    }

    void expect_copied(Int row_pointers, Int entries) const {
        expect_counted(row_ptr, row_pointers);
        expect_counted(col_ind, entries);
        expect_counted(val, entries);
    }

    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr;
};

TEST(SparseContract, DenseResultCallByCall) {
    for (unsigned failing = 0; failing < 4; ++failing) {
        for (const bool null : {false, true}) {
            SCOPED_TRACE(call_text("failing wraps", failing, "null", null));
            const auto handles = script_wraps(failing, null);
            mkl.product_status = failing != 0 ? SPARSE_STATUS_NOT_INITIALIZED : SPARSE_STATUS_SUCCESS;
            std::vector<double> c(m * n + guard, untouched);
            spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr,
                                              c.data());
            const std::vector<std::string> expected{
                create(m, k, a_val, a_col_ind, a_row_ptr), create(n, k, b_val, b_col_ind, b_row_ptr),
                call_text("sp2md", 10, "20/40/50", handles[0], 11, "20/40/50", handles[1], 1, 0, c.data(), 102, m),
                call_text("destroy", handles[1]), call_text("destroy", handles[0])};
            EXPECT_EQ(mkl.calls, expected);
            expect_counted(c, 0);
        }
    }
}

TEST(SparseContract, CsrResultCallByCall) {
    const Int two_to_32 = Int{1} << 32;
    for (const Int stage : {Int{0}, Int{1}, Int{2}, Int{3}, Int{-1}, two_to_32 + 1, two_to_32 + 2, INT64_MIN + 1}) {
        const int request = stage == 1 ? 91 : stage == 2 ? 92 : 90;
        for (unsigned failing = 0; failing < 8; ++failing) {
            for (const bool replaced : {false, true}) {
                SCOPED_TRACE(call_text("stage", stage, "failing wraps", failing, "slot replaced", replaced));
                const auto handles = script_wraps(failing, failing != 5);
                mkl.product_handle = replaced ? new_handle : nullptr;
                mkl.product_status = replaced ? SPARSE_STATUS_SUCCESS : SPARSE_STATUS_INTERNAL_ERROR;
                const sparse_matrix_t slot = replaced ? new_handle : handles[2];
                CsrOutput c;
                c.multiply(stage);
                const std::vector<std::string> expected{
                    create(m, k, a_val, a_col_ind, a_row_ptr),
                    create(n, k, b_val, b_col_ind, b_row_ptr),
                    create(m, n, c.val.data(), c.col_ind.data(), c.row_ptr.data()),
                    call_text("sp2m", 10, "20/40/50", handles[0], 11, "20/40/50", handles[1], request, handles[2]),
                    call_text("export", slot, 1, m, n, 0, 0, 0, 0),
                    call_text("destroy", slot),
                    call_text("destroy", handles[1]),
                    call_text("destroy", handles[0])};
                EXPECT_EQ(mkl.calls, expected);
                c.expect_copied(0, 0); // the export wrote nothing
            }
        }
    }
}

// Memory of `count` elements 1, 2, 3 ... that ends where nothing can be read; null for a negative count.
template <class T>
std::shared_ptr<T> ending_array(Int count) {
    constexpr std::size_t page = 4096;
    constexpr std::size_t bytes = 10 * page; // 5120 elements
    if (count < 0) {
        return nullptr;
    }
    auto* const mapping =
        static_cast<char*>(mmap(nullptr, bytes + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(mapping + bytes, page, PROT_NONE);
    auto* const data = reinterpret_cast<T*>(mapping + bytes) - count;
    std::iota(data, data + count, T{1});
    return {data, [mapping](T*) { munmap(mapping, bytes + page); }};
}

TEST(SparseContract, CopyRunsOverMTimesNAndEndsWhereNothingCanBeRead) {
    constexpr Int null = -1;
    constexpr Int two_to_62 = Int{1} << 62;
    const struct {
        Int m, n, exported_rows;
        Int rows_start, col_indx, values; // how many elements can be read
        Int row_pointers, entries;        // how many are copied
    } cases[] = {{3, 5, 3, 4, 15, 15, 4, 15},
                 {3, 5, 3, 4, 99, 99, 4, 15},
                 {1, 1, 1, 2, 1, 1, 2, 1},
                 {70, 70, 9, 10, 4900, 4900, 10, 4900},
                 {70, 70, 1, 2, 4895, 4899, 2, 4895},
                 {3, 5, 3, 4, 4, 9, 4, 4},
                 {3, 5, 3, 4, 9, 6, 4, 6},
                 {3, 5, 3, 4, 0, 15, 4, 0},
                 {3, 5, 3, 4, null, 15, 4, 0},
                 {3, 5, 3, 4, 15, null, 4, 0},
                 {3, 5, 7, 8, 15, 15, 8, 15},
                 {3, 5, 0, 1, 15, 15, 1, 15},
                 {3, 5, -1, 9, 15, 15, 0, 15},
                 {3, 5, INT64_MAX, 9, 15, 15, 0, 15},
                 {3, 5, 3, 2, 15, 15, 2, 15},
                 {3, 5, 3, null, 15, 15, 0, 15},
                 {0, 5, 0, 1, 15, 15, 1, 0},
                 {5, 0, 5, 6, 15, 15, 6, 0},
                 {-3, 5, 3, 4, 15, 15, 4, 0},
                 {-3, -5, 3, 4, 15, 15, 4, 15},
                 {two_to_62, 4, 3, 4, 15, 15, 4, 0},
                 {two_to_62 + 3, 4, 3, 4, 15, 15, 4, 12}};
    for (const auto& t : cases) {
        SCOPED_TRACE(call_text("m n rows", t.m, t.n, t.exported_rows, "readable", t.rows_start, t.col_indx, t.values));
        script_wraps(0, false);
        const auto rows_start = ending_array<Int>(t.rows_start);
        const auto col_indx = ending_array<Int>(t.col_indx);
        const auto values = ending_array<double>(t.values);
        mkl.result = {t.exported_rows, rows_start.get(), col_indx.get(), values.get()};
        CsrOutput c(t.entries);
        c.multiply(0, t.m, t.n);
        c.expect_copied(t.row_pointers, t.entries);
    }
}

TEST(SparseContract, KernelIsAskedOnlyWhereTheSourceMayEnd) {
    const auto counted = ending_array<Int>(m * n);
    const auto values = ending_array<double>(m * n);
    const auto fewer = ending_array<Int>(m * n - 1);
    const Int full[] = {1, 6, 11, m * n + 1};
    const Int one_missing[] = {1, 6, 11, m * n};
    CsrOutput own; // what MKL exports when the product has left the slot alone, or was finalized
    std::iota(own.col_ind.begin(), own.col_ind.begin() + m * n, 1);
    std::iota(own.val.begin(), own.val.begin() + m * n, 1.0);
    const struct {
        const void *rows_start, *col_indx, *values;
        bool refuses;
        int reads;
        Int entries;
    } cases[] = {{full, counted.get(), values.get(), false, 1, m * n},
                 {full, nullptr, values.get(), false, 2, 0}, // as after a count request
                 {one_missing, fewer.get(), values.get(), false, 7, m * n - 1},
                 {counted.get(), counted.get(), values.get(), false, 3, m * n},
                 {counted.get(), counted.get(), values.get(), true, 3, m * n},
                 {counted.get(), own.col_ind.data(), own.val.data(), false, 1, m * n}};
    for (const auto& t : cases) {
        SCOPED_TRACE(call_text("expected kernel reads", t.reads, "refused", t.refuses));
        script_wraps(0, false);
        mkl.kernel_refuses = t.refuses;
        mkl.result = {m, t.rows_start, t.col_indx, t.values};
        CsrOutput other;
        CsrOutput& c = t.values == own.val.data() ? own : other;
        c.multiply();
        EXPECT_EQ(mkl.kernel_reads, t.reads);
        expect_counted(c.col_ind, t.entries);
        expect_counted(c.val, t.entries);
    }
}

TEST(SparseContract, OnlyTheCallersArraysArePassedOverWhenMklFrees) {
    using Freed = std::vector<const void*>;
    CsrOutput c;
    double other = 0;
    const Freed everything{c.val.data(), c.col_ind.data(), c.row_ptr.data(), &other};
    const auto freed_now = [&] {
        mkl.freed.clear();
        for (const void* array : everything) {
            mkl_serv_free(const_cast<void*>(array));
        }
        return mkl.freed;
    };
    script_wraps(0, false);
    mkl.on_destroy = [&] {
        EXPECT_EQ(freed_now(), Freed{&other});
        std::thread([&] { EXPECT_EQ(freed_now(), everything); }).join();
    };
    c.multiply(2);
    EXPECT_EQ(mkl.calls.size(), 8U);
    EXPECT_EQ(freed_now(), everything) << "the call left state behind";
}

} // namespace
