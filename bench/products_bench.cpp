// Every product family on matrices of several kinds, by the entry and by its peers, and the machine's
// limit. Names are product/matrix/columns/threads/contender.

#include "contenders.h"
#include "direct_mkl.h"
#include "matrices.h"
#include "matrix_source.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr Int greatest_columns = 32;
constexpr double greatest_difference = 1e-12;
constexpr Int triad_elements = 10'000'000; // of each of three arrays, far beyond the caches

// One, and as many as the machine has.
const std::set<int> thread_counts{1, static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U))};

// What a product moves at the least: A once, B once, C once written, and read where it is not overwritten.
std::int64_t traffic(const HostMatrix& a, const Product& product) {
    const Int c_transfers = product.kind == Product::accumulate ? 2 : 1;
    return 16 * a.stored() + 8 * a.rows() + 8 * product.columns * (a.cols() + c_transfers * a.rows());
}

void add(
    const std::string& name, int threads, std::int64_t bytes, const std::function<void()>& run,
    const std::function<void()>& check = [] {}) {
    const auto checked = std::make_shared<std::once_flag>();
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) {
                                     set_threads(threads);
                                     std::call_once(*checked, check);
                                     run();
                                     for ([[maybe_unused]] auto _ : state) {
                                         run();
                                         benchmark::ClobberMemory();
                                     }
                                     state.SetBytesProcessed(bytes * state.iterations());
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

// A contender whose result is not the entry's is not timed, and ends the program.
void add(const std::string& name, int threads, std::int64_t bytes, const std::shared_ptr<Contest>& contest,
         const Contender& contender) {
    add(name + "/" + contender.name, threads, bytes, contender.run, [=] {
        contest->take_result();
        contest->contenders.front().run();
        const Eigen::MatrixXd expected = contest->take_result();
        contender.run();
        const double difference = (contest->take_result() - expected).norm();
        if (!(difference <= greatest_difference * expected.norm()) || expected.norm() == 0) {
            fmt::print(stderr, "products_bench: {}/{}: not the entry's result\n", name, contender.name);
            std::exit(1);
        }
    });
}

void add_products(const std::string& name, const HostMatrix& a, bool symmetric, bool quick) {
    std::vector<Product> products{{"A*x", Product::plain, 1},        {"A*x+y", Product::accumulate, 1},
                                  {"A*B", Product::plain, 8},        {"A*B", Product::plain, 32},
                                  {"A*B+C", Product::accumulate, 8}, {"A^T*B", Product::transposed, 8}};
    if (symmetric) {
        products.push_back({"S*B", Product::symmetric, 8});
        products.push_back({"S*B", Product::symmetric, 1});
    }
    const auto b = std::make_shared<Eigen::MatrixXd>(Eigen::MatrixXd::Random(a.cols(), greatest_columns));
    const auto c = std::make_shared<Eigen::MatrixXd>(Eigen::MatrixXd::Zero(a.rows(), greatest_columns));
    for (const Product& product : products) {
        const auto peers = std::make_shared<Contest>(contest(a, product, b->data(), c->data()));
        for (const Contender& contender : peers->contenders) {
            for (const int threads : thread_counts) {
                if (quick && (threads != *thread_counts.rbegin() || product.columns == greatest_columns)) {
                    continue;
                }
                add(fmt::format("{}/{}/{}/{}", product.name, name, product.columns, threads), threads,
                    traffic(a, product), peers, {contender.name, [b, c, run = contender.run] { run(); }});
            }
        }
    }
}

void add_transposed(const std::string& product, const std::string& name, const HostMatrix& a, std::int64_t result_bytes,
                    const Contest& contest) {
    const auto peers = std::make_shared<Contest>(contest);
    for (const Contender& contender : peers->contenders) {
        for (const int threads : thread_counts) {
            add(fmt::format("{}/{}/{}/{}", product, name, a.rows(), threads), threads, 32 * a.stored() + result_bytes,
                peers, contender);
        }
    }
}

void add_triad() {
    const auto arrays = std::make_shared<Eigen::MatrixXd>(Eigen::MatrixXd::Ones(triad_elements, 3));
    double* const x = arrays->data();
    for (const int threads : thread_counts) {
        add(fmt::format("limit/triad/1/{}/triad", threads), threads, 24 * triad_elements, [arrays, x, threads] {
#pragma omp parallel for num_threads(threads) schedule(static)
            for (Int i = 0; i < triad_elements; ++i) {
                x[i] = x[triad_elements + i] + 3.0 * x[2 * triad_elements + i];
            }
        });
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv); // leaves what is not its own
    benchmark::AddCustomContext("environment", direct::environment());
    const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
    if (!quick && benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }

    std::map<std::string, HostMatrix> matrices;
    matrices.emplace("4x4", HostMatrix(random_matrix(4, 4, 3)));
    matrices.emplace("poisson-20", HostMatrix(poisson(20)));
    matrices.emplace("poisson-100", HostMatrix(poisson(100)));
    if (!quick) {
        matrices.emplace("random-200k", HostMatrix(random_matrix(200'000, 200'000, 50)));
        matrices.emplace("power-law-200k", HostMatrix(power_law_matrix(200'000, 50)));
    }
    add_triad();
    for (const auto& [name, a] : matrices) {
        add_products(name, a, name.rfind("poisson", 0) == 0, quick);
    }

    const HostMatrix wide(random_matrix(2000, 20'000, 200)); // a full result
    const HostMatrix thin(random_matrix(3000, 300'000, 10)); // a very sparse one
    for (const auto& [name, a] : {std::pair<std::string, const HostMatrix&>{"full", wide}, {"sparse", thin}}) {
        const Int elements = a.rows() * a.rows();
        add_transposed("A*A^T dense", name, a, 8 * elements, transposed_dense_contest(a));
        add_transposed("A*A^T CSR", name, a, 16 * elements, transposed_csr_contest(a));
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
