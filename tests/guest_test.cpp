// The library as a guest in processes like its hosts': loaded, not linked, by a program without OpenMP
// and by one built with GNU OpenMP. Each test runs in a process of its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <future>
#include <numeric>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using Int = std::int64_t;
using Multiply = void(double*, Int*, Int*, double*, Int, Int, double*);

void* load(int flags = RTLD_LOCAL) {
    void* const library = dlopen(CSR_PRODUCTS_LIBRARY, RTLD_NOW | flags);
    EXPECT_NE(library, nullptr) << dlerror();
    return library;
}

Multiply* multiply_of(void* library) {
    return reinterpret_cast<Multiply*>(dlsym(library, "_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_"));
}

// A product large enough for MKL to use its threads: a diagonal of 1, 2, 3 ... by itself.
void expect_product(Multiply* multiply) {
    constexpr Int n = 60000;
    std::vector<double> val(n);
    std::vector<double> y(n);
    std::vector<Int> one_to_n_plus_1(n + 1);
    std::iota(val.begin(), val.end(), 1.0);
    std::iota(one_to_n_plus_1.begin(), one_to_n_plus_1.end(), 1);
    multiply(val.data(), one_to_n_plus_1.data(), one_to_n_plus_1.data(), val.data(), n, n, y.data());
    EXPECT_TRUE(std::equal(y.begin(), y.end(), val.begin(), [](double square, double i) { return square == i * i; }));
}

class GuestScope : public testing::TestWithParam<int> {};

TEST_P(GuestScope, Loaded) {
    expect_product(multiply_of(load(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Flags, GuestScope, testing::Values(RTLD_LOCAL, RTLD_GLOBAL, RTLD_LOCAL | RTLD_DEEPBIND));

// MKL asks for the name of the working folder when it is loaded. There is none in a removed folder, nor at a depth
// where the path has more than 4096 bytes.
class GuestFolder : public testing::TestWithParam<int> {};

TEST_P(GuestFolder, WithoutAName) {
    std::string folder = testing::TempDir() + "csr_products.XXXXXX";
    const std::string deeper(250, 'x');
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    ASSERT_EQ(chdir(folder.c_str()), 0);
    for (int depth = 0; depth < GetParam(); ++depth) {
        ASSERT_EQ(mkdir(deeper.c_str(), 0700) | chdir(deeper.c_str()), 0);
    }
    if (GetParam() == 0) {
        ASSERT_EQ(rmdir(folder.c_str()), 0);
    }
    EXPECT_EQ(getcwd(nullptr, 4096), nullptr);
    expect_product(multiply_of(load()));
    for (int depth = 0; depth < GetParam(); ++depth) {
        ASSERT_EQ(chdir("..") | rmdir(deeper.c_str()), 0);
    }
    ASSERT_EQ(chdir("/"), 0);
    rmdir(folder.c_str());
}

INSTANTIATE_TEST_SUITE_P(Depths, GuestFolder, testing::Values(0, 17));

TEST(Guest, ClosedAndLoadedAgainWhileAThreadThatCalledItEnds) {
    for (int round = 0; round < 20; ++round) {
        void* const library = load();
        std::promise<void> called;
        std::promise<void> closed;
        std::thread caller([&] {
            expect_product(multiply_of(library));
            called.set_value();
            closed.get_future().wait();
        });
        called.get_future().wait();
        EXPECT_EQ(dlclose(library), 0);
        closed.set_value();
        caller.join();
    }
}

// MKL's dynamic library has 32-bit integers; a symbol of one that reached the other would show here.
TEST(Guest, BesideADynamicMklWith32BitIntegers) {
    using Dgemm =
        void(int, int, int, int, int, int, double, const double*, int, const double*, int, double, double*, int);
    void* const dynamic_mkl = dlopen("libmkl_rt.so", RTLD_NOW | RTLD_GLOBAL);
    if (dynamic_mkl == nullptr) {
        GTEST_SKIP() << dlerror();
    }
    auto* const dgemm = reinterpret_cast<Dgemm*>(dlsym(dynamic_mkl, "cblas_dgemm"));
    ASSERT_NE(dgemm, nullptr);
    constexpr int n = 200;
    constexpr std::size_t elements = 40000;
    const std::vector<double> twos(elements, 2.0);
    for (int round = 0; round < 2; ++round) {
        std::vector<double> c(elements, -1.0);
        dgemm(102, 111, 111, n, n, n, 1.0, twos.data(), n, twos.data(), n, 0.0, c.data(), n);
        EXPECT_EQ(c, std::vector<double>(elements, 4.0 * n));
        expect_product(multiply_of(load()));
    }
}

#ifdef _OPENMP
// Each thread of a loop of GNU OpenMP has threads of MKL's of its own. The limit of MKL's runtime holds for the
// thread that sets it, and for none where a count is set. Where the host is on the same runtime, as Clang's are, a
// thread in a loop computes alone.
class GuestOfGnuOpenMp : public testing::TestWithParam<std::tuple<int, int, bool, bool>> {};

TEST_P(GuestOfGnuOpenMp, BetweenAndWithinLoops) {
    const auto [count, of_runtime, alone, alone_in_loop] = GetParam(); // 0: not set
    unsetenv("MKL_NUM_THREADS");
    setenv("OMP_NUM_THREADS", "2", 1);
    setenv("MKL_DYNAMIC", "FALSE", 1); // on one core too
    void* const library = load();
    const auto set = [&](const char* name, int threads) {
        reinterpret_cast<void (*)(int)>(dlsym(library, name))(threads);
    };
    const auto tasks = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    set("_Z28qz_mkl_set_num_threads_int64i", count);
    if (of_runtime > 0) {
        set("omp_set_num_threads", of_runtime);
    }
    expect_product(multiply_of(library));
    EXPECT_EQ(tasks() == 1, alone);
    for (int round = 0; round < 5; ++round) {
#pragma omp parallel num_threads(4)
        expect_product(multiply_of(library));
        expect_product(multiply_of(library));
    }
    const bool one_runtime = dlsym(RTLD_DEFAULT, "__kmpc_fork_call") != nullptr;
    EXPECT_EQ(tasks() == 4, alone_in_loop || one_runtime);
}

INSTANTIATE_TEST_SUITE_P(Limits, GuestOfGnuOpenMp,
                         testing::Values(std::tuple{0, 0, false, false}, std::tuple{1, 0, true, true},
                                         std::tuple{0, 1, true, false}, std::tuple{2, 1, false, false}));
#endif

TEST(Guest, ChildrenOfForksBeforeAndAfterACall) {
    Multiply* const multiply = multiply_of(load());
    for (int round = 0; round < 3; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            expect_product(multiply);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        expect_product(multiply);
    }
}

} // namespace
