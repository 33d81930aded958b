// The two sparse-by-sparse entries, call by call, against a scripted MKL.

#include "csr_products.h"
#include "scripted_mkl.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
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

const sparse_matrix_t a_handle = fake_handle(0xa0);
const sparse_matrix_t b_handle = fake_handle(0xb0);
const sparse_matrix_t c_handle = fake_handle(0xc0);
const sparse_matrix_t new_handle = fake_handle(0xd0);

struct Output {
    explicit Output(Int elements)
        : val(static_cast<std::size_t>(elements + guard), untouched),
          col_ind(static_cast<std::size_t>(elements + guard), untouched), row_ptr(m + 1 + guard, untouched) {}
    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr;
};

std::string create(Int rows, Int cols, const Int* row_ptr, const Int* col_ind, const double* val) {
    return fmt::format("create 0x0 base 1 {}x{} {} {} {} {}", rows, cols, fmt::ptr(row_ptr), fmt::ptr(row_ptr + 1),
                       fmt::ptr(col_ind), fmt::ptr(val));
}

std::string destroy(sparse_matrix_t handle) {
    return fmt::format("destroy {}", fmt::ptr(handle));
}

// Memory of `count` elements 1, 2, 3 ... that ends where nothing can be read.
template <class T>
class EndingArray {
public:
    explicit EndingArray(Int count) : bytes_(static_cast<std::size_t>((count * 8 + page - 1) / page * page)) {
        mapping_ = static_cast<char*>(
            mmap(nullptr, bytes_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_EQ(mprotect(mapping_ + bytes_, page, PROT_NONE), 0);
        data_ = reinterpret_cast<T*>(mapping_ + bytes_) - count;
        std::iota(data_, data_ + count, T{1});
    }
    ~EndingArray() { munmap(mapping_, bytes_ + page); }
    EndingArray(const EndingArray&) = delete;
    EndingArray& operator=(const EndingArray&) = delete;

    T* data() const { return data_; }

private:
    static constexpr Int page = 4096;
    std::size_t bytes_;
    char* mapping_;
    T* data_;
};

class SparseContract : public testing::Test {
protected:
    void SetUp() override {
        mkl = {};
        mkl.wraps = {
            {SPARSE_STATUS_SUCCESS, a_handle}, {SPARSE_STATUS_SUCCESS, b_handle}, {SPARSE_STATUS_SUCCESS, c_handle}};
    }

    static void call(Output& c, Int stage = 0, Int rows = m, Int columns = n) {
        Int ignored_result = untouched;
        spgmatspgmattr_mkl_int64_new(stage, rows, k, columns, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr,
                                     -1, c.val.data(), c.col_ind.data(), c.row_ptr.data(), ignored_result);
        EXPECT_EQ(ignored_result, untouched);
    }
};

// The output holds 1, 2, 3 ... in its first elements, and what it held before from there on.
template <class T>
void expect_counted(const std::vector<T>& output, Int count) {
    std::vector<T> expected(output.size(), untouched);
    std::iota(expected.begin(), expected.begin() + count, T{1});
    EXPECT_EQ(output, expected);
}

TEST_F(SparseContract, DenseResult) {
    for (int failing = 0; failing < 4; ++failing) {
        for (const bool null : {false, true}) {
            SCOPED_TRACE(fmt::format("failing wraps {:02b}, null {}", failing, null));
            SetUp();
            sparse_matrix_t held[] = {a_handle, b_handle};
            for (std::size_t i = 0; i < 2; ++i) {
                if ((failing >> i & 1) != 0) {
                    held[i] = null ? nullptr : held[i];
                    mkl.wraps[i] = {SPARSE_STATUS_ALLOC_FAILED, held[i]};
                    mkl.product_status = SPARSE_STATUS_NOT_INITIALIZED;
                }
            }
            std::vector<double> c(m * n + guard, untouched);
            spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr,
                                              c.data());
            const std::vector<std::string> expected{
                create(m, k, a_row_ptr, a_col_ind, a_val), create(n, k, b_row_ptr, b_col_ind, b_val),
                fmt::format("sp2md 10 20/40/50 {} 11 20/40/50 {} alpha 1 beta 0 {} layout 102 ld 3", fmt::ptr(held[0]),
                            fmt::ptr(held[1]), fmt::ptr(c.data())),
                destroy(held[1]), destroy(held[0])};
            EXPECT_EQ(mkl.calls, expected);
            expect_counted(c, 0);
        }
    }
}

TEST_F(SparseContract, CsrResultCallByCall) {
    for (int failing = 0; failing < 8; ++failing) {
        for (const sparse_matrix_t result : {sparse_matrix_t{}, new_handle}) {
            SCOPED_TRACE(fmt::format("failing wraps {:03b}, result {}", failing, fmt::ptr(result)));
            SetUp();
            sparse_matrix_t held[] = {a_handle, b_handle, c_handle};
            for (std::size_t i = 0; i < 3; ++i) {
                if ((failing >> i & 1) != 0) {
                    held[i] = nullptr;
                    mkl.wraps[i] = {SPARSE_STATUS_INVALID_VALUE, nullptr};
                }
            }
            mkl.product_handle = result;
            mkl.product_status = result == nullptr ? SPARSE_STATUS_INTERNAL_ERROR : SPARSE_STATUS_SUCCESS;
            const sparse_matrix_t slot = result == nullptr ? held[2] : result;
            Output c(m * n);
            call(c);
            const std::vector<std::string> expected{create(m, k, a_row_ptr, a_col_ind, a_val),
                                                    create(n, k, b_row_ptr, b_col_ind, b_val),
                                                    create(m, n, c.row_ptr.data(), c.col_ind.data(), c.val.data()),
                                                    fmt::format("sp2m 10 20/40/50 {} 11 20/40/50 {} request 90 {}",
                                                                fmt::ptr(held[0]), fmt::ptr(held[1]),
                                                                fmt::ptr(held[2])),
                                                    fmt::format("export {} base 1 3x5 0x0 0x0 0x0 0x0", fmt::ptr(slot)),
                                                    destroy(slot),
                                                    destroy(held[1]),
                                                    destroy(held[0])};
            EXPECT_EQ(mkl.calls, expected);
            expect_counted(c.row_ptr, 0); // the export wrote nothing, and nothing was copied
            expect_counted(c.col_ind, 0);
            expect_counted(c.val, 0);
        }
    }
}

TEST_F(SparseContract, StageIsComparedOverAll64Bits) {
    constexpr Int two_to_32 = Int{1} << 32;
    const std::pair<Int, int> stages[] = {{0, 90},
                                          {1, 91},
                                          {2, 92},
                                          {3, 90},
                                          {7, 90},
                                          {-1, 90},
                                          {-2, 90},
                                          {two_to_32 + 1, 90},
                                          {two_to_32 + 2, 90},
                                          {INT64_MIN + 1, 90},
                                          {INT64_MAX, 90}};
    for (const auto& [stage, request] : stages) {
        SetUp();
        Output c(m * n);
        call(c, stage);
        EXPECT_NE(mkl.calls[3].find(fmt::format("request {} ", request)), std::string::npos) << stage;
    }
}

TEST_F(SparseContract, RowPointerCopyFollowsTheExportedRows) {
    const struct {
        Int exported_rows, readable, copied;
    } cases[] = {{m, m + 1, m + 1}, {m + 4, m + 5, m + 5}, {0, 1, 1}, {-1, 0, 0}, {-5, 0, 0}, {m, 2, 2},
                 {m, 0, 0},         {INT64_MAX, 4, 0}}; // rows + 1 wraps
    for (const auto& [exported_rows, readable, copied] : cases) {
        SCOPED_TRACE(fmt::format("{} rows, {} readable", exported_rows, readable));
        SetUp();
        const EndingArray<Int> rows_start(readable);
        mkl.result = {exported_rows, rows_start.data()};
        Output c(m * n);
        call(c);
        expect_counted(c.row_ptr, copied);
    }
}

// Where a source ends differs from one array to the other; null is neither readable nor at a page.
TEST_F(SparseContract, EntryCopyRunsOverMTimesNAndEndsWhereNothingCanBeRead) {
    constexpr Int null = -1;
    const struct {
        Int rows, columns, col_indx, values, copied;
    } cases[] = {{3, 5, 15, 15, 15},
                 {3, 5, 99, 99, 15},
                 {1, 1, 1, 1, 1},
                 {2, 1, 2, 2, 2},
                 {1, 3, 3, 3, 3},
                 {2, 2, 4, 4, 4},
                 {3, 5, 6, 6, 6},
                 {3, 5, 4, 9, 4},
                 {3, 5, 9, 4, 4},
                 {3, 5, 0, 15, 0},
                 {3, 5, null, 15, 0},
                 {3, 5, 15, null, 0},
                 {3, 5, null, null, 0},
                 {70, 70, 4900, 4900, 4900},
                 {70, 70, 4895, 4899, 4895},
                 {0, 5, 15, 15, 0},
                 {5, 0, 15, 15, 0},
                 {-3, 5, 15, 15, 0},
                 {-3, -5, 15, 15, 15},
                 {Int{1} << 62, 4, 15, 15, 0},
                 {Int{1} << 40, 1, 15, 15, 15},
                 {(Int{1} << 62) + 3, 4, 15, 15, 12}};
    const Int rows_start[] = {1};
    for (const auto& t : cases) {
        SCOPED_TRACE(fmt::format("{} x {}, readable {} and {}", t.rows, t.columns, t.col_indx, t.values));
        SetUp();
        const EndingArray<Int> col_indx(std::max<Int>(t.col_indx, 0));
        const EndingArray<double> values(std::max<Int>(t.values, 0));
        mkl.result = {0, rows_start, t.col_indx == null ? nullptr : col_indx.data(),
                      t.values == null ? nullptr : values.data()};
        Output c(std::max<Int>(t.copied, 1));
        call(c, 0, t.rows, t.columns);
        expect_counted(c.col_ind, t.copied);
        expect_counted(c.val, t.copied);
    }
}

TEST_F(SparseContract, FullResultIsCopiedWithoutAskingTheKernelForItsEntries) {
    const Int rows_start[] = {1, 6, 11, 16};
    const EndingArray<Int> col_indx(m * n);
    const EndingArray<double> values(m * n);
    const struct {
        const void* col_indx;
        int reads;
        Int copied;
    } cases[] = {{col_indx.data(), 1, m * n}, {nullptr, 2, 0}}; // after a count request the entries are null
    for (const auto& t : cases) {
        SetUp();
        mkl.result = {m, rows_start, t.col_indx, values.data()};
        Output c(m * n);
        call(c);
        EXPECT_EQ(mkl.kernel_reads, t.reads);
        expect_counted(c.val, t.copied);
    }
}

TEST_F(SparseContract, SandboxThatRefusesTheKernelReadGetsThePlainCopy) {
    mkl.kernel_refuses = true;
    const std::vector<Int> sources{1, 2, 3, 4};
    const std::vector<Int> col_indx = [] {
        std::vector<Int> v(m * n);
        std::iota(v.begin(), v.end(), 1);
        return v;
    }();
    const std::vector<double> values(col_indx.begin(), col_indx.end());
    mkl.result = {m, sources.data(), col_indx.data(), values.data()}; // three stored entries of fifteen
    Output c(m * n);
    call(c);
    expect_counted(c.row_ptr, m + 1);
    expect_counted(c.col_ind, m * n);
    expect_counted(c.val, m * n);
}

TEST_F(SparseContract, OnlyTheCallersArraysArePassedOverWhenMklFrees) {
    Output c(m * n);
    double other = 0;
    void* const arrays[] = {c.val.data(), c.col_ind.data(), c.row_ptr.data(), &other};
    const auto free_all = [&] { std::for_each(std::begin(arrays), std::end(arrays), mkl_serv_free); };
    using Freed = std::vector<const void*>;
    const Freed everything(std::begin(arrays), std::end(arrays));

    Freed on_other_thread;
    mkl.on_destroy = [&](sparse_matrix_t) {
        free_all();
        const Freed on_this_thread = std::exchange(mkl.freed, {});
        std::thread(free_all).join();
        on_other_thread = std::exchange(mkl.freed, on_this_thread);
    };
    call(c, 2);
    EXPECT_EQ(mkl.freed, Freed(3, &other)); // one for each handle
    EXPECT_EQ(on_other_thread, everything);

    mkl.freed.clear();
    free_all();
    EXPECT_EQ(mkl.freed, everything) << "the call left state behind";
}

} // namespace
