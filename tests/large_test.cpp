// Products that 32 bits cannot count: more than 2^31 stored entries, elements of a result, or elements that a failed
// wrap clears, and leading dimensions beyond 2^32. The arrays take little memory: one block is mapped again and again
// over the addresses of an array, so that its elements repeat with a period. Slow, and left out of scripts/test.

#include "csr_products.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using Int = std::int64_t;

constexpr Int period = Int{1} << 23; // elements of 8 bytes: 64 MB
constexpr Int two_to_31 = Int{1} << 31;
constexpr Int two_to_32 = Int{1} << 32;

std::size_t size(Int count) {
    return static_cast<std::size_t>(count);
}

// `count` elements, a multiple of the period. The first block of an output has memory of its own.
template <class T>
class Repeated {
public:
    enum Kind { operand, output };

    explicit Repeated(Int count, Kind kind = operand) : bytes_(size(count) * sizeof(T)) {
        constexpr std::size_t block = period * sizeof(T);
        const int file = memfd_create("block", 0);
        EXPECT_EQ(ftruncate(file, block), 0);
        data_ = static_cast<T*>(mmap(nullptr, bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        for (Int i = 0; i < count; i += period) {
            const int sharing = kind == output && i == 0 ? MAP_PRIVATE : MAP_SHARED;
            EXPECT_NE(mmap(data_ + i, block, PROT_READ | PROT_WRITE, sharing | MAP_FIXED, file, 0), MAP_FAILED);
        }
        close(file);
    }
    ~Repeated() { munmap(data_, bytes_); }

    T* data() const { return data_; }
    T& operator[](Int i) const { return data_[i]; }

private:
    std::size_t bytes_;
    T* data_;
};

// A matrix of full rows, 4096 entries each, that repeat with the period.
struct ManyEntries {
    const Int cols = 4096;
    const Int rows_of_period = period / cols;
    const Int rows = (two_to_31 + period) / cols;

    Repeated<double> val{rows * cols};
    Repeated<Int> col_ind{rows * cols};
    std::vector<Int> row_ptr = std::vector<Int>(size(rows + 1));

    ManyEntries() {
        for (Int p = 0; p < period; ++p) {
            val[p] = static_cast<double>(p * 7 / 3 % 5 + 1);
            col_ind[p] = p % cols + 1;
        }
        std::generate(row_ptr.begin(), row_ptr.end(), [this, next = 1 - cols]() mutable { return next += cols; });
    }

    // A*x for the rows of one period.
    std::vector<double> times(const double* x) const {
        std::vector<double> y(size(rows_of_period));
        for (Int p = 0; p < period; ++p) {
            y[size(p / cols)] += val[p] * x[p % cols];
        }
        return y;
    }
};

std::vector<double> small_integers(Int count) {
    std::vector<double> values(size(count));
    std::generate(values.begin(), values.end(), [i = 0]() mutable { return double(i++ * 5 % 7 + 1); });
    return values;
}

TEST(Entries, Products) {
    ManyEntries a;
    const auto multiply = [&](auto entry, auto&... arguments) {
        entry(a.val.data(), a.col_ind.data(), a.row_ptr.data(), arguments...);
    };
    constexpr Int n = 2;
    std::vector<double> b = small_integers(a.cols * n);
    std::vector<double> c(size(a.rows * n), -1.0);
    double* const x = b.data();
    double* const y = c.data();
    const auto expect = [&](Int columns, double times) {
        for (Int j = 0; j < columns; ++j) {
            const std::vector<double> expected = a.times(x + j * a.cols);
            for (Int i = 0; i < a.rows; ++i) {
                ASSERT_EQ(y[i + j * a.rows], times * expected[size(i % a.rows_of_period)]) << i << ", " << j;
            }
        }
    };
    multiply(spgmatgvec_mkl_G_int64, x, a.rows, a.cols, y);
    expect(1, 1);
    multiply(spgmatgvecsum_mkl_G_int64, x, a.rows, a.cols, y);
    expect(1, 2);
    multiply(static_cast<decltype(&spgmattrgmat_mkl_G_int64)>(spgmatgmat_mkl_G_int64), x, a.rows, a.cols, n, y);
    expect(n, 1);

    std::vector<double> rows = small_integers(a.rows);
    std::vector<double> sums(size(a.rows_of_period)); // over the equal rows of A
    for (Int i = 0; i < a.rows; ++i) {
        sums[size(i % a.rows_of_period)] += rows[size(i)];
    }
    std::vector<double> expected(size(a.cols));
    for (Int p = 0; p < period; ++p) {
        expected[size(p % a.cols)] += a.val[p] * sums[size(p / a.cols)];
    }
    double* const z = rows.data();
    constexpr Int one = 1;
    multiply(spgmattrgmat_mkl_G_int64, z, a.rows, a.cols, one, x);
    EXPECT_EQ(std::vector<double>(x, x + a.cols), expected);
}

TEST(LeadingDimensions, BeyondTwoTo32) {
    constexpr Int ld = two_to_32 + period;
    std::vector<double> val{2, 3, 5};
    std::vector<Int> col_ind{1, 2, 2};
    std::vector<Int> row_ptr{1, 3, 4};
    const Repeated<double> b(2 * ld);
    const Repeated<double> c(2 * ld, Repeated<double>::output);
    b[0] = 1;
    b[1] = 2;
    for (const bool symmetric : {false, true}) {
        (symmetric ? static_cast<decltype(&spgmatgmatsum_mkl_G_int64)>(spgmatgmat_mkl_S_int64)
                   : spgmatgmatsum_mkl_G_int64)(val.data(), col_ind.data(), row_ptr.data(), b.data(), ld, 2, 2, 2,
                                                c.data(), ld);
        for (const Int column : {Int{0}, ld}) {
            EXPECT_EQ(c[column], 8) << symmetric;
            EXPECT_EQ(c[column + 1], symmetric ? 13 : 10) << symmetric;
            EXPECT_EQ(c[column + 2], 0) << symmetric;
        }
    }
}

// One entry in each of the first and the last rows, i % 8 + 1 in column i % 4, and none in the others.
struct OneEntryARow {
    const Int cols = 4;
    Int rows, first, last;
    std::vector<double> val;
    std::vector<Int> col_ind, row_ptr{1};

    OneEntryARow(Int rows_, Int first_, Int last_ = 0) : rows(rows_), first(first_), last(last_) {
        for (Int i = 0; i < rows; ++i) {
            if (is_stored(i)) {
                val.push_back(double(i % 8 + 1));
                col_ind.push_back(i % cols + 1);
            }
            row_ptr.push_back(Int(val.size()) + 1);
        }
    }
    bool is_stored(Int i) const { return i < first || i >= rows - last; }
    double element(Int i, Int j) const { return is_stored(i) && j == i % cols ? double(i % 8 + 1) : 0.0; }
};

constexpr Int result_rows = Int{1} << 14;
constexpr Int result_columns = (two_to_31 + 2 * period) / result_rows;
constexpr Int columns_of_period = period / result_rows;

TEST(Elements, MatrixProduct) {
    OneEntryARow a(result_rows, result_rows);
    std::vector<double> b(size(a.cols * result_columns));
    for (Int p = 0; p < a.cols * result_columns; ++p) {
        b[size(p)] = double(p % (a.cols * columns_of_period) % 11 + 1);
    }
    const Repeated<double> c(result_rows * result_columns, Repeated<double>::output);
    spgmatgmat_mkl_G_int64(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), a.rows, a.cols, result_columns,
                           c.data());
    for (Int p = 0; p < 2 * period; ++p) { // the block of its own, and the shared one
        const Int i = p % result_rows;
        ASSERT_EQ(c[p], a.val[size(i)] * b[size(i % a.cols + p / result_rows * a.cols)]) << p;
    }
}

// MKL adds into C, so of the columns that share memory only the last ones have entries.
TEST(Elements, TransposedDense) {
    OneEntryARow a(result_rows, result_rows);
    OneEntryARow b(result_columns, columns_of_period, columns_of_period);
    const Repeated<double> c(result_rows * result_columns, Repeated<double>::output);
    spgmatspgmattr_gmat_mkl_int64_new(a.rows, a.cols, b.rows, a.val.data(), a.col_ind.data(), a.row_ptr.data(),
                                      b.val.data(), b.col_ind.data(), b.row_ptr.data(), c.data());
    for (const Int first : {Int{0}, result_columns - columns_of_period}) {
        for (Int p = first * result_rows; p < first * result_rows + period; ++p) {
            const Int i = p % result_rows;
            const Int j = p / result_rows;
            ASSERT_EQ(c[p], a.val[size(i)] * b.element(j, i % a.cols)) << i << ", " << j;
        }
    }
}

// Few entries: they stand in the first block, and zeros follow them.
TEST(Elements, TransposedCsr) {
    constexpr Int stored = 1000;
    OneEntryARow a(result_rows, stored);
    OneEntryARow b(result_columns, stored);
    const Repeated<double> val(result_rows * result_columns, Repeated<double>::output);
    const Repeated<Int> col_ind(result_rows * result_columns, Repeated<Int>::output);
    val[2 * period] = 1.0;
    col_ind[2 * period] = 1;
    std::vector<Int> row_ptr(size(result_rows + 1));
    Int ignored = 0;
    spgmatspgmattr_mkl_int64_new(0, a.rows, a.cols, b.rows, a.val.data(), a.col_ind.data(), a.row_ptr.data(),
                                 b.val.data(), b.col_ind.data(), b.row_ptr.data(), 0, val.data(), col_ind.data(),
                                 row_ptr.data(), ignored);
    Int p = 0;
    for (Int i = 0; i < stored; ++i) {
        std::vector<double> row(size(stored));
        for (; p < row_ptr[size(i) + 1] - 1; ++p) {
            row.at(size(col_ind[p] - 1)) += val[p];
        }
        for (Int j = 0; j < stored; ++j) {
            ASSERT_EQ(row[size(j)], a.val[size(i)] * b.element(j, i % a.cols)) << i << ", " << j;
        }
    }
    EXPECT_EQ(p, stored * stored / a.cols);
    EXPECT_EQ(row_ptr.back(), p + 1);
    for (; p < 2 * period; ++p) {
        ASSERT_TRUE(val[p] == 0.0 && col_ind[p] == 0) << p;
    }
}

TEST(Cleared, FailedWrap) {
    constexpr Int rows = period / 2;
    constexpr Int cols = two_to_32 / rows + 1; // modulo 2^32, half of the first block
    const Repeated<double> c(rows * (cols + 1), Repeated<double>::output);
    std::vector<double> operand(1);
    std::fill_n(c.data(), 2 * period, 1.0);
    spgmatgvec_mkl_G_int64(operand.data(), nullptr, nullptr, operand.data(), rows, cols, c.data());
    EXPECT_EQ(std::count(c.data(), c.data() + 2 * period, 0.0), 2 * period);
}

} // namespace
