// The built library on the real MKL against plain loops. All values are small integers, so that
// every sum is exact in any order and results are compared to the bit.

#include "csr_products.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

using Int = std::int64_t;
using Dense = std::vector<double>; // column-major

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double guard_value = -1234.5;
constexpr Int guard = 8; // elements behind every output

std::size_t size(Int count) {
    return static_cast<std::size_t>(count);
}

double small_integer(std::mt19937& random) {
    return std::uniform_int_distribution<int>(1, 9)(random);
}

Dense random_dense(Int count, std::mt19937& random) {
    Dense values(size(count));
    std::generate(values.begin(), values.end(), [&] { return small_integer(random); });
    return values;
}

struct Csr {
    Int rows, cols;
    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr{1};

    Csr(Int rows_, Int cols_, double density, unsigned seed) : rows(rows_), cols(cols_) {
        std::mt19937 random(seed);
        std::bernoulli_distribution stored(density);
        for (Int i = 0; i < rows; ++i) {
            for (Int j = 0; j < cols && i % 7 != 3; ++j) { // every seventh row is empty
                if (stored(random)) {
                    col_ind.push_back(j + 1);
                    val.push_back(small_integer(random));
                }
            }
            row_ptr.push_back(Int(val.size()) + 1);
        }
        val.reserve(1); // arrays without an entry are not null
        col_ind.reserve(1);
    }

    template <class Visit>
    void each(Visit visit) const {
        for (Int i = 0; i < rows; ++i) {
            for (Int p = row_ptr[size(i)] - 1; p < row_ptr[size(i) + 1] - 1; ++p) {
                visit(i, col_ind[size(p)] - 1, val[size(p)]);
            }
        }
    }
};

enum class Read { plain, transposed, upper };

// c += op(A) * b, entry by entry.
void add_product(const Csr& a, Read read, const Dense& b, Int ldb, Int columns, Dense& c, Int ldc) {
    for (Int j = 0; j < columns; ++j) {
        a.each([&](Int row, Int col, double value) {
            const auto add = [&](Int to, Int from) { c[size(to + j * ldc)] += value * b[size(from + j * ldb)]; };
            if (read == Read::plain || (read == Read::upper && row <= col)) {
                add(row, col);
            }
            if (read == Read::transposed || (read == Read::upper && row < col)) {
                add(col, row);
            }
        });
    }
}

struct DenseEntry {
    const char* name;
    Read read;
    bool accumulates;
    bool long_form;
    void (*call)(Csr& a, Dense& b, Int ldb, Int n, Dense& c, Int ldc);
};

#define SHORT_CALL(entry)                                                                                              \
    [](Csr& a, Dense& b, Int, Int n, Dense& c, Int) {                                                                  \
        entry(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), a.rows, a.cols, n, c.data());                \
    }
#define LONG_CALL(entry)                                                                                               \
    [](Csr& a, Dense& b, Int ldb, Int n, Dense& c, Int ldc) {                                                          \
        entry(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), ldb, a.rows, a.cols, n, c.data(), ldc);      \
    }
#define VECTOR_CALL(entry)                                                                                             \
    [](Csr& a, Dense& b, Int, Int, Dense& c, Int) {                                                                    \
        entry(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), a.rows, a.cols, c.data());                   \
    }

const DenseEntry dense_entries[] = {
    {"spgmatgmat G", Read::plain, false, false, SHORT_CALL(spgmatgmat_mkl_G_int64)},
    {"spgmatgmat G long", Read::plain, false, true, LONG_CALL(spgmatgmat_mkl_G_int64)},
    {"spgmatgmat S", Read::upper, false, false, SHORT_CALL(spgmatgmat_mkl_S_int64)},
    {"spgmatgmat S long", Read::upper, false, true, LONG_CALL(spgmatgmat_mkl_S_int64)},
    {"spgmatgmatsum G", Read::plain, true, true, LONG_CALL(spgmatgmatsum_mkl_G_int64)},
    {"spgmatgmatsum S", Read::upper, false, true, LONG_CALL(spgmatgmatsum_mkl_S_int64)},
    {"spgmattrgmat G", Read::transposed, false, false, SHORT_CALL(spgmattrgmat_mkl_G_int64)},
    {"spgmattrgmat S", Read::upper, false, false, SHORT_CALL(spgmattrgmat_mkl_S_int64)},
    {"spgmatgvec G", Read::plain, false, false, VECTOR_CALL(spgmatgvec_mkl_G_int64)},
    {"spgmatgvecsum G", Read::plain, true, false, VECTOR_CALL(spgmatgvecsum_mkl_G_int64)},
};

void expect_dense_products(Int m, Int k, Int n, double density, unsigned seed = 1) {
    Csr a(m, k, density, seed);
    std::mt19937 random(seed);
    for (const DenseEntry& entry : dense_entries) {
        SCOPED_TRACE(fmt::format("{}: {} x {}, density {}, {} columns", entry.name, m, k, density, n));
        const bool vector = std::string_view(entry.name).find("gvec") != std::string_view::npos;
        if ((entry.read == Read::upper && m != k) || (vector && n != 1) ||
            (entry.read == Read::transposed && m != k && n != 1)) {
            continue; // not a product that the entry offers
        }
        const Int c_rows = entry.read == Read::transposed ? k : m;
        const Int ldb = k + (entry.long_form ? 3 : 0);
        const Int ldc = m + (entry.long_form ? 5 : 0);
        Dense b = random_dense(std::max(ldb * n, m), random);
        Dense c(size(std::max(ldc * n, c_rows) + guard), guard_value);
        Dense expected = c;
        for (Int j = 0; j < n; ++j) {
            for (Int i = 0; i < c_rows; ++i) {
                c[size(i + j * ldc)] = entry.accumulates ? 3.0 : nan;
                expected[size(i + j * ldc)] = entry.accumulates ? 3.0 : 0.0;
            }
        }
        add_product(a, entry.read, b, ldb, n, expected, ldc);
        entry.call(a, b, ldb, n, c, ldc);
        EXPECT_EQ(c, expected);
    }
}

TEST(DenseProducts, AgreeWithPlainLoops) {
    for (const auto& [m, k] : std::vector<std::pair<Int, Int>>{{1, 1}, {4, 4}, {50, 50}, {300, 40}, {40, 300}}) {
        for (const double density : {0.0, 0.02, 0.3, 1.0}) {
            for (const Int n : {1, 2, 9}) {
                expect_dense_products(m, k, n, density);
            }
        }
    }
}

TEST(DenseProducts, FailedWrapClearsTheOperandsShape) {
    Csr a(4, 4, 1.0, 1);
    for (const DenseEntry& entry : dense_entries) {
        for (const bool empty : {false, true}) {
            SCOPED_TRACE(fmt::format("{}, {}", entry.name, empty ? "no rows" : "no column numbers"));
            Csr broken = a;
            broken.rows = empty ? 0 : 4;
            broken.col_ind = std::vector<Int>();
            Dense b(16, 1.0);
            Dense c(16 + guard, guard_value);
            Dense expected = c;
            std::fill_n(expected.begin(), empty ? 0 : 16, 0.0);
            entry.call(broken, b, 4, 1, c, 4);
            EXPECT_EQ(c, expected);
        }
    }
}

// Threads that MKL started stay in the process, so their number tells how many it was ever given.
TEST(ThreadCount, OneZeroNegativeTwo) {
    const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    for (const auto& [count, expected] : {std::pair{1, 1}, {0, 1}, {-3, 1}, {2, 2}, {1, 2}}) {
        qz_mkl_set_num_threads_int64(count);
        expect_dense_products(500, 500, 9, 0.3);
        EXPECT_EQ(threads(), expected) << "after a count of " << count;
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

// The output of the CSR product, with room for m*n entries.
struct CsrOutput {
    Int m, n;
    std::vector<double> val = std::vector<double>(size(m * n + guard), guard_value);
    std::vector<Int> col_ind = std::vector<Int>(size(m * n + guard), -1);
    std::vector<Int> row_ptr = std::vector<Int>(size(m + 1 + guard), -1);

    void multiply(Int stage, Csr& a, Csr& b) {
        Int ignored_result = 99;
        spgmatspgmattr_mkl_int64_new(stage, m, a.cols, n, a.val.data(), a.col_ind.data(), a.row_ptr.data(),
                                     b.val.data(), b.col_ind.data(), b.row_ptr.data(), 0, val.data(), col_ind.data(),
                                     row_ptr.data(), ignored_result);
        EXPECT_EQ(ignored_result, 99);
    }

    Dense dense() const {
        Dense c(size(m * n));
        for (Int i = 0; i < m; ++i) {
            for (Int p = row_ptr[size(i)]; p < row_ptr[size(i) + 1]; ++p) {
                c.at(size(i + (col_ind.at(size(p - 1)) - 1) * m)) += val.at(size(p - 1));
            }
        }
        return c;
    }

    void expect_guards() const {
        EXPECT_TRUE(std::all_of(val.end() - guard, val.end(), [](double v) { return v == guard_value; }));
        EXPECT_TRUE(std::all_of(col_ind.end() - guard, col_ind.end(), [](Int v) { return v == -1; }));
        EXPECT_TRUE(std::all_of(row_ptr.end() - guard, row_ptr.end(), [](Int v) { return v == -1; }));
    }
};

void expect_transposed_products(Int m, Int k, Int n, double a_density, double b_density, unsigned seed = 1) {
    SCOPED_TRACE(fmt::format("{} x {} times {} x {} transposed, densities {}, {}", m, k, n, k, a_density, b_density));
    Csr a(m, k, a_density, seed);
    Csr b(n, k, b_density, seed + 1);
    const Dense expected = transposed_product(a, b);

    Dense dense(size(m * n + guard), nan);
    std::fill(dense.end() - guard, dense.end(), guard_value);
    spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.val.data(),
                                      b.col_ind.data(), b.row_ptr.data(), dense.data());
    EXPECT_EQ(Dense(dense.end() - guard, dense.end()), Dense(guard, guard_value));
    dense.resize(size(m * n));
    EXPECT_TRUE(dense == expected) << "dense result";

    CsrOutput c{m, n};
    c.multiply(7, a, b);
    c.expect_guards();
    EXPECT_TRUE(c.dense() == expected) << "CSR result in one call";

    CsrOutput counted{m, n};
    counted.multiply(1, a, b);
    EXPECT_EQ(counted.row_ptr, c.row_ptr);
    EXPECT_EQ(counted.val, Dense(counted.val.size(), guard_value));
    EXPECT_EQ(counted.col_ind, std::vector<Int>(counted.col_ind.size(), -1));

    std::for_each(a.val.begin(), a.val.end(), [](double& value) { value += 10; });
    c.multiply(2, a, b);
    c.expect_guards();
    EXPECT_TRUE(c.dense() == transposed_product(a, b)) << "values refreshed";
}

TEST(TransposedProducts, AgreeWithPlainLoops) {
    const struct {
        Int m, k, n;
        double a_density, b_density;
    } cases[] = {{1, 1, 1, 1.0, 1.0},
                 {2, 2, 2, 1.0, 1.0},
                 {2, 3, 4, 1.0, 1.0},
                 {40, 60, 30, 0.0, 0.1},
                 {40, 60, 30, 0.1, 0.1},
                 {5, 300, 200, 0.5, 0.1},
                 {200, 300, 5, 0.5, 0.01},
                 {200, 200, 200, 0.01, 0.01},
                 {700, 50, 600, 1.0, 1.0},
                 {900, 5000, 700, 0.001, 0.001},
                 {1500, 40, 1500, 0.001, 0.001},
                 {3000, 3000, 3000, 0.0005, 0.0005},
                 {3000, 3000, 3000, 0.002, 0.002},
                 {3000, 500, 3000, 0.02, 0.02}};
    for (const auto& t : cases) {
        expect_transposed_products(t.m, t.k, t.n, t.a_density, t.b_density);
    }
}

// MKL refuses a B without entries, as it refuses a null handle.
TEST(TransposedProducts, OperandsThatMklRefusesLeaveTheOutputs) {
    const Csr good(6, 6, 1.0, 1);
    const Csr no_entries(6, 6, 0.0, 1);
    Csr no_columns = good;
    no_columns.col_ind = std::vector<Int>();
    for (const auto& [first, second, m, n] : {std::tuple{no_columns, good, 6, 6},
                                              {good, no_columns, 6, 6},
                                              {no_columns, no_columns, 6, 6},
                                              {good, no_entries, 6, 6},
                                              {good, good, 0, 6},
                                              {good, good, 6, 0},
                                              {good, good, -2, -3}}) {
        for (const Int stage : {0, 1, 2}) {
            SCOPED_TRACE(fmt::format("{} x {}, stage {}", m, n, stage));
            Csr a = first;
            Csr b = second;
            CsrOutput c{6, 6};
            CsrOutput before{6, 6};
            c.m = m;
            c.n = n;
            c.multiply(stage, a, b);
            EXPECT_EQ(c.val, before.val);
            EXPECT_EQ(c.col_ind, before.col_ind);
            EXPECT_EQ(c.row_ptr, before.row_ptr);
            spgmatspgmattr_gmat_mkl_int64_new(m, 6, n, a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.val.data(),
                                              b.col_ind.data(), b.row_ptr.data(), c.val.data());
            EXPECT_EQ(c.val, before.val);
        }
    }
}

// Where one thread's arrays end another's begin, and are unmapped while the first still reads.
TEST(TransposedProducts, EightThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 8; ++seed) {
        threads.emplace_back([seed] {
            for (unsigned round = 0; round < 4; ++round) {
                const Int m = 300 + 100 * seed;
                expect_dense_products(m, m, 3, 0.02, seed);
                expect_transposed_products(m, 200, 1000, 0.002 * (1 + round), 0.01, seed);
            }
        });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
}

} // namespace
