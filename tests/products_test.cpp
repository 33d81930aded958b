// The built library on the real MKL against plain loops, on random operands and in random sequences of stages. Each
// array is exactly as long as the header says, beside a page without access. All values are small integers, so that
// every sum is exact in any order and results are compared to the bit. The environment says what runs:
//   CSR_PRODUCTS_ROUNDS  of each random test; default: about a second
//   CSR_PRODUCTS_SEED    of the first round; default: another one each time
//   CSR_PRODUCTS_PAGES   "front": no page without access is behind an array

#include "../examples/large/local_blocks.h"
#include "entries.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <limits>
#include <pthread.h>
#include <random>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using Dense = std::vector<double>; // column-major

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

class Random : public std::mt19937_64 {
public:
    using std::mt19937_64::mt19937_64;

    Int between(Int least, Int most) { return std::uniform_int_distribution<Int>(least, most)(*this); }
    bool one_in(Int count) { return between(1, count) == 1; }
    double value() { return static_cast<double>(between(1, 9)); }
    Int dimension() { return between(1, std::array<Int, 4>{3, 12, 60, 300}[size(between(0, 3))]); }
    double density() { return std::array<double, 5>{0.0, 0.02, 0.1, 0.3, 1.0}[size(between(0, 4))]; }
};

// An array of as many elements as its content has, and a page without access in front of it or right behind it.
template <class T>
class Exact {
public:
    Exact(Random& random, const std::vector<T>& content, int protection = PROT_READ | PROT_WRITE) {
        const char* const pages = std::getenv("CSR_PRODUCTS_PAGES");
        const bool front = random.one_in(2) || (pages != nullptr && std::string_view(pages) == "front");
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t bytes = (content.size() * sizeof(T) + page - 1) / page * page;
        mapped_ = bytes + 2 * page;
        pages_ = static_cast<char*>(mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        opened_ = pages_ + page;
        opened_end_ = opened_ + bytes + (front ? page : 0);
        mprotect(opened_, size(opened_end_ - opened_), PROT_READ | PROT_WRITE);
        std::fill(opened_, opened_end_, '?');
        begin_ = reinterpret_cast<T*>(front ? opened_ : opened_end_) - (front ? 0 : content.size());
        end_ = std::copy(content.begin(), content.end(), begin_);
        mprotect(opened_, size(opened_end_ - opened_), protection);
    }
    ~Exact() {
        const auto is_filled = [](char byte) { return byte == '?'; };
        EXPECT_TRUE(std::all_of(opened_, reinterpret_cast<char*>(begin_), is_filled)) << "written in front of an array";
        EXPECT_TRUE(std::all_of(reinterpret_cast<char*>(end_), opened_end_, is_filled)) << "written behind an array";
        munmap(pages_, mapped_);
    }
    Exact(const Exact&) = delete;
    Exact& operator=(const Exact&) = delete;

    operator T*() const { return begin_; }
    std::vector<T> content() const { return {begin_, end_}; }

private:
    std::size_t mapped_;
    char *pages_, *opened_, *opened_end_;
    T* begin_;
    T* end_;
};

struct Csr : CsrArrays {
    Int rows, cols;

    // Some rows are empty. The columns of a row ascend, or stand in any order.
    Csr(Random& random, Int rows_, Int cols_, double density) : rows(rows_), cols(cols_) {
        std::bernoulli_distribution stored(density);
        const bool shuffled = random.one_in(2);
        row_ptr = {1};
        for (Int i = 0; i < rows; ++i) {
            const bool empty = random.one_in(7);
            for (Int j = 1; j <= cols; ++j) {
                if (!empty && stored(random)) {
                    col_ind.push_back(j);
                }
            }
            if (shuffled) {
                std::shuffle(col_ind.begin() + row_ptr.back() - 1, col_ind.end(), random);
            }
            row_ptr.push_back(Int(col_ind.size()) + 1);
        }
        if (col_ind.empty()) {
            col_ind.push_back(untouched); // arrays without an entry are not null
        }
        val.resize(col_ind.size(), nan);
        change_values(random);
    }

    Int stored() const { return row_ptr.back() - 1; }

    void change_values(Random& random) {
        std::generate_n(val.begin(), stored(), [&] { return random.value(); });
    }
};

template <class Visit>
void each(const CsrArrays& a, Visit visit) {
    for (std::size_t i = 0; i + 1 < a.row_ptr.size(); ++i) {
        for (Int p = a.row_ptr[i]; p < a.row_ptr[i + 1]; ++p) {
            visit(Int(i), a.col_ind.at(size(p - 1)) - 1, a.val.at(size(p - 1)));
        }
    }
}

// An operand as the library gets it: it cannot be written.
struct Operand {
    Exact<double> val;
    Exact<Int> col_ind, row_ptr;

    Operand(Random& random, const Csr& a)
        : val(random, a.val, PROT_READ), col_ind(random, a.col_ind, PROT_READ), row_ptr(random, a.row_ptr, PROT_READ) {}

    operator CsrOperand() const { return {val, col_ind, row_ptr}; }
};

void set_threads(Random& random) {
    qz_mkl_set_num_threads_int64(static_cast<int>(random.between(1, 5)));
}

// NaN stands wherever a product must not look: in the output that is overwritten, below the diagonal of a
// symmetric operand, in rows of B that meet no entry of A, and between the columns of B.
void expect_dense_product(Random& random, const DenseEntry& e, const Csr& a, Int n) {
    const Int m = a.rows;
    const Int k = a.cols;
    const bool symmetric = e.preset[1] == '1';
    const bool transposed = e.operation == 11;
    SCOPED_TRACE(testing::Message() << e.name << ": " << m << " x " << k << ", " << a.stored() << " entries, columns "
                                    << n);
    Csr stored = a;
    std::vector<std::tuple<Int, Int, double>> terms; // to a row of C, from a row of B, times a value
    std::size_t position = 0;
    each(a, [&](Int row, Int col, double value) {
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
    const bool is_long = e.form == DenseEntry::long_form;
    const Int ldb = is_long ? k + random.between(0, 5) : k;
    const Int ldc = is_long ? m + random.between(0, 5) : m;
    const Int c_rows = transposed ? k : m;
    Dense b(size(is_long ? ldb * n : (n - 1) * ldb + (transposed ? m : k)), nan);
    Dense c(size(is_long ? ldc * n : (n - 1) * ldc + c_rows), untouched);
    Dense expected = c;
    for (Int j = 0; j < n; ++j) {
        for (Int i = 0; i < c_rows; ++i) {
            c[size(i + j * ldc)] = e.beta == 0.0 ? nan : 3.0;
            expected[size(i + j * ldc)] = 3.0 * e.beta;
        }
        for (const auto& [to, from, value] : terms) {
            double& factor = b[size(from + j * ldb)];
            factor = std::isnan(factor) ? random.value() : factor;
            expected[size(to + j * ldc)] += value * factor;
        }
    }
    const Operand operand(random, stored);
    const Exact<double> result(random, c);
    e.call(operand.val, operand.col_ind, operand.row_ptr, Exact<double>(random, b, PROT_READ), ldb, m, k, n, result,
           ldc);
    if (c_rows <= ldc || n == 1) { // otherwise the columns of C overlap
        EXPECT_EQ(result.content(), expected);
    }
}

// A null array, a dimension <= 0, a null val without an entry, or no columns of B.
void expect_dense_refusal(Random& random, const DenseEntry& e) {
    enum { null_col_ind, null_row_ptr, no_dimension, null_val, no_columns };
    const bool is_vector = e.form == DenseEntry::vector_form;
    const Int kind = random.between(0, is_vector ? null_val : no_columns);
    const bool no_rows = kind == no_dimension && random.one_in(2);
    const Int m = no_rows ? random.between(-4, 0) : random.between(1, 6);
    const Int k = kind == no_dimension && (!no_rows || random.one_in(2)) ? random.between(-4, 0) : random.between(1, 6);
    const Int n = is_vector ? 1 : kind == no_columns ? random.between(-3, 0) : random.between(1, 6);
    SCOPED_TRACE(testing::Message() << e.name << ": " << m << " x " << k << ", columns " << n << ", refusal " << kind);
    const Operand a(random, Csr(random, std::max<Int>(m, 0), std::max<Int>(k, 0), kind == null_val ? 0.0 : 1.0));
    const Int ldc = m + (e.form == DenseEntry::long_form ? random.between(0, 2) : 0);
    const Int cleared = kind == null_val || kind == no_columns ? 0 : std::max<Int>(m * k, 0);
    Dense c(size(std::max({cleared, e.operation == 11 ? k * n : ldc * n, Int{0}})), untouched);
    const Exact<double> result(random, c);
    const Dense b(kind == null_val ? size(k * n) : 0);
    e.call(kind == null_val ? nullptr : +a.val, kind == null_col_ind ? nullptr : +a.col_ind,
           kind == null_row_ptr ? nullptr : +a.row_ptr, Exact<double>(random, b, PROT_READ), k, m, k, n, result, ldc);
    const bool computes = kind == null_val && is_vector;
    std::fill_n(c.begin(), computes ? m : cleared, computes ? e.beta * untouched : 0.0);
    EXPECT_EQ(result.content(), c);
}

void dense_round(Random& random, bool sets_threads) {
    for (const DenseEntry& e : dense_entries) {
        if (sets_threads) {
            set_threads(random);
        }
        const Int m = random.dimension();
        const Int k = e.preset[1] == '1' || random.one_in(2) ? m : random.dimension();
        const Int n = e.form == DenseEntry::vector_form ? 1 : random.between(1, 33);
        expect_dense_product(random, e, Csr(random, m, k, random.density()), n);
        expect_dense_refusal(random, e);
    }
}

// One pair of operands and one set of outputs, through a random sequence of calls.
class Stages {
public:
    Stages(Random& random, Int m, Int k, Int n, double a_density, double b_density, bool sets_threads = true)
        : random_(random), m_(m), k_(k), n_(n), a_density_(a_density), b_density_(b_density),
          sets_threads_(sets_threads) {
        change_structure();
    }

    // Each stage in order, then in any.
    void run(int steps) {
        expect_stage(1, 0);
        expect_stage(2, 0);
        change_values();
        expect_stage(2, 0);
        compress();
        expect_stage(2, 0);
        for (int step = 0; step < steps; ++step) {
            if (sets_threads_) {
                set_threads(random_);
            }
            if (random_.one_in(10)) {
                change_structure();
            } else if (random_.one_in(10)) {
                change_values();
            } else if (random_.one_in(4)) {
                compress();
            } else if (random_.one_in(7)) {
                expect_refusal();
            } else if (random_.one_in(4)) {
                expect_local_blocks();
            } else {
                const Int stage = state_ != anything && random_.one_in(2) ? 2 : random_.between(0, 1);
                const Int null = random_.one_in(4) ? random_.between(1, 7) : random_.one_in(3) ? val : 0;
                expect_stage(stage, null);
            }
        }
    }

private:
    // What c_col_ind and c_row_ptr hold.
    enum State { anything, count_of_operands, structure_of_product };
    static constexpr Int val = 1, col_ind = 2, row_ptr = 4; // null arrays

    void change_structure() {
        a_ = Csr(random_, m_, k_, a_density_);
        do {
            b_ = Csr(random_, n_, k_, b_density_);
        } while (b_.stored() == 0); // MKL refuses such a B
        state_ = anything;
        compute_product();
    }

    void change_values() {
        a_.change_values(random_);
        b_.change_values(random_);
        compute_product();
    }

    // Keeps the stored entries alone, which is all that stage 2 needs, or what a host may have behind them.
    void compress() {
        if (state_ == structure_of_product || (state_ == count_of_operands && stored_ == 0)) {
            const Int capacity = random_.one_in(2) ? Int(c_.val.size()) : stored_;
            resize_entries(c_, stored_);
            resize_entries(c_, capacity);
        }
    }

    // What a call leaves in exact copies of these arrays, some of them null.
    CsrArrays call(Int stage, const CsrArrays& before, Int null = 0) {
        const Operand a(random_, a_);
        const Operand b(random_, b_);
        const bool null_val = a_.stored() == 0 && random_.one_in(2);
        double* const a_val = null_val ? nullptr : +a.val;
        return call(before, null, [&](CsrOperand c) {
            if (random_.one_in(2)) {
                multiply_csr(stage, m_, k_, n_, {a_val, a.col_ind, a.row_ptr}, b, c);
            } else {
                multiply_csr_in_c(stage, m_, k_, n_, a_val, a.col_ind, a.row_ptr, b.val, b.col_ind, b.row_ptr, -1,
                                  c.val, c.col_ind, c.row_ptr, nullptr);
            }
        });
    }

    template <class Multiply>
    CsrArrays call(const CsrArrays& before, Int null, Multiply multiply) {
        const Exact<double> c_val(random_, before.val);
        const Exact<Int> c_col_ind(random_, before.col_ind);
        const Exact<Int> c_row_ptr(random_, before.row_ptr);
        multiply({(null & val) != 0 ? nullptr : +c_val, (null & col_ind) != 0 ? nullptr : +c_col_ind,
                  (null & row_ptr) != 0 ? nullptr : +c_row_ptr});
        CsrArrays after;
        after.val = c_val.content();
        after.col_ind = c_col_ind.content();
        after.row_ptr = c_row_ptr.content();
        return after;
    }

    // By the two entries in one call, and by a plain loop.
    void compute_product() {
        std::vector<std::vector<std::pair<Int, double>>> b_columns(size(k_));
        each(b_, [&](Int row, Int col, double value) { b_columns[size(col)].emplace_back(row, value); });
        Dense expected(size(m_ * n_));
        each(a_, [&](Int row, Int col, double value) {
            for (const auto& [j, other] : b_columns[size(col)]) {
                expected[size(row + j * m_)] += value * other;
            }
        });
        const Exact<double> dense(random_, Dense(expected.size(), nan));
        const Operand a(random_, a_);
        const Operand b(random_, b_);
        multiply_dense(m_, k_, n_, a, b, dense);
        EXPECT_EQ(dense.content(), expected);

        product_ = call(0, room_for_product(m_, n_));
        Dense c(expected.size());
        each(product_, [&](Int row, Int col, double value) {
            EXPECT_EQ(c.at(size(row + col * m_)), 0.0) << "an entry stands twice, or is zero";
            c.at(size(row + col * m_)) = value;
        });
        EXPECT_EQ(c, expected);
        const Int zeros = std::count(expected.begin(), expected.end(), 0.0);
        stored_ = m_ * n_ - zeros;
        EXPECT_EQ(product_.row_ptr.back(), stored_ + 1);
        EXPECT_EQ(std::count(product_.val.begin() + stored_, product_.val.end(), 0.0), zeros);
        EXPECT_EQ(std::count(product_.col_ind.begin() + stored_, product_.col_ind.end(), 0), zeros);
    }

    static CsrArrays room_for_product(Int m, Int n) {
        CsrArrays c(m * n, m + 1);
        resize_entries(c, m * n);
        c.row_ptr.resize(size(m + 1));
        return c;
    }

    static void resize_entries(CsrArrays& c, Int entries) {
        c.val.resize(size(entries), untouched);
        c.col_ind.resize(size(entries), untouched);
    }

    void expect_stage(Int stage, Int null) {
        SCOPED_TRACE(testing::Message() << "stage " << stage << ", state " << state_ << ", null arrays " << null);
        const bool finishes = state_ == count_of_operands && stored_ > 0;
        const bool has_structure = (null & (col_ind | row_ptr)) == 0; // or stage 2 does nothing
        if (stage != 2) {
            resize_entries(c_, m_ * n_);
        }
        CsrArrays expected = c_;
        if (stage == 0 || (stage == 2 && finishes && has_structure)) {
            expected = product_;
        } else if (stage == 1) {
            std::fill(expected.val.begin(), expected.val.end(), 0.0);
            std::fill(expected.col_ind.begin(), expected.col_ind.end(), 0);
            expected.row_ptr = product_.row_ptr;
        } else if (has_structure) {
            std::copy_n(product_.val.begin(), stored_, expected.val.begin());
        }
        expected.val = (null & val) != 0 ? c_.val : expected.val;
        expected.col_ind = (null & col_ind) != 0 ? c_.col_ind : expected.col_ind;
        expected.row_ptr = (null & row_ptr) != 0 ? c_.row_ptr : expected.row_ptr;
        const Int whole_product[] = {0, 3, -1, two_to_32 + 1, two_to_32 + 2};
        c_ = call(stage == 0 ? whole_product[random_.between(0, 4)] : stage, c_, null);
        EXPECT_TRUE(c_ == expected);
        const bool row_ptr_fits = state_ != anything || (null & row_ptr) == 0;
        if ((null & col_ind) == 0 && row_ptr_fits && (stage != 2 || (finishes && has_structure))) {
            state_ = stage == 1 ? count_of_operands : structure_of_product;
        }
    }

    // MKL refuses a null array, a dimension <= 0 and a B without entries, and the dense entry a null val too.
    void expect_refusal() {
        const Operand good_a(random_, a_);
        const Operand good_b(random_, b_);
        const Operand empty_a(random_, Csr(random_, m_, k_, 0.0));
        const Operand empty_b(random_, Csr(random_, n_, k_, 0.0));
        CsrOperand a = good_a;
        CsrOperand b = good_b;
        Int m = m_;
        Int k = k_;
        Int n = n_;
        Int* const dimensions[] = {&m, &k, &n};
        const Int kind = random_.between(0, 4);
        const Int stage = random_.between(0, 2);
        SCOPED_TRACE(testing::Message() << "refusal " << kind << ", stage " << stage << ", state " << state_);
        if (kind == 0) {
            (random_.one_in(2) ? a : b).col_ind = nullptr;
        } else if (kind == 1) {
            (random_.one_in(2) ? a : b).row_ptr = nullptr;
        } else if (kind == 2) {
            *dimensions[random_.between(0, 2)] = random_.between(-3, 0);
            *dimensions[random_.between(0, 2)] = random_.between(-3, 0);
        } else if (kind == 3) {
            b = empty_b;
        } else {
            a = {nullptr, empty_a.col_ind, empty_a.row_ptr};
        }
        const Dense unwritten(size(m_ * n_), untouched);
        const Exact<double> dense(random_, unwritten);
        multiply_dense(m, k, n, a, b, dense);
        EXPECT_EQ(dense.content(), unwritten);
        if (kind != 4) {
            EXPECT_TRUE(call(c_, 0, [&](CsrOperand c) { multiply_csr(stage, m, k, n, a, b, c); }) == c_);
        }
    }

    // The order of the columns in a row depends on nothing but that row of A and the rows of B that share a column
    // with it: the product may be put together from row blocks of A with those rows of B alone.
    void expect_local_blocks() {
        const auto view = [](Csr& matrix) -> local_blocks::CsrView {
            return {matrix.rows, matrix.cols, matrix.val.data(), matrix.col_ind.data(), matrix.row_ptr.data()};
        };
        const Int block_rows[] = {random_.between(1, m_ + 1), -1, std::numeric_limits<Int>::max()};
        auto c = local_blocks::structure_of_product(view(a_), view(b_), block_rows[random_.between(0, 2)]);
        local_blocks::refresh(view(a_), view(b_), c);
        EXPECT_EQ(c.row_ptr, product_.row_ptr);
        EXPECT_EQ(c.col_ind, std::vector<Int>(product_.col_ind.begin(), product_.col_ind.begin() + stored_));
        EXPECT_EQ(c.val, Dense(product_.val.begin(), product_.val.begin() + stored_));
    }

    Random& random_;
    Int m_, k_, n_;
    double a_density_, b_density_;
    bool sets_threads_;
    Csr a_{random_, 1, 1, 0.0};
    Csr b_ = a_;
    CsrArrays c_ = room_for_product(m_, n_);
    CsrArrays product_; // as one call leaves it
    Int stored_ = 0;    // entries of the product
    State state_ = anything;
};

void stages_round(Random& random, bool sets_threads) {
    const Int m = random.dimension();
    const Int k = random.dimension();
    const Int n = random.dimension();
    const double a_density = random.density();
    const double b_density = std::max(random.density(), 0.01);
    Stages(random, m, k, n, a_density, b_density, sets_threads).run(15);
}

std::string seed_of_round;

void run_rounds(const std::function<void(Random&)>& round) {
    const auto environment = [](const char* name, Int otherwise) {
        const char* const value = std::getenv(name);
        return value == nullptr ? otherwise : std::atoll(value);
    };
    const Int first = environment("CSR_PRODUCTS_SEED", std::random_device()());
    const Int rounds = environment("CSR_PRODUCTS_ROUNDS", 100);
    ASSERT_GT(rounds, 0);
    std::cerr << "CSR_PRODUCTS_SEED=" << first << '\n';
    for (const int signal : {SIGSEGV, SIGABRT}) {
        std::signal(signal, [](int) {
            std::cerr << "ended in " << seed_of_round << std::endl;
            std::_Exit(1);
        });
    }
    for (Int seed = first; seed < first + rounds && !testing::Test::HasFailure(); ++seed) {
        seed_of_round = "CSR_PRODUCTS_SEED=" + std::to_string(seed);
        SCOPED_TRACE(seed_of_round);
        Random random(static_cast<std::uint64_t>(seed));
        round(random);
    }
}

// Threads that MKL started stay in the process, so their number is the greatest it was ever given. This test is the
// first for that reason.
TEST(ThreadCount, OneZeroNegativeTwo) {
    Random random(1);
    const Csr a(random, 500, 500, 0.3);
    for (const auto& [count, expected] : {std::pair{1, 1}, {0, 1}, {-3, 1}, {2, 2}}) {
        qz_mkl_set_num_threads_int64(count);
        expect_dense_product(random, dense_entries.front(), a, 9);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}), expected) << count;
    }
}

TEST(DenseProducts, AgreeWithPlainLoops) {
    run_rounds([](Random& random) { dense_round(random, true); });
}

TEST(TransposedProducts, AgreeWithPlainLoopsInAnyStage) {
    run_rounds([](Random& random) { stages_round(random, true); });
}

// Large enough for blocks of MKL's that the kernel maps one by one, and gets back when they are released, and for
// all threads.
TEST(TransposedProducts, LargeOnes) {
    Random random(1);
    Stages(random, 700, 50, 600, 1.0, 1.0).run(10);
    Stages(random, 2000, 2000, 2000, 5e-4, 5e-4).run(10);
}

// The stack that a call needs is promised to hosts.
TEST(Stack, EveryEntryOnAThreadWith64Kilobytes) {
    const auto run = [](void*) -> void* {
        Random random(1);
        for (const DenseEntry& e : dense_entries) {
            expect_dense_product(random, e, Csr(random, 300, 300, 0.1), e.form == DenseEntry::vector_form ? 1 : 9);
        }
        Stages(random, 300, 200, 250, 0.1, 0.1).run(20);
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{64} << 10), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, run, nullptr), 0);
    pthread_join(thread, nullptr);
}

TEST(Threads, EightAtOnce) {
    std::vector<std::future<void>> calls;
    for (unsigned seed = 0; seed < 8; ++seed) {
        calls.push_back(std::async(std::launch::async, [seed] {
            Random random(seed);
            for (int round = 0; round < 10; ++round) {
                dense_round(random, false);
                stages_round(random, false);
            }
        }));
    }
    std::for_each(calls.begin(), calls.end(), [](auto& call) { call.get(); }); // throws what its thread has thrown
}

} // namespace
