// What csr-products-check says of wrong calls, and of right ones that look odd. The tests run under its --stop and
// --output: each call is made by a child, which ends at its first error, before MKL sees the call.

#include "entries.h"

#include <atomic>
#include <cfenv>
#include <csetjmp>
#include <csignal>
#include <fstream>
#include <numeric>
#include <regex>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern "C" void* __libc_calloc(std::size_t count, std::size_t size);

// Of so many elements there is no memory. The checker calls this one too.
std::size_t missing_elements = 0;

extern "C" void* calloc(std::size_t count, std::size_t size) {
    return count == missing_elements ? nullptr : __libc_calloc(count, size);
}

namespace {

using Ints = std::vector<Int>;
using Doubles = std::vector<double>;

// The arguments of right calls: A is 3 x 4, B of the sparse products 2 x 4, and dense ones have two columns.
struct Host {
    Int m = 3, k = 4, n = 2, ldb = 4, ldc = 3, stage = 0;
    Doubles val{2, 1, 3, 4, 5};
    Ints col_ind{1, 3, 2, 1, 4}, row_ptr{1, 3, 4, 6};
    Doubles b_val{1, 1, 1};
    Ints b_col_ind{1, 2, 4}, b_row_ptr{1, 3, 4};
    Doubles x = Doubles(8), y = Doubles(12);
    Doubles c_val = Doubles(6);
    Ints c_col_ind = Ints(6), c_row_ptr = Ints(4);

    void vector(double* in, double* out) {
        spgmatgvec_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), in, m, k, out);
    }
    void vector() { vector(x.data(), y.data()); }
    void vector_sum() {
        spgmatgvecsum_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), x.data(), m, k, y.data());
    }
    void matrix(double* in, double* out) {
        spgmatgmat_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), in, ldb, m, k, n, out, ldc);
    }
    void matrix() { matrix(x.data(), y.data()); }
    void transposed() {
        spgmattrgmat_mkl_G_int64(val.data(), col_ind.data(), row_ptr.data(), x.data(), m, k, n, y.data());
    }
    void symmetric() {
        spgmatgmat_mkl_S_int64(val.data(), col_ind.data(), row_ptr.data(), x.data(), m, k, n, y.data());
    }
    void named_sum() {
        spgmatgmatsum_mkl_S_int64(val.data(), col_ind.data(), row_ptr.data(), x.data(), ldb, m, k, n, y.data(), ldc);
    }
    void dense() { multiply_dense(m, k, n, a(), b(), y.data()); }
    void csr_into(double* values) {
        multiply_csr_in_c(stage, m, k, n, val.data(), col_ind.data(), row_ptr.data(), b_val.data(), b_col_ind.data(),
                          b_row_ptr.data(), 0, values, c_col_ind.data(), c_row_ptr.data(), nullptr);
    }
    void csr() { csr_into(c_val.data()); }
    void csr(Int at_stage) {
        stage = at_stage;
        csr();
    }

    CsrOperand a() { return {val.data(), col_ind.data(), row_ptr.data()}; }
    CsrOperand b() { return {b_val.data(), b_col_ind.data(), b_row_ptr.data()}; }

    // A symmetric A of 3 x 3: 2 on the diagonal, and these beside it.
    Host& make_symmetric(double above, double below) {
        m = k = ldb = 3;
        val = {2, above, below, 2, 2};
        col_ind = {1, 2, 1, 2, 3};
        row_ptr = {1, 3, 5, 6};
        return *this;
    }
};

// As many elements as fit before a page that cannot be read.
template <class T>
T* before_the_end(std::size_t elements) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char*>(pages) + page, page, PROT_NONE);
    return static_cast<T*>(pages) + page / sizeof(T) - elements;
}

double* read_only() {
    return static_cast<double*>(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

// Runs both at the same time, again and again, until the checker ends the process.
template <class One, class Other>
void run_at_once(One one, Other other) {
    std::thread([one]() mutable {
        for (;;) {
            one();
        }
    }).detach();
    for (int i = 0; i < 1000000; ++i) { // seconds
        other();
    }
}

// Leaves the act by a jump out of the signal's handler. Nothing takes longer than the alarm.
template <class Act>
void jump_out(int number, Act act) {
    static sigjmp_buf before;
    alarm(20);
    signal(number, [](int) { siglongjmp(before, 1); });
    if (sigsetjmp(before, 1) == 0) {
        act();
    }
}

using Act = void (*)(Host&);

// What the checker says while a child acts, without the process and the caller's place.
std::string complaints(Act act, bool& is_ended) {
    const char* const output = std::getenv("CSR_PRODUCTS_CHECK_OUTPUT");
    EXPECT_TRUE(output != nullptr && truncate(output, 0) == 0) << "not under csr-products-check --output";
    const pid_t child = fork();
    if (child == 0) {
        Host host;
        act(host);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    is_ended = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    EXPECT_TRUE(is_ended || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << "status " << status;
    std::ifstream lines(output == nullptr ? "" : output);
    const std::string text(std::istreambuf_iterator<char>(lines), {});
    return std::regex_replace(text, std::regex("csr_products\\[[0-9]+\\]: |, called from [^\n]*|\n$"), "");
}

struct Row {
    const char* line; // or several, with a bar between them
    Act act;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.line;
}

class Errors : public testing::TestWithParam<Row> {};

TEST_P(Errors, EndTheProcessBeforeMkl) {
    bool is_ended = false;
    const std::string said = complaints(GetParam().act, is_ended);
    ASSERT_EQ(said.substr(0, 7), "error: ");
    EXPECT_NE(("|" + std::string(GetParam().line) + "|").find("|" + said.substr(7) + "|"), std::string::npos) << said;
    EXPECT_TRUE(is_ended);
}

const Row operand_errors[] = {
    {"spgmatgvec_mkl_G_int64: x is null", [](Host& h) { h.vector(nullptr, h.y.data()); }},
    {"spgmatgmat_mkl_G_int64: c is null", [](Host& h) { h.matrix(h.x.data(), nullptr); }},
    {"spgmatgvec_mkl_G_int64: row_ptr[0] is 0, not 1; indices count from 1",
     [](Host& h) { h.row_ptr[0] = 0, h.vector(); }},
    {"spgmatgvec_mkl_G_int64: row_ptr[0] is 12884901889, not 1; 32-bit integers?",
     [](Host& h) { h.row_ptr[0] = (Int{3} << 32) + 1, h.vector(); }},
    {"spgmatgvec_mkl_G_int64: row_ptr[0] is 4607182418800017408, not 1; doubles?",
     [](Host& h) { h.row_ptr[0] = 0x3FF0000000000000, h.vector(); }},
    {"spgmatgvec_mkl_G_int64: col_ind: column 12884901889 in row 1 is outside 1...4; 32-bit integers?",
     [](Host& h) { h.col_ind[0] = (Int{3} << 32) + 1, h.vector(); }},
    {"spgmatgmat_mkl_G_int64: row_ptr[2] is 2, less than row_ptr[1], which is 3",
     [](Host& h) { h.row_ptr[2] = 2, h.matrix(); }},
    {"spgmatspgmattr_mkl_int64_new: a_col_ind: column 0 in row 1 is outside 1...4; indices count from 1",
     [](Host& h) { h.col_ind[0] = 0, h.csr(); }},
    {"spgmatspgmattr_gmat_mkl_int64_new: b_col_ind: column 5 in row 2 is outside 1...4",
     [](Host& h) { h.b_col_ind[2] = 5, h.dense(); }},
    {"spgmatgvec_mkl_G_int64: col_ind: column -1 in row 3 is outside 1...4",
     [](Host& h) { h.col_ind[3] = -1, h.vector(); }},
    {"spgmatgvec_mkl_G_int64: col_ind: column 2 stands twice in row 3",
     [](Host& h) { h.val.resize(7), h.row_ptr[3] = 8, h.col_ind = {3, 1, 2, 2, 4, 1, 2}, h.vector(); }},
    {"spgmatgvec_mkl_G_int64: col_ind: column 66 stands twice in row 65", // a diagonal, with an entry too many
     [](Host& h) {
         h.m = h.k = 200;
         h.row_ptr.resize(201), h.val.resize(201), h.x.resize(200), h.y.resize(200);
         std::iota(h.row_ptr.begin(), h.row_ptr.end(), 1);
         h.col_ind = h.row_ptr;
         std::for_each(h.row_ptr.begin() + 65, h.row_ptr.end(), [](Int& start) { ++start; });
         h.col_ind[64] = 66;
         h.vector();
     }},
    {"spgmatgvec_mkl_G_int64: col_ind is null, so 12 elements of y are set to 0, 9 of them behind its end",
     [](Host& h) { h.col_ind = Ints(), h.vector(); }},
    {"spgmatgmat_mkl_G_int64: row_ptr is null, so 12 elements of c are set to 0",
     [](Host& h) { h.row_ptr = Ints(), h.n = 4, h.matrix(); }},
    {"spgmatspgmattr_mkl_int64_new: b_col_ind is null, so C is left as it was",
     [](Host& h) { h.b_col_ind = Ints(), h.csr(); }},
    {"spgmatgvec_mkl_G_int64: val and col_ind are null, and releases of MKL differ in what they do then",
     [](Host& h) { h.val = Doubles(), h.col_ind = Ints(), h.vector(); }},
    {"spgmatgvec_mkl_G_int64: val is null, and A has 5 entries", [](Host& h) { h.val = Doubles(), h.vector(); }},
    {"spgmatgmat_mkl_G_int64: val is null, so c is left as it was",
     [](Host& h) { h.val = Doubles(), h.row_ptr = Ints(4, 1), h.matrix(); }},
    {"spgmatspgmattr_mkl_int64_new: B has no entries, so C is left as it was",
     [](Host& h) { h.b_row_ptr = Ints(3, 1), h.csr(); }},
    {"spgmatgmat_mkl_G_int64: n = -2 is negative, so c is left as it was", [](Host& h) { h.n = -2, h.matrix(); }},
    {"spgmatgvec_mkl_G_int64: m = -2 is negative, so 6 elements of y are set to 0, 6 of them behind its end",
     [](Host& h) { h.m = -2, h.k = -3, h.vector(); }},
    {"spgmatgmat_mkl_G_int64: col_ind is null, so 12 elements of c are set to 0, 12 of them behind its end",
     [](Host& h) { h.col_ind = Ints(), h.n = 0, h.matrix(); }},
    {"spgmatgvec_mkl_G_int64: k = 0: y is left as it was, not set to 0", [](Host& h) { h.k = 0, h.vector(); }},
    {"spgmattrgmat_mkl_G_int64: m = 0: c is left as it was, not set to 0", [](Host& h) { h.m = 0, h.transposed(); }},
    {"spgmatspgmattr_mkl_int64_new: n = 0: c_row_ptr is left as it was, not set to 1",
     [](Host& h) { h.n = 0, h.csr(); }},
};

const Row array_errors[] = {
    {"spgmatgmat_mkl_G_int64: ldb = 3 is less than the 4 rows of B", [](Host& h) { h.ldb = 3, h.matrix(); }},
    {"spgmatgmat_mkl_G_int64: ldc = 2 is less than the 3 rows of C", [](Host& h) { h.ldc = 2, h.matrix(); }},
    {"spgmatgmat_mkl_S_int64: m = 3 and k = 4 differ, and a symmetric A is square", [](Host& h) { h.symmetric(); }},
    {"spgmattrgmat_mkl_G_int64: m = 3 and k = 4 differ and n = 2: pass A as a square matrix",
     [](Host& h) { h.transposed(); }},
    {"spgmatgvec_mkl_G_int64: x ends after 3 of 4 elements",
     [](Host& h) { h.vector(before_the_end<double>(3), h.y.data()); }},
    {"spgmatgmat_mkl_G_int64: c ends after 7 of 8 elements",
     [](Host& h) { h.ldc = 5, h.matrix(h.x.data(), before_the_end<double>(7)); }},
    {"spgmatgvec_mkl_G_int64: x ends after 512 of 1000000 elements", // and other memory begins behind that
     [](Host& h) {
         h.vector(); // loads the library, which may take the place of what is unmapped
         void* const pages = mmap(nullptr, 8000000, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         munmap(static_cast<double*>(pages) + 512, 4096);
         h.k = 1000000, h.vector(static_cast<double*>(pages), h.y.data());
     }},
    {"spgmatgvec_mkl_G_int64: x ends after 0 of 4 elements", // the first is before memory that can be read
     [](Host& h) {
         void* const pages = mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         mprotect(pages, 4096, PROT_NONE);
         h.vector(static_cast<double*>(pages) + 511, h.y.data());
     }},
    {"spgmatgvec_mkl_G_int64: y cannot be written", // on a kernel that tells, 5.14
     [](Host& h) { h.vector(h.x.data(), read_only()); }},
    {"spgmatgvec_mkl_G_int64: y overlaps x", [](Host& h) { h.vector(h.x.data(), h.x.data() + 3); }},
    {"spgmatspgmattr_mkl_int64_new: c_val overlaps c_col_ind",
     [](Host& h) { h.csr_into(reinterpret_cast<double*>(&h.c_col_ind[5])); }},
};

const Row stage_errors[] = {
    {"spgmatspgmattr_mkl_int64_new: c_col_ind is null, so stage 2 writes nothing",
     [](Host& h) { h.csr(), h.c_col_ind = Ints(), h.csr(2); }},
    {"spgmatspgmattr_mkl_int64_new: c_row_ptr[0] is 0, not 1; no count or product left it", [](Host& h) { h.csr(2); }},
    {"spgmatspgmattr_mkl_int64_new: c_row_ptr[0] is 0, not 1; indices count from 1",
     [](Host& h) {
         h.csr(), h.c_row_ptr = {0, 1, 3, 4}, h.csr(2);
     }},
    {"spgmatspgmattr_mkl_int64_new: c_col_ind: no product of these operands in this process left this structure",
     [](Host& h) {
         h.csr(), h.c_row_ptr = {1, 2, 4, 5}, h.c_col_ind = {1, 1, 2, 1}, h.csr(2);
     }},
    {"spgmatspgmattr_mkl_int64_new: c_col_ind: the columns stand in another order than a product left them",
     [](Host& h) { h.csr(), std::swap(h.c_col_ind[2], h.c_col_ind[3]), h.csr(2); }},
    {"spgmatspgmattr_mkl_int64_new: c_col_ind: column 2 stands twice in row 3",
     [](Host& h) { h.csr(), h.c_col_ind[2] = h.c_col_ind[3] = 2, h.csr(2); }},
};

const Row thread_errors[] = {
    {"spgmatgvec_mkl_G_int64: y is written while spgmatgvec_mkl_G_int64 on another thread writes it as its y",
     [](Host& h) { run_at_once([&h] { h.vector(); }, [&h] { h.vector(); }); }},
    {"spgmatgvec_mkl_G_int64: y is written while spgmatspgmattr_gmat_mkl_int64_new on another thread reads it as its "
     "b_val|spgmatspgmattr_gmat_mkl_int64_new: b_val is read while spgmatgvec_mkl_G_int64 on another thread writes it "
     "as "
     "its y",
     [](Host& h) { run_at_once([&h] { h.dense(); }, [&h] { h.vector(h.x.data(), h.b_val.data()); }); }},
    {"qz_mkl_set_num_threads_int64: the thread count is set while a sparse-by-sparse product runs on another thread|"
     "spgmatspgmattr_gmat_mkl_int64_new: the thread count is set while a sparse-by-sparse product runs on another "
     "thread",
     [](Host& h) { run_at_once([&h] { h.dense(); }, [] { qz_mkl_set_num_threads_int64(1); }); }},
};

INSTANTIATE_TEST_SUITE_P(Operands, Errors, testing::ValuesIn(operand_errors));
INSTANTIATE_TEST_SUITE_P(Arrays, Errors, testing::ValuesIn(array_errors));
INSTANTIATE_TEST_SUITE_P(Stages, Errors, testing::ValuesIn(stage_errors));
INSTANTIATE_TEST_SUITE_P(Threads, Errors, testing::ValuesIn(thread_errors));

class Others : public testing::TestWithParam<Row> {};

TEST_P(Others, LetTheProcessGoOn) {
    bool is_ended = true;
    EXPECT_EQ(complaints(GetParam().act, is_ended), GetParam().line);
    EXPECT_FALSE(is_ended);
}

constexpr char unknown[] =
    "note: spgmatspgmattr_mkl_int64_new: c_col_ind: no product of these operands in this process left this structure";

const Row notes[] = {
    {"note: spgmatgvec_mkl_G_int64: val is null; give a matrix without entries one element",
     [](Host& h) { h.val = Doubles(), h.row_ptr = Ints(4, 1), h.vector(); }},
    {"note: spgmatspgmattr_mkl_int64_new: n = 0: nothing is computed",
     [](Host& h) { h.n = 0, h.c_row_ptr = Ints(4, 1), h.csr(); }},
    {"note: spgmatgmatsum_mkl_S_int64: c holds values, and they are not added to",
     [](Host& h) { h.make_symmetric(7, 7), h.y[4] = 1, h.named_sum(); }},
    {"note: spgmatgmat_mkl_S_int64: the entries of A below the diagonal are not those above, and have no effect",
     [](Host& h) { h.make_symmetric(7, 8).symmetric(); }},
    {"note: spgmatgmat_mkl_S_int64: the entries of A below the diagonal are not those above, and have no effect",
     [](Host& h) { // all of them below
         h.make_symmetric(7, 7), h.row_ptr = {1, 2, 4, 5}, h.col_ind = {1, 1, 2, 3}, h.symmetric();
     }},
    {"note: spgmatspgmattr_mkl_int64_new: stage = 3 is none of 0, 1 and 2, and works as 0", [](Host& h) { h.csr(3); }},
    {"note: qz_mkl_set_num_threads_int64: count = -1: the thread count stays as it was", // digits make no difference
     [](Host&) {
         for (volatile int count = -1; count > -4; count = count - 1) {
             qz_mkl_set_num_threads_int64(count);
         }
     }},
    {unknown, [](Host& h) { h.csr(), std::swap(h.col_ind[0], h.col_ind[1]), h.csr(2); }},
    {unknown, // which is empty
     [](Host& h) {
         h.row_ptr = {1, 2, 2, 2}, h.col_ind[0] = 3, h.csr();
         h.b_col_ind[0] = 3, h.b_col_ind[1] = 1, h.csr(2);
     }},
    {unknown, [](Host& h) { h.csr(), h.b_col_ind[0] = 3, h.csr(2); }},
    {"note: spgmatspgmattr_mkl_int64_new: c_val is null, so stage 2 writes nothing",
     [](Host& h) { h.csr(), h.c_val = Doubles(), h.csr(2); }},
    {"note: spgmatgvec_mkl_G_int64: floating-point traps are enabled, and MKL may raise exceptions on the way to a "
     "right result",
     [](Host& h) { feenableexcept(FE_DIVBYZERO), h.vector(); }},
    {"note: spgmatspgmattr_mkl_int64_new: c_row_ptr is not what a count of operands with this structure left, and C is "
     "computed anew",
     [](Host& h) { h.csr(1), h.b_col_ind[0] = 3, h.csr(2); }},
    {"note: spgmatgmat_mkl_G_int64: n = 0: nothing is computed", // cancelled, but not within a call
     [](Host& h) {
         std::thread([&h] {
             pthread_cancel(pthread_self());
             h.n = 0, h.matrix();
             pthread_testcancel();
         }).join();
     }},
    {"error: spgmatgvec_mkl_G_int64: y is null\nerror: spgmatgvec_mkl_G_int64: x is null", // a host that goes on
     [](Host& h) {
         jump_out(SIGABRT, [&h] { h.vector(h.x.data(), nullptr); });
         jump_out(SIGABRT, [&h] { h.vector(nullptr, h.y.data()); });
         std::thread([&h] { h.vector(); }).join();
     }},
    {unknown, // made by the host: of a diagonal A
     [](Host& h) {
         h.csr(), h.row_ptr = {1, 2, 3, 4}, h.col_ind = {1, 2, 4}, h.n = 3, h.b_row_ptr = {1, 2, 3, 4};
         h.c_row_ptr = {1, 2, 3, 4}, h.c_col_ind = {1, 2, 3}, h.csr(2);
     }},
    {unknown, // its arrays come from two calls
     [](Host& h) {
         Host columns = h;
         columns.c_row_ptr = Ints(), columns.csr();
         h.csr(1), h.c_col_ind = columns.c_col_ind, h.csr(2);
     }},
    {unknown, // 4095 newer structures, and one more
     [](Host& h) {
         h.k = 5000, h.m = h.n = 1, h.row_ptr = h.b_row_ptr = {1, 2};
         const auto multiply = [&h](Int column, Int stage) { h.col_ind[0] = h.b_col_ind[0] = column, h.csr(stage); };
         for (Int column = 1; column <= 4096; ++column) {
             multiply(column, 0);
         }
         multiply(1, 2), multiply(4097, 0), multiply(1, 2);
     }},
    {"note: spgmatgmat_mkl_G_int64: n = 0: nothing is computed", // no memory for more than the line
     [](Host& h) {
         h.matrix();
         const rlimit none{1, 1};
         setrlimit(RLIMIT_AS, &none);
         h.n = 0, h.matrix();
     }},
    {"note: spgmatgmat_mkl_G_int64: n = 0: nothing is computed", // on a small stack
     [](Host& h) {
         pthread_attr_t attributes;
         pthread_attr_init(&attributes);
         pthread_attr_setstacksize(&attributes, std::size_t{64} << 10);
         pthread_t thread{};
         const auto call = [](void* host) -> void* {
             static_cast<Host*>(host)->csr();
             static_cast<Host*>(host)->n = 0;
             static_cast<Host*>(host)->matrix();
             return nullptr;
         };
         pthread_create(&thread, &attributes, call, &h);
         pthread_join(thread, nullptr);
     }},
};

// Right, although they look odd.
const Row silent[] = {
    {"", [](Host& h) { h.vector(h.x.data(), h.x.data() + 4); }}, // x and y touch
    {"",
     [](Host& h) { h.ldb = h.ldc = 7, h.y.resize(14), h.matrix(h.y.data(), h.y.data() + 4); }}, // panels of an array
    {"", // val between the two columns of C
     [](Host& h) {
         h.row_ptr[3] = 5;
         spgmatgmat_mkl_G_int64(&h.y[3], h.col_ind.data(), h.row_ptr.data(), h.x.data(), 4, 3, 4, 2, h.y.data(), 7);
     }},
    {"", [](Host& h) { h.ldc = 5, h.matrix(h.x.data(), before_the_end<double>(8)); }}, // no end of the last column
    {"", [](Host& h) { h.vector(before_the_end<double>(4), before_the_end<double>(3)); }},
    {"", [](Host& h) { h.n = 1, h.transposed(); }}, // a rectangular A and one column
    {"", [](Host& h) { h.k = 0, h.vector_sum(), h.transposed(), h.m = 0, h.vector(), h.csr(); }}, // y + 0, no rows
    {"", [](Host& h) { h.make_symmetric(0.0, -0.0).symmetric(); }},
    {"",
     [](Host& h) {
         h.make_symmetric(7, 7), h.col_ind = {1, 2, 2, 3, 3}, h.row_ptr = {1, 3, 5, 6}, h.symmetric();
     }},
    {"", [](Host& h) { h.make_symmetric(7, 7).named_sum(); }}, // C holds zeros
    {"",
     [](Host& h) {
         h.row_ptr = {1, 1, 1, 6}, h.k = 9, h.x.resize(9), h.col_ind = {9, 1, 4, 2, 3}, h.vector();
     }},
    {"", [](Host& h) { h.csr(), h.val[0] = 9, h.csr(2), h.csr(2); }},
    {"",
     [](Host& h) {
         h.csr(), h.c_col_ind = Ints(h.c_col_ind.begin(), h.c_col_ind.begin() + 4), h.csr(2);
     }}, // compressed
    {"", // a count without arrays, its finish
     [](Host& h) {
         Host count = h;
         count.c_val = Doubles(), count.c_col_ind = Ints(), count.csr(1);
         h.c_row_ptr = count.c_row_ptr, h.csr(2);
     }},
    {"", // two refreshes at the same time, of one structure
     [](Host& h) {
         h.csr();
         h.stage = 2;
         const auto refresh = [&h](double* values) {
             for (int i = 0; i < 1000; ++i) {
                 h.csr_into(values);
             }
         };
         std::thread other(refresh, h.y.data());
         refresh(h.c_val.data());
         other.join();
     }},
    {"", // a row of B left out that meets no entry of A
     [](Host& h) {
         h.row_ptr[3] = 5;
         Host piece = h;
         piece.n = 1, piece.b_row_ptr = {1, 3}, piece.csr();
         h.c_row_ptr = piece.c_row_ptr, h.c_col_ind = piece.c_col_ind, h.csr(2);
     }},
    {"", // a product without entries
     [](Host& h) {
         h.row_ptr = {1, 2, 2, 2}, h.col_ind[0] = 3, h.csr();
         h.c_val = Doubles(), h.c_col_ind = Ints(), h.csr(2);
         h.csr(1), h.csr(2);
     }},
    {"", // no memory to compare B, which has a column that A has not, nor for the columns of a row
     [](Host& h) {
         h.k = 6400, h.col_ind = {3, 1, 2, 3, 1}, h.csr();
         missing_elements = 101, h.csr(2);
     }},
    {"", // left by jumps, and by a thread that ends then
     [](Host& h) {
         double* const page = read_only();
         const auto leave = [&h, page] { jump_out(SIGSEGV, [&h, page] { h.vector(h.x.data(), page); }); };
         qz_mkl_set_num_threads_int64(1);
         std::thread(leave).join();
         leave(), leave(), leave();
     }},
    {"", // C as an operand, with its columns in MKL's order
     [](Host& h) {
         h.csr();
         spgmatgvec_mkl_G_int64(h.c_val.data(), h.c_col_ind.data(), h.c_row_ptr.data(), h.x.data(), 3, 2, h.y.data());
     }},
    {"", // forks while another thread calls: the child has no such thread, and finds no lock taken
     [](Host& h) {
         std::atomic<bool> ends{false};
         std::thread other([&] {
             while (!ends) {
                 qz_mkl_set_num_threads_int64(1);
                 std::this_thread::yield();
             }
         });
         int status = 0;
         for (int i = 0; i < 15 && status == 0; ++i) {
             if (const pid_t child = fork(); child == 0) {
                 h.n = 0, h.dense(); // a note
                 _exit(0);
             } else {
                 waitpid(child, &status, 0);
             }
         }
         ends = true;
         other.join();
         _exit(status == 0 ? truncate(std::getenv("CSR_PRODUCTS_CHECK_OUTPUT"), 0) : 1);
     }},
};

// A place for each count, of which the table holds 512.
template <int... counts>
void set_counts(std::integer_sequence<int, counts...> /*unused*/) {
    [[maybe_unused]] const int done[] = {(qz_mkl_set_num_threads_int64(-counts), 0)...};
}

TEST(Complaints, AreWrittenForManyPlaces) {
    bool is_ended = true;
    const std::string said = complaints([](Host&) { set_counts(std::make_integer_sequence<int, 600>()); }, is_ended);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 511);
}

INSTANTIATE_TEST_SUITE_P(Notes, Others, testing::ValuesIn(notes));
INSTANTIATE_TEST_SUITE_P(Silent, Others, testing::ValuesIn(silent));

} // namespace
