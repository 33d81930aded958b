// The two sparse-by-sparse entries, call by call, against a scripted MKL.

#include "csr_products.h"
#include "scripted_mkl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string_view>
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

std::string create(Int rows, Int cols, const double* val, const Int* col_ind, const Int* row_ptr) {
    return call_text("create", 0, 1, rows, cols, row_ptr, row_ptr + 1, col_ind, val);
}

// The output holds 1, 2, 3 ... in its first `counted` elements, then zeros up to `written`, and what it
// held before from there on.
template <class T>
void expect_counted(const std::vector<T>& output, Int counted, Int written) {
    std::vector<T> expected(output.size(), untouched);
    std::fill_n(expected.begin(), written, T{0});
    std::iota(expected.begin(), expected.begin() + counted, T{1});
    EXPECT_EQ(output, expected);
}

struct CsrOutput {
    explicit CsrOutput(Int elements = m * n, Int row_pointers = m + 1)
        : val(static_cast<std::size_t>(elements + guard), untouched), col_ind(val.size(), untouched),
          row_ptr(static_cast<std::size_t>(row_pointers + guard), untouched) {}

    // With the named output array null.
    void multiply(Int stage = 0, Int rows = m, Int columns = n, std::string_view null = "") {
        Int ignored_result = untouched;
        spgmatspgmattr_mkl_int64_new(stage, rows, k, columns, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr,
                                     -1, null == "val" ? nullptr : val.data(),
                                     null == "col_ind" ? nullptr : col_ind.data(),
                                     null == "row_ptr" ? nullptr : row_ptr.data(), ignored_result);
        EXPECT_EQ(ignored_result, untouched);
    }

    void expect(Int row_pointers, Int columns, Int values, Int written, std::string_view null = "") const {
        const auto unless = [&](const char* name, Int count) { return null == name ? 0 : count; };
        expect_counted(row_ptr, unless("row_ptr", row_pointers), unless("row_ptr", row_pointers));
        expect_counted(col_ind, unless("col_ind", std::clamp<Int>(columns, 0, written)), unless("col_ind", written));
        expect_counted(val, unless("val", std::clamp<Int>(values, 0, written)), unless("val", written));
    }

    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr;
};

// A product as MKL exports it: arrays 1, 2, 3 ... of exactly so many elements, null for a negative number.
struct Product {
    Product(Int row_pointers, Int columns, Int value_count)
        : rows_start(array<Int>(row_pointers)), col_indx(array<Int>(columns)),
          values(array<double>(value_count)), lengths{columns, value_count} {}

    void script(Int rows) {
        mkl.result = {rows, rows_start.get(), col_indx.get(), values.get()};
        mkl.on_product = [this] { make_blocks(lengths[0], lengths[1]); };
    }
    void make_blocks(Int columns, Int value_count) const {
        make_block(col_indx.get(), columns);
        make_block(values.get(), value_count);
    }
    static void make_block(void* address, Int elements) {
        mkl.next_block = address;
        EXPECT_EQ(mkl_serv_malloc(8 * static_cast<std::size_t>(elements), 64), address);
    }
    template <class T>
    static std::unique_ptr<T[]> array(Int count) {
        std::unique_ptr<T[]> data(count < 0 ? nullptr : new T[static_cast<std::size_t>(count)]);
        std::iota(data.get(), data.get() + std::max<Int>(count, 0), T{1});
        return data;
    }

    std::unique_ptr<Int[]> rows_start, col_indx;
    std::unique_ptr<double[]> values;
    Int lengths[2];
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
            expect_counted(c, 0, 0);
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
                c.expect(0, 0, 0, 0); // the export wrote nothing
            }
        }
    }
}

// What stage 2 asks for depends on the state of the output: only what a count leaves is a full product.
TEST(SparseContract, RequestOfAFinish) {
    const struct {
        Int stage, m, n, row_ptr, col_ind;
        int request;
    } cases[] = {{2, 3, 5, 1, 0, 90},  {2, 1, 1, 1, 0, 90},  {2, 3, 5, 1, 1, 92},   {2, 3, 5, 1, -1, 92},
                 {2, 3, 5, 0, 0, 92},  {2, 3, 5, 2, 0, 92},  {2, 0, 5, 1, 0, 92},   {2, 3, 0, 1, 0, 92},
                 {2, -3, 5, 1, 0, 92}, {2, 3, -5, 1, 0, 92}, {2, -3, -5, 1, 0, 92}, {1, 3, 5, 1, 0, 91},
                 {0, 3, 5, 1, 1, 90}};
    for (const auto& t : cases) {
        for (const char* null : {"", "row_ptr", "col_ind"}) {
            SCOPED_TRACE(call_text("stage", t.stage, t.m, "x", t.n, "state", t.row_ptr, t.col_ind, "null", null));
            script_wraps(0, false);
            CsrOutput c;
            c.row_ptr[0] = t.row_ptr;
            c.col_ind[0] = t.col_ind;
            c.multiply(t.stage, t.m, t.n, null);
            const int request = t.stage == 2 && null[0] != '\0' ? 92 : t.request;
            EXPECT_EQ(mkl.calls.at(3), call_text("sp2m", 10, "20/40/50", fake_handle(0xa0), 11, "20/40/50",
                                                 fake_handle(0xb0), request, fake_handle(0xc0)));
        }
    }
}

// A null row pointer is passed on as it stands, with the address one element behind it.
TEST(SparseContract, NullRowPointers) {
    script_wraps(7, true);
    Int ignored = 0;
    spgmatspgmattr_mkl_int64_new(0, m, k, n, a_val, a_col_ind, nullptr, b_val, b_col_ind, nullptr, 0, nullptr, nullptr,
                                 nullptr, ignored);
    const auto text = [](Int rows, Int cols, const double* val, const Int* col_ind) {
        return call_text("create", 0, 1, rows, cols, 0, "0x8", col_ind, val);
    };
    mkl.calls.resize(3);
    EXPECT_EQ(mkl.calls,
              (std::vector{text(m, k, a_val, a_col_ind), text(n, k, b_val, b_col_ind), text(m, n, nullptr, nullptr)}));
}

TEST(SparseContract, CopyRunsOverMTimesNAndIsZeroBeyondMklsArrays) {
    constexpr Int null = -1;
    constexpr Int two_to_62 = Int{1} << 62;
    // m, n, exported rows; lengths of col_indx and values; how many row pointers and entries are written.
    // More than m*n: a column twice in a row. Both null: a count. No row pointer: nothing was exported.
    const Int cases[][7] = {{3, 5, 3, 15, 15, 4, 15},
                            {3, 5, 3, 99, 99, 4, 15},
                            {1, 1, 1, 1, 1, 2, 1},
                            {70, 70, 9, 4900, 4900, 10, 4900},
                            {70, 70, 1, 4894, 4893, 2, 4900},
                            {2, 70, 5000, 140, 140, 5001, 140},
                            {3, 5, 3, 14, 14, 4, 15},
                            {3, 5, 3, 4, 9, 4, 15},
                            {3, 5, 3, 9, 6, 4, 15},
                            {3, 5, 3, 0, 15, 4, 15},
                            {3, 5, 3, null, 15, 4, 15},
                            {3, 5, 3, 15, null, 4, 15},
                            {3, 5, 3, null, null, 4, 15},
                            {3, 5, 7, 15, 15, 8, 15},
                            {3, 5, 0, 15, 15, 1, 15},
                            {3, 5, -1, 15, 15, 0, 15},
                            {3, 5, INT64_MAX, 15, 15, 0, 15},
                            {0, 5, 0, 15, 15, 1, 0},
                            {5, 0, 5, 15, 15, 6, 0},
                            {-3, 5, 3, 15, 15, 4, 0},
                            {-3, -5, 3, 15, 15, 4, 15},
                            {two_to_62, 4, 3, 15, 15, 4, 0},
                            {two_to_62 + 3, 4, 3, 15, 15, 4, 12},
                            {3, 5, 3, 15, 15, null, 0}};
    for (const auto& [rows, columns, exported_rows, col_indx, values, row_pointers, entries] : cases) {
        for (const Int stage : {0, 1, 2}) {
            for (const char* null_output : {"", "val", "col_ind", "row_ptr"}) {
                SCOPED_TRACE(call_text("stage m n rows", stage, rows, columns, exported_rows, "lengths", col_indx,
                                       values, "null", null_output));
                script_wraps(0, false);
                Product product(row_pointers == 0 ? 1 : row_pointers, col_indx, values);
                product.script(exported_rows);
                CsrOutput c(entries, std::max<Int>(row_pointers, 0));
                c.multiply(stage, rows, columns, null_output);
                c.expect(std::max<Int>(row_pointers, 0), col_indx, values, entries, null_output);
            }
        }
    }
}

// Only the blocks made on the calling thread during the product count, and of those at one address the
// latest. Any other array has m*n elements.
TEST(SparseContract, BlocksThatTellTheLengthOfAnArray) {
    Product product(m + 1, m * n, m * n);
    double workspace = 0;
    const auto made = [&](const std::vector<Int>& lengths, int others = 0) {
        return [=, &product, &workspace] {
            for (const Int length : lengths) {
                product.make_blocks(length, length);
            }
            for (int i = 0; i < others; ++i) {
                Product::make_block(&workspace, 1);
            }
        };
    };
    const struct {
        const char* name;
        ScriptedMkl::Hook on_create, on_product;
        Int length;
    } cases[] = {
        {"none", {}, {}, m * n},
        {"once", {}, made({7}), 7},
        {"before the product", made({7}), {}, m * n},
        {"before the product and in it", made({7}), made({2}), 2},
        {"on another thread", {}, [&] { std::thread(made({7})).join(); }, m * n},
        {"shorter at the same address", {}, made({9, 5}), 5},
        {"longer at the same address", {}, made({5, 9}), 9},
        {"before 19 other blocks", {}, made({7}, 19), 7},
        {"after 200 other blocks", {}, [&] { made({}, 200)(), made({7})(); }, 7},
    };
    for (const auto& t : cases) {
        SCOPED_TRACE(t.name);
        script_wraps(0, false);
        product.script(m);
        mkl.on_create = t.on_create;
        mkl.on_product = t.on_product;
        CsrOutput c;
        c.multiply();
        c.expect(m + 1, t.length, t.length, m * n);
    }
}

// The caller's own arrays, as the export gives them when the product left the slot alone or refreshed it.
TEST(SparseContract, CallersOwnArraysStayAsTheyAre) {
    CsrOutput c;
    std::iota(c.val.begin(), c.val.begin() + m * n, 1.0);
    std::iota(c.col_ind.begin(), c.col_ind.begin() + m * n, 1);
    std::iota(c.row_ptr.begin(), c.row_ptr.begin() + m + 1, 1);
    script_wraps(0, false);
    mkl.result = {m, c.row_ptr.data(), c.col_ind.data(), c.val.data()};
    c.multiply(2);
    c.expect(m + 1, m * n, m * n, m * n);
}

// A whole call on another thread, between the export of the first and its copy, changes nothing in it.
TEST(SparseContract, CallsOnTwoThreadsShareNothing) {
    Product product(m + 1, 9, 9);
    Product counted(2, -1, -1);
    script_wraps(0, false);
    product.script(m);
    mkl.on_export = [&] {
        std::thread([&] {
            mkl.wraps.assign(3, {SPARSE_STATUS_SUCCESS, new_handle});
            mkl.result = {1, counted.rows_start.get(), nullptr, nullptr};
            CsrOutput other;
            other.multiply(1, 1, 2);
            other.expect(2, 0, 0, 2);
        }).join();
    };
    CsrOutput c;
    c.multiply();
    c.expect(m + 1, 9, 9, m * n);
}

TEST(SparseContract, OnlyTheCallersArraysAreKeptWhenMklFrees) {
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
    const auto expect_kept = [&] {
        EXPECT_EQ(freed_now(), Freed{&other});
        std::thread([&] { EXPECT_EQ(freed_now(), everything); }).join();
    };
    script_wraps(0, false);
    mkl.on_product = mkl.on_destroy = expect_kept;
    c.multiply(2);
    EXPECT_EQ(mkl.calls.size(), 8U);
    EXPECT_EQ(freed_now(), everything) << "the call left state behind";
}

} // namespace
