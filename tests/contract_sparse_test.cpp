// The two sparse-by-sparse entries, call by call, against a scripted MKL.

#include "scripted_mkl.h"

#include <algorithm>
#include <numeric>
#include <string_view>
#include <thread>

namespace {

constexpr Int m = 3;
constexpr Int k = 4 + two_to_32; // dimensions beyond 32 bits
constexpr Int n = 5;

CsrArrays a(1, m + 1);
CsrArrays b(1, n + 1);

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

// The output holds the first `copied` elements of the source, then zeros up to `written`, and what it held
// before from there on.
template <class T>
void expect_copied(const std::vector<T>& output, const std::vector<T>& source, Int copied, Int written) {
    std::vector<T> expected(output.size(), untouched);
    std::fill_n(expected.begin(), written, T{0});
    std::copy_n(source.begin(), copied, expected.begin());
    EXPECT_EQ(output, expected);
}

// With the named output array null.
void multiply(CsrArrays& c, Int stage = 0, Int rows = m, Int columns = n, std::string_view null = "") {
    multiply_csr(stage, rows, k, columns, a, b,
                 {null == "val" ? nullptr : c.val.data(), null == "col_ind" ? nullptr : c.col_ind.data(),
                  null == "row_ptr" ? nullptr : c.row_ptr.data()});
}

TEST(SparseContract, DenseResultCallByCall) {
    for (unsigned failing = 0; failing < 4; ++failing) {
        for (const bool null : {false, true}) {
            SCOPED_TRACE(call_text("failing wraps", failing, "null", null));
            const auto handles = script_wraps(failing, null);
            mkl.product_status = failing != 0 ? SPARSE_STATUS_NOT_INITIALIZED : SPARSE_STATUS_SUCCESS;
            std::vector<double> c(m * n + guard, untouched);
            multiply_dense(two_to_32 + m, k, two_to_32 + n, a, b, c.data());
            const std::vector<std::string> expected{create_text(two_to_32 + m, k, a), create_text(two_to_32 + n, k, b),
                                                    call_text("sp2md", 10, "20/40/50", handles[0], 11, "20/40/50",
                                                              handles[1], 1, 0, c.data(), 102, two_to_32 + m),
                                                    call_text("destroy", handles[1]), call_text("destroy", handles[0])};
            EXPECT_EQ(mkl.calls, expected);
            expect_copied(c, {}, 0, 0);
        }
    }
}

TEST(SparseContract, CsrResultCallByCall) {
    constexpr Int rows = two_to_32 + m;
    constexpr Int columns = two_to_32 + n;
    for (const Int stage : {Int{0}, Int{1}, Int{2}, Int{3}, Int{-1}, two_to_32 + 1, two_to_32 + 2, INT64_MIN + 1}) {
        const int request = stage == 1 ? 91 : stage == 2 ? 92 : 90;
        for (unsigned failing = 0; failing < 8; ++failing) {
            for (const bool replaced : {false, true}) {
                SCOPED_TRACE(call_text("stage", stage, "failing wraps", failing, "slot replaced", replaced));
                const auto handles = script_wraps(failing, failing != 5);
                mkl.product_handle = replaced ? fake_handle(0xd0) : nullptr;
                mkl.product_status = replaced ? SPARSE_STATUS_SUCCESS : SPARSE_STATUS_INTERNAL_ERROR;
                const sparse_matrix_t slot = replaced ? fake_handle(0xd0) : handles[2];
                CsrArrays c(m * n, m + 1);
                multiply(c, stage, rows, columns);
                const std::vector<std::string> expected{
                    create_text(rows, k, a),
                    create_text(columns, k, b),
                    create_text(rows, columns, c),
                    call_text("sp2m", 10, "20/40/50", handles[0], 11, "20/40/50", handles[1], request, handles[2]),
                    call_text("export", slot, 1, rows, columns, 0, 0, 0, 0),
                    call_text("destroy", slot),
                    call_text("destroy", handles[1]),
                    call_text("destroy", handles[0])};
                EXPECT_EQ(mkl.calls, expected);
                EXPECT_EQ(c, CsrArrays(m * n, m + 1)); // the export wrote nothing
            }
        }
    }
}

// What stage 2 asks for depends on the state of the output: only what a count leaves is a full product.
TEST(SparseContract, RequestOfAFinish) {
    const struct {
        Int stage, m, n, row_ptr, last_row_ptr, col_ind;
        int request;
    } cases[] = {{2, 3, 5, 1, 2, 0, 90},  {2, 1, 1, 1, 2, 0, 90},  {2, 3, 5, 1, 1, 0, 92},  {2, 3, 5, 1, 2, 1, 92},
                 {2, 3, 5, 1, 2, -1, 92}, {2, 3, 5, 0, 2, 0, 92},  {2, 3, 5, 2, 2, 0, 92},  {2, 0, 5, 1, 2, 0, 92},
                 {2, 3, 0, 1, 2, 0, 92},  {2, -3, 5, 1, 2, 0, 92}, {2, 3, -5, 1, 2, 0, 92}, {2, -3, -5, 1, 2, 0, 92},
                 {2, 3, 5, 1, 16, 0, 90}, {1, 3, 5, 1, 2, 0, 91}};
    for (const auto& t : cases) {
        for (const char* null : {"", "row_ptr", "col_ind"}) {
            SCOPED_TRACE(call_text("stage", t.stage, t.m, "x", t.n, "state", t.row_ptr, t.last_row_ptr, t.col_ind,
                                   "null", null));
            script_wraps(0, false);
            CsrArrays c(m * n, m + 1);
            c.row_ptr[size(std::max<Int>(t.m, 1))] = t.last_row_ptr;
            c.row_ptr[0] = t.row_ptr;
            c.col_ind[0] = t.col_ind;
            multiply(c, t.stage, t.m, t.n, null);
            const int request = t.stage == 2 && null[0] != '\0' ? 92 : t.request;
            EXPECT_EQ(mkl.calls.at(3), call_text("sp2m", 10, "20/40/50", fake_handle(0xa0), 11, "20/40/50",
                                                 fake_handle(0xb0), request, fake_handle(0xc0)));
        }
    }
}

TEST(SparseContract, CopyRunsOverMTimesNAndIsZeroBeyondTheStoredEntries) {
    const struct {
        Int m, n, rows; // the output's shape, and the exported rows
        Int stored;     // entries by the exported row pointer
        Int row_pointers, entries, written;
    } cases[] = {{3, 5, 3, 15, 4, 15, 15},       {3, 5, 3, 16, 4, 15, 15}, // more than the output has room for
                 {3, 5, 3, -2, 4, 0, 15},        {70, 70, 9, 4893, 10, 4893, 4900},
                 {2, 70, 5000, 7, 5001, 7, 140}, {3, 5, -1, 15, 0, 0, 0}, // no rows
                 {0, 5, 0, 0, 1, 0, 0},          {2 - two_to_32, 3, 3, 15, 4, 0, 0},
                 {-3, -5, 3, 15, 4, 15, 15},     {two_to_62 + 3, 4, 3, 15, 4, 12, 12}};
    for (const auto& t : cases) {
        // Arrays of exactly as many elements as are exported, for AddressSanitizer.
        std::vector<Int> rows_start(size(std::max<Int>(t.rows, 0) + 1));
        std::vector<Int> col_indx(size(std::max<Int>(t.stored, 0)));
        std::vector<double> values(col_indx.size());
        std::iota(rows_start.begin(), rows_start.end(), 3);
        rows_start.back() = rows_start.front() + t.stored;
        std::iota(col_indx.begin(), col_indx.end(), 1);
        std::iota(values.begin(), values.end(), 1.0);
        for (const std::string_view null :
             {"", "val", "col_ind", "row_ptr", "rows_start", "col_indx", "values", "own"}) {
            SCOPED_TRACE(call_text("m n rows stored", t.m, t.n, t.rows, t.stored, "null", null));
            const bool own = null == "own"; // nothing is null, and the exported columns are the caller's array
            const auto unless_null = [&](std::string_view name, Int count) { return own || null == name ? 0 : count; };
            script_wraps(0, false);
            mkl.result = {t.rows, null == "rows_start" ? nullptr : rows_start.data(),
                          null == "col_indx" ? nullptr : col_indx.data(), null == "values" ? nullptr : values.data()};
            CsrArrays c(t.written, t.row_pointers);
            mkl.result.col_indx = own ? c.col_ind.data() : mkl.result.col_indx;
            multiply(c, 0, t.m, t.n, null);
            const Int row_pointers = unless_null("rows_start", unless_null("row_ptr", t.row_pointers));
            const Int entries = unless_null("col_indx", unless_null("values", t.entries));
            const Int written = unless_null("rows_start", t.written);
            expect_copied(c.row_ptr, rows_start, row_pointers, row_pointers);
            expect_copied(c.col_ind, col_indx, unless_null("col_ind", std::min(entries, written)),
                          unless_null("col_ind", written));
            expect_copied(c.val, values, unless_null("val", std::min(entries, written)), unless_null("val", written));
        }
    }
}

TEST(SparseContract, OnlyTheCallersArraysAreKeptWhenMklFrees) {
    using Freed = std::vector<void*>;
    CsrArrays c(m * n, m + 1);
    double other = 0;
    const Freed everything{c.val.data(), c.col_ind.data(), c.row_ptr.data(), &other};
    const auto freed_now = [&] {
        mkl.freed.clear();
        std::for_each(everything.begin(), everything.end(), mkl_serv_free);
        return mkl.freed;
    };
    const auto expect_kept = [&] {
        EXPECT_EQ(freed_now(), Freed{&other});
        std::thread([&] { EXPECT_EQ(freed_now(), everything); }).join();
    };
    script_wraps(0, false);
    mkl.on_product = mkl.on_destroy = expect_kept;
    multiply(c, 2);
    EXPECT_EQ(mkl.calls.size(), 8U);
    EXPECT_EQ(freed_now(), everything) << "the call left state behind";
}

} // namespace
