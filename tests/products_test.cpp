// The built library on the real MKL against plain loops. All values are small integers, so that
// every sum is exact in any order and results are compared to the bit.

#include "entries.h"

#include <algorithm>
#include <cfenv>
#include <cmath>
#include <filesystem>
#include <future>
#include <limits>
#include <pthread.h>
#include <random>
#include <sys/mman.h>

namespace {

using Dense = std::vector<double>; // column-major

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// A copy in memory that cannot be written, for the operands, which the library only reads.
template <class T>
class ReadOnly {
public:
    explicit ReadOnly(const std::vector<T>& source) : bytes_(source.size() * sizeof(T)) {
        if (!source.empty()) { // else null, as the data() of an empty vector
            data_ = static_cast<T*>(mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            std::copy(source.begin(), source.end(), data_);
            mprotect(data_, bytes_, PROT_READ);
        }
    }
    ~ReadOnly() { munmap(data_, bytes_); }
    ReadOnly(const ReadOnly&) = delete;
    operator T*() const { return data_; }

private:
    std::size_t bytes_;
    T* data_ = nullptr;
};

double small_integer(std::mt19937& random) {
    return std::uniform_int_distribution<int>(1, 9)(random);
}

struct Csr : CsrArrays {
    Int rows, cols;

    // The columns of each row ascend if the seed is even, and descend if it is odd.
    Csr(Int rows_, Int cols_, double density, unsigned seed) : rows(rows_), cols(cols_) {
        std::mt19937 random(seed);
        std::bernoulli_distribution stored(density);
        row_ptr.push_back(1);
        for (Int i = 0; i < rows; ++i) {
            for (Int j = 0; j < cols && i % 7 != 3; ++j) { // every seventh row is empty
                if (stored(random)) {
                    col_ind.push_back(seed % 2 == 0 ? j + 1 : cols - j);
                    val.push_back(small_integer(random));
                }
            }
            row_ptr.push_back(Int(val.size()) + 1);
        }
        val.push_back(nan); // arrays without an entry are not null
        col_ind.push_back(untouched);
    }

    template <class Visit>
    void each(Visit visit) const {
        for (Int i = 0; i < rows; ++i) {
            for (Int p = row_ptr[size(i)]; p < row_ptr[size(i) + 1]; ++p) {
                visit(i, col_ind.at(size(p - 1)) - 1, val.at(size(p - 1)));
            }
        }
    }
};

// NaN stands wherever a product must not look: in the output that is overwritten, below the diagonal of a
// symmetric operand, in rows of B that meet no entry of A, and between the columns of B.
void expect_dense_products(const Csr& a, Int n) {
    const Int m = a.rows;
    const Int k = a.cols;
    std::mt19937 random(1);
    for (const DenseEntry& e : dense_entries) {
        const bool symmetric = e.preset[1] == '1';
        const bool transposed = e.operation == 11;
        if (m != k && (symmetric || (transposed && n > 1))) {
            continue; // no product that the entry offers
        }
        SCOPED_TRACE(testing::Message() << e.name << ": " << m << " x " << k << ", " << a.val.size()
                                        << " entries, columns " << n);
        Csr stored = a;
        std::vector<std::tuple<Int, Int, double>> terms; // to a row of C, from a row of B, times a value
        std::size_t position = 0;
        a.each([&](Int row, Int col, double value) {
            if (symmetric ? row <= col : !transposed) {
                terms.emplace_back(row, col, value);
            }
            if (symmetric ? row < col : transposed) {
                terms.emplace_back(col, row, value);
            }
            if (symmetric && row > col) {
                stored.val[position] = nan;
            }
            ++position;
        });
        const Int columns = e.form == DenseEntry::vector_form ? 1 : n;
        const Int ldb = e.form == DenseEntry::long_form ? k + 3 : k;
        const Int ldc = e.form == DenseEntry::long_form ? m + 5 : m;
        Dense b(size(std::max(ldb, m) * columns), nan);
        Dense c(size(std::max(ldc, k) * columns + guard), untouched);
        Dense expected = c;
        for (Int j = 0; j < columns; ++j) {
            for (Int i = 0; i < (transposed ? k : m); ++i) {
                c[size(i + j * ldc)] = e.beta == 0.0 ? nan : 3.0;
                expected[size(i + j * ldc)] = 3.0 * e.beta;
            }
            for (const auto& [to, from, value] : terms) {
                double& factor = b[size(from + j * ldb)];
                factor = std::isnan(factor) ? small_integer(random) : factor;
                expected[size(to + j * ldc)] += value * factor;
            }
        }
        e.call(ReadOnly(stored.val), ReadOnly(stored.col_ind), ReadOnly(stored.row_ptr), ReadOnly(b), ldb, m, k,
               columns, c.data(), ldc);
        EXPECT_EQ(c, expected);
    }
}

TEST(DenseProducts, AgreeWithPlainLoops) {
    feenableexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW);
    fenv_t with_traps; // disabled from here on: MKL computes 0/0 where a matrix has fewer rows than there are threads
    feholdexcept(&with_traps);
    for (const auto& [m, k] : {std::pair<Int, Int>{1, 1}, {4, 4}, {50, 50}, {300, 40}, {40, 300}}) {
        for (const double density : {0.0, 0.02, 0.3, 1.0}) {
            for (const Int n : {1, 2, 9, 17, 33}) {
                expect_dense_products(Csr(m, k, density, 1), n);
                expect_dense_products(Csr(m, k, density, 2), n);
            }
        }
    }
}

// MKL refuses an operand without rows or column numbers. It wraps one without values: with no entry either, the
// vector entries then compute, and the matrix entries leave C.
TEST(DenseProducts, OperandsThatMklRefuses) {
    Csr a(4, 4, 0.0, 1);
    Dense b(16, 1.0);
    for (const DenseEntry& e : dense_entries) {
        const bool computes = e.form == DenseEntry::vector_form;
        for (const auto& [val, col_ind, m, written, value] :
             {std::tuple{a.val.data(), a.col_ind.data(), 0, 0, 0.0},
              {a.val.data(), nullptr, 4, 16, 0.0},
              {nullptr, a.col_ind.data(), 4, computes ? 4 : 0, e.beta * untouched}}) {
            Dense c(16 + guard, untouched);
            Dense expected = c;
            std::fill_n(expected.begin(), written, value);
            e.call(val, col_ind, a.row_ptr.data(), b.data(), 4, m, 4, 2, c.data(), 4);
            EXPECT_EQ(c, expected) << e.name << ", rows " << m;
        }
    }
}

// Threads that MKL started stay in the process, so their number is the greatest it was ever given.
TEST(ThreadCount, OneZeroNegativeTwo) {
    for (const auto& [count, expected] : {std::pair{1, 1}, {0, 1}, {-3, 1}, {2, 2}, {1, 2}}) {
        qz_mkl_set_num_threads_int64(count);
        expect_dense_products(Csr(500, 500, 0.3, 1), 9);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}), expected) << count;
    }
}

Dense transposed_product(const Csr& a, const Csr& b) {
    std::vector<std::vector<std::pair<Int, double>>> b_columns(size(b.cols));
    b.each([&](Int row, Int col, double value) { b_columns[size(col)].emplace_back(row, value); });
    Dense c(size(a.rows * b.rows));
    a.each([&](Int row, Int col, double value) {
        for (const auto& [j, other] : b_columns[size(col)]) {
            c[size(row + j * a.rows)] += value * other;
        }
    });
    return c;
}

// The output of the CSR product, with room for m*n entries and a guard behind each array.
struct CsrOutput : Csr {
    CsrOutput(Int m, Int n) : Csr(m, n, 0.0, 0) { CsrArrays::operator=(CsrArrays(m * n, m + 1)); }

    void multiply(Int stage, Int m, Int n, const Csr& a, const Csr& b) {
        multiply_csr(stage, m, a.cols, n, {ReadOnly(a.val), ReadOnly(a.col_ind), ReadOnly(a.row_ptr)},
                     {ReadOnly(b.val), ReadOnly(b.col_ind), ReadOnly(b.row_ptr)}, *this);
    }

    // Every element: the product's entries, each once, then the tail, then the guard.
    void expect_product(const Dense& expected, int tail = 0) const {
        Dense c(expected.size());
        each([&](Int row, Int col, double value) {
            EXPECT_EQ(c.at(size(row + col * rows)), 0.0) << "an entry stands twice, or is zero";
            c.at(size(row + col * rows)) = value;
        });
        EXPECT_TRUE(c == expected);
        EXPECT_EQ(stored(), std::count_if(expected.begin(), expected.end(), [](double x) { return x != 0.0; }));
        expect_from(stored(), tail);
    }

    Int stored() const { return row_ptr[size(rows)] - 1; }

    void expect_from(Int first, int tail) const {
        Dense expected(size(rows * cols - first), tail);
        expected.insert(expected.end(), guard, untouched);
        EXPECT_TRUE(std::equal(val.begin() + first, val.end(), expected.begin(), expected.end()));
        EXPECT_TRUE(std::equal(col_ind.begin() + first, col_ind.end(), expected.begin(), expected.end()));
        EXPECT_EQ(std::vector<Int>(row_ptr.end() - guard, row_ptr.end()), std::vector<Int>(guard, untouched));
    }
};

// A count of threads <= 0 leaves it as it is.
void expect_transposed_products(Int m, Int k, Int n, double a_density, double b_density, unsigned seed = 1,
                                int threads_of_refresh = 0) {
    SCOPED_TRACE(testing::Message() << m << " x " << k << " x " << n << ", " << a_density << " and " << b_density);
    Csr a(m, k, a_density, seed);
    Csr b(n, k, b_density, seed + 1);
    Dense expected = transposed_product(a, b);

    CsrOutput c(m, n);
    c.multiply(7, m, n, a, b);
    c.expect_product(expected);

    CsrOutput staged(m, n);
    staged.multiply(1, m, n, a, b);
    EXPECT_EQ(staged.row_ptr, c.row_ptr);
    staged.expect_from(0, 0);
    staged.multiply(2, m, n, a, b);
    staged.expect_product(expected);

    Dense dense(size(m * n + guard), nan);
    std::fill(dense.end() - guard, dense.end(), untouched);
    multiply_dense(m, k, n, a, b, dense.data());
    expected.insert(expected.end(), guard, untouched);
    EXPECT_TRUE(dense == expected);

    std::for_each(a.val.begin(), a.val.end(), [](double& value) { value += 10; });
    expected = transposed_product(a, b);
    qz_mkl_set_num_threads_int64(threads_of_refresh);
    CsrOutput compressed = c; // the stored entries alone, in arrays that hold no more
    compressed.val = Dense(c.val.begin(), c.val.begin() + c.stored());
    compressed.col_ind = std::vector<Int>(c.col_ind.begin(), c.col_ind.begin() + c.stored());
    compressed.multiply(2, m, n, a, b);
    for (CsrOutput* output : {&c, &staged}) {
        std::fill(output->val.begin() + c.stored(), output->val.end() - guard, 5); // a refresh leaves the tail alone
        std::fill(output->col_ind.begin() + c.stored(), output->col_ind.end() - guard, 5);
        output->multiply(2, m, n, a, b);
        output->expect_product(expected, 5);
        EXPECT_TRUE(std::equal(compressed.val.begin(), compressed.val.end(), output->val.begin()));
        output->multiply(0, m, n, a, b);
        output->expect_product(expected);
    }
}

// Small enough for memcheck. Each refresh runs on another number of threads than the product.
TEST(TransposedProducts, SmallOnesAgreeWithPlainLoops) {
    int threads = 1;
    for (const auto& [m, k, n, a_density, b_density] : {std::tuple<Int, Int, Int, double, double>{1, 1, 1, 1.0, 1.0},
                                                        {2, 3, 4, 1.0, 1.0},
                                                        {40, 60, 30, 0.0, 0.1},
                                                        {5, 300, 200, 0.5, 0.1},
                                                        {200, 300, 5, 0.5, 0.01},
                                                        {400, 500, 300, 0.05, 0.05}}) {
        expect_transposed_products(m, k, n, a_density, b_density, 1, threads);
        threads = threads % 3 + 1;
    }
}

// Large enough for blocks of MKL's that the kernel maps one by one, and gets back when they are released, and for
// all threads.
TEST(TransposedProducts, LargeOnesAgreeWithPlainLoops) {
    expect_transposed_products(700, 50, 600, 1.0, 1.0);
    expect_transposed_products(3000, 3000, 3000, 5e-4, 5e-4);
}

// An output array that is null is skipped, and the others are written. Stage 2 needs all but the values.
TEST(TransposedProducts, NullOutputs) {
    Csr a(6, 5, 0.7, 1);
    Csr b(7, 5, 0.7, 2);
    const CsrOutput fresh(6, 7);
    CsrOutput counted = fresh;
    counted.multiply(1, 6, 7, a, b);
    CsrOutput product = fresh;
    product.multiply(0, 6, 7, a, b);
    for (const auto& [stage, before, after] :
         {std::tuple{0, fresh, product}, {1, fresh, counted}, {2, counted, product}, {2, product, product}}) {
        for (const unsigned null : {1U, 2U, 4U, 7U}) {
            SCOPED_TRACE(testing::Message() << "stage " << stage << ", null arrays " << null);
            CsrOutput c = before;
            const auto unless = [&](unsigned bit, auto* array) { return (null & bit) != 0 ? nullptr : array; };
            multiply_csr(stage, 6, 5, 7, a, b,
                         {unless(1, c.val.data()), unless(2, c.col_ind.data()), unless(4, c.row_ptr.data())});
            const CsrArrays& expected = stage == 2 && null != 1 ? before : after;
            EXPECT_TRUE((null & 1) != 0 || c.val == expected.val);
            EXPECT_TRUE((null & 2) != 0 || c.col_ind == expected.col_ind);
            EXPECT_TRUE((null & 4) != 0 || c.row_ptr == expected.row_ptr);
        }
    }
}

// MKL refuses a B without entries, as it refuses a null handle.
TEST(TransposedProducts, OperandsThatMklRefusesLeaveTheOutputs) {
    const Csr good(6, 6, 1.0, 1);
    const Csr no_entries(6, 6, 0.0, 1);
    Csr no_columns = good;
    no_columns.col_ind = std::vector<Int>();
    const CsrOutput before(6, 6);
    for (auto [a, b, m, n] : {std::tuple{no_columns, good, 6, 6},
                              {good, no_columns, 6, 6},
                              {good, no_entries, 6, 6},
                              {good, good, 0, 6},
                              {good, good, 6, 0},
                              {good, good, -2, -3}}) {
        for (const Int stage : {0, 1, 2}) {
            SCOPED_TRACE(testing::Message() << m << " x " << n << ", stage " << stage);
            CsrOutput c = before;
            c.multiply(stage, m, n, a, b);
            multiply_dense(m, 6, n, a, b, c.val.data());
            EXPECT_TRUE(c == before);
        }
    }
}

// The stack that a call needs is promised to hosts.
TEST(Stack, EveryEntryOnAThreadWith64Kilobytes) {
    const auto run = [](void*) -> void* {
        expect_dense_products(Csr(300, 300, 0.1, 1), 9);
        expect_transposed_products(300, 200, 250, 0.1, 0.1);
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{64} << 10), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, run, nullptr), 0);
    pthread_join(thread, nullptr);
}

TEST(TransposedProducts, EightThreadsAtOnce) {
    std::vector<std::future<void>> calls; // which wait for their threads
    for (unsigned seed = 0; seed < 8; ++seed) {
        calls.push_back(std::async(std::launch::async, [seed] {
            for (unsigned round = 0; round < 4; ++round) {
                const Int m = 300 + 100 * seed;
                expect_dense_products(Csr(m, m, 0.02, seed), 3);
                expect_transposed_products(m, 200, 1000, 0.002 * (1 + round), 0.01, seed);
            }
        }));
    }
}

} // namespace
