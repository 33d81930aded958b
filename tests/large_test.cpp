// Products that 32 bits cannot count: more than 2^31 stored entries or elements of a result. The arrays take little
// memory: one block is mapped again and again over the addresses of an array, so that its elements repeat with a
// period. Slow, and left out of scripts/test.

#include "entries.h"

#include <algorithm>
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

// One entry in each row of A. The first columns of the result have memory of their own; the others share theirs.
TEST(Elements, MatrixProduct) {
    constexpr Int rows = Int{1} << 14;
    constexpr Int columns = (two_to_31 + 2 * period) / rows;
    constexpr Int k = 4;
    const Repeated<double> c(rows * columns);
    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr{1};
    for (Int i = 0; i < rows; ++i) {
        val.push_back(double(i % 8 + 1));
        col_ind.push_back(i % k + 1);
        row_ptr.push_back(i + 2);
    }
    std::vector<double> b;
    for (Int p = 0; p < k * columns; ++p) {
        b.push_back(double(p % (k * period / rows) % 11 + 1));
    }
    spgmatgmat_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), b.data(), rows, k, columns, c.data());
    for (const Int first : {Int{0}, rows * columns - period}) {
        for (Int p = first; p < first + period; ++p) {
            const Int i = p % rows;
            ASSERT_EQ(c[p], val[size(i)] * b[size(i % k + p / rows * k)]) << p;
        }
    }
}

} // namespace
