// Products that 32 bits cannot count: more than 2^31 stored entries or elements of a result. The arrays take little
// memory: one block is mapped again and again over the addresses of an array, so that its elements repeat with a
// period. Slow, and left out of scripts/test.

#include "entries.h"

#include <algorithm>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr Int period = Int{1} << 23; // elements of 8 bytes: 64 MB

// `count` elements, a multiple of the period. The first period has memory of its own, and the others share theirs.
template <class T>
class Repeated {
public:
    explicit Repeated(Int count) : bytes_(size(count) * sizeof(T)) {
        constexpr std::size_t block = period * sizeof(T);
        const int file = memfd_create("block", 0);
        EXPECT_EQ(ftruncate(file, block), 0);
        data_ = static_cast<T*>(mmap(nullptr, bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        EXPECT_EQ(mprotect(data_, block, PROT_READ | PROT_WRITE), 0);
        for (Int i = period; i < count; i += period) {
            EXPECT_NE(mmap(data_ + i, block, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0), MAP_FAILED);
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

// Full rows, which repeat with the period.
TEST(Entries, Products) {
    constexpr Int cols = 4096;
    constexpr Int rows_of_period = period / cols;
    constexpr Int periods = two_to_31 / period + 1;
    constexpr Int rows = periods * rows_of_period;
    constexpr Int n = 2;
    const Repeated<double> val(rows * cols);
    const Repeated<Int> col_ind(rows * cols);
    std::vector<Int> row_ptr;
    for (Int p = 0; p < period; ++p) {
        val[p] = val[period + p] = double(p * 7 / 3 % 5 + 1);
        col_ind[p] = col_ind[period + p] = p % cols + 1;
    }
    for (Int i = 0; i <= rows; ++i) {
        row_ptr.push_back(i * cols + 1);
    }
    std::vector<double> b;
    for (Int i = 0; i < cols * n; ++i) {
        b.push_back(double(i * 5 % 7 + 1));
    }
    std::vector<double> c(size(rows * n), -1.0);
    double* const x = b.data();
    double* const y = c.data();
    const auto expect = [&](Int columns, double times) {
        for (Int j = 0; j < columns; ++j) {
            std::vector<double> expected(rows_of_period);
            for (Int p = 0; p < period; ++p) {
                expected[size(p / cols)] += times * val[p] * x[p % cols + j * cols];
            }
            for (Int i = 0; i < rows; ++i) {
                ASSERT_EQ(y[i + j * rows], expected[size(i % rows_of_period)]) << i << ", " << j;
            }
        }
    };
    spgmatgvec_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), x, rows, cols, y);
    expect(1, 1);
    spgmatgvecsum_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), x, rows, cols, y);
    expect(1, 2);
    spgmatgmat_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), x, rows, cols, n, y);
    expect(n, 1);

    for (Int i = 0; i < rows; ++i) {
        y[i] = double(i % rows_of_period % 11 + 1);
    }
    std::vector<double> expected(cols);
    for (Int p = 0; p < period; ++p) {
        expected[size(p % cols)] += double(periods) * val[p] * y[p / cols];
    }
    spgmattrgmat_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), y, rows, cols, 1, x);
    EXPECT_EQ(std::vector<double>(x, x + cols), expected);
}

constexpr Int result_rows = Int{1} << 14;
constexpr Int result_columns = (two_to_31 + 2 * period) / result_rows;
constexpr Int columns_of_period = period / result_rows;

// One entry in each of the first rows and of the last ones: i % 8 + 1 in column i % 4.
struct OneEntryARow : CsrArrays {
    OneEntryARow(Int rows, Int at_each_end) {
        for (Int i = 0; i < rows; ++i) {
            row_ptr.push_back(Int(val.size()) + 1);
            if (i < at_each_end || i >= rows - at_each_end) {
                val.push_back(double(i % 8 + 1));
                col_ind.push_back(i % 4 + 1);
            }
        }
        row_ptr.push_back(Int(val.size()) + 1);
    }
};

// A result in memory of its own for its first columns; the others share theirs.
struct Elements : testing::Test {
    OneEntryARow a{result_rows, result_rows};
    OneEntryARow b{result_columns, columns_of_period};
    Repeated<double> c{result_rows * result_columns};

    // An element of A*B^T.
    static double product(Int i, Int j) {
        const bool stored = j < columns_of_period || j >= result_columns - columns_of_period;
        return stored && i % 4 == j % 4 ? double((i % 8 + 1) * (j % 8 + 1)) : 0.0;
    }

    template <class Expected>
    void expect_first_and_last_columns(Expected expected) {
        for (const Int first : {Int{0}, result_rows * result_columns - period}) {
            for (Int p = first; p < first + period; ++p) {
                ASSERT_EQ(c[p], expected(p % result_rows, p / result_rows)) << p;
            }
        }
    }
};

TEST_F(Elements, MatrixProduct) {
    std::vector<double> dense;
    for (Int p = 0; p < 4 * result_columns; ++p) {
        dense.push_back(double(p % (4 * columns_of_period) % 11 + 1));
    }
    spgmatgmat_mkl_G_int64(a.val.data(), a.col_ind.data(), a.row_ptr.data(), dense.data(), result_rows, 4,
                           result_columns, c.data());
    expect_first_and_last_columns([&](Int i, Int j) { return double(i % 8 + 1) * dense[size(i % 4 + j * 4)]; });
}

// MKL adds into C, so of the columns that share memory only the last ones have entries.
TEST_F(Elements, TransposedDense) {
    multiply_dense(result_rows, 4, result_columns, a, b, c.data());
    expect_first_and_last_columns(product);
}

// The entries stand in the first block, and zeros follow them.
TEST_F(Elements, TransposedCsr) {
    const Repeated<Int> col_ind(result_rows * result_columns);
    std::vector<Int> row_ptr(result_rows + 1);
    c[2 * period] = 1.0;
    col_ind[2 * period] = 1;
    multiply_csr(0, result_rows, 4, result_columns, a, b, {c.data(), col_ind.data(), row_ptr.data()});
    Int p = 0;
    for (Int i = 0; i < result_rows; ++i) {
        std::set<Int> columns;
        for (; p < row_ptr[size(i) + 1] - 1; ++p) {
            columns.insert(col_ind[p]);
            ASSERT_EQ(c[p], product(i, col_ind[p] - 1)) << i << ", " << col_ind[p];
        }
        ASSERT_EQ(Int(columns.size()), 2 * columns_of_period / 4);
    }
    for (; p < 2 * period; ++p) {
        ASSERT_TRUE(c[p] == 0.0 && col_ind[p] == 0) << p;
    }
}

} // namespace
