// The ten sparse-by-dense entries and the thread count, call by call, against a scripted MKL.

#include "scripted_mkl.h"

#include <algorithm>
#include <array>

namespace {

constexpr Int ldb = two_to_32 + 9;
constexpr Int ldc = two_to_32 + 8;

CsrArrays a(1, 2);
double b[1];
std::array<double, 32> c;

const sparse_matrix_t handle = fake_handle(0xa0);

void run(const DenseEntry& entry, ScriptedMkl::Wrap wrap, Int m, Int k, Int n = 2, Int* row_ptr = a.row_ptr.data()) {
    mkl.calls.clear();
    mkl.wraps = {wrap};
    c.fill(untouched);
    entry.call(a.val.data(), a.col_ind.data(), row_ptr, b, ldb, m, k, n, c.data(), ldc);
}

// The first count elements of the output are zero, and the rest are as they were.
void expect_cleared(Int count) {
    std::array<double, c.size()> expected{};
    std::fill(expected.begin() + count, expected.end(), untouched);
    EXPECT_EQ(c, expected);
}

TEST(DenseContract, WrappedOperandGoesIntoOneProduct) {
    constexpr Int m = two_to_32 + 3;
    constexpr Int k = two_to_32 + 4;
    for (const DenseEntry& e : dense_entries) {
        for (const Int n : {two_to_32 + 2, Int{1}, Int{0}, Int{-1}}) {
            SCOPED_TRACE(call_text(e.name, "columns", n));
            mkl.product_status = n < 1 ? SPARSE_STATUS_INVALID_VALUE : SPARSE_STATUS_SUCCESS;
            run(e, {SPARSE_STATUS_SUCCESS, handle}, m, k, n);
            const bool given = e.form == DenseEntry::long_form;
            const std::string product = e.form == DenseEntry::vector_form
                                            ? call_text("mv", e.operation, 1.0, handle, e.preset, +b, e.beta, c.data())
                                            : call_text("mm", e.operation, 1.0, handle, e.preset, 102, +b, n,
                                                        given ? ldb : k, e.beta, c.data(), given ? ldc : m);
            EXPECT_EQ(mkl.calls, (std::vector{create_text(m, k, a), product, call_text("destroy", handle)}));
            expect_cleared(0);
        }
    }
}

TEST(DenseContract, FailedWrapClearsTheOperandsShape) {
    for (const DenseEntry& e : dense_entries) {
        for (int status = SPARSE_STATUS_NOT_INITIALIZED; status <= SPARSE_STATUS_NOT_SUPPORTED; ++status) {
            for (const sparse_matrix_t left : {sparse_matrix_t{}, handle}) {
                SCOPED_TRACE(call_text(e.name, "status", status, "handle", left));
                run(e, {static_cast<sparse_status_t>(status), left}, 3, 4);
                EXPECT_EQ(mkl.calls, (std::vector{create_text(3, 4, a), call_text("destroy", left)}));
                expect_cleared(12);
            }
        }
    }
}

TEST(DenseContract, ClearedCountIsAProductModulo2To64) {
    const Int shapes[][3] = {{3, 3, 9},
                             {0, 5, 0},
                             {-2, 3, 0},
                             {-2, -3, 6},
                             {two_to_32, two_to_32, 0},
                             {two_to_62, 2, 0},
                             {two_to_62 + 2, 4, 8},
                             {2 - two_to_32, 3, 0}};
    for (const DenseEntry& e : dense_entries) {
        for (const auto& [m, k, count] : shapes) {
            SCOPED_TRACE(call_text(e.name, m, "x", k));
            run(e, {SPARSE_STATUS_INVALID_VALUE, nullptr}, m, k);
            expect_cleared(count);
        }
    }
}

TEST(DenseContract, NullRowPointer) {
    for (const DenseEntry& e : dense_entries) {
        run(e, {SPARSE_STATUS_NOT_INITIALIZED, nullptr}, 3, 4, 2, nullptr);
        EXPECT_EQ(mkl.calls.front(), call_text("create", 0, 1, 3, 4, 0, "0x8", a.col_ind.data(), a.val.data()));
        expect_cleared(12);
    }
}

TEST(RuntimeContract, ThreadCountIsPassedUnchanged) {
    mkl.calls.clear();
    for (const int count : {1, 0, -3, 2147483647}) {
        qz_mkl_set_num_threads_int64(count);
    }
    EXPECT_EQ(mkl.calls, (std::vector<std::string>{"threads 1", "threads 0", "threads -3", "threads 2147483647"}));
}

} // namespace
