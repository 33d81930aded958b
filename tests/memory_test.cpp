// Calls for which memory runs out. The program has a malloc of its own, which MKL then calls too.
// A request of at least 8 KB fails on demand. Below that neither MKL nor the OpenMP runtime survives.

#include "../examples/large/local_blocks.h"
#include "entries.h"

#include <atomic>
#include <climits>

extern "C" void* __libc_malloc(std::size_t size);

namespace {

std::atomic<int> requests = 0, first_failure = -1, last_failure = -1;

bool fails(std::size_t size) {
    const int request = size < 8192 ? -2 : requests++;
    return request >= first_failure && request <= last_failure;
}

} // namespace

extern "C" void* malloc(std::size_t size) {
    return fails(size) ? nullptr : __libc_malloc(size);
}

namespace {

constexpr Int n = 300;
constexpr int dense = -1; // in place of a stage

// The product of a full matrix with its own transpose.
void multiply(int stage, CsrArrays& a, CsrArrays& c) {
    if (stage == dense) {
        multiply_dense(n, n, n, a, a, c.val.data());
    } else {
        multiply_csr(stage, n, n, n, a, a, c);
    }
}

CsrArrays full_matrix() {
    CsrArrays a(n * n, n + 1);
    for (Int i = 0; i <= n; ++i) {
        a.row_ptr[size(i)] = i * n + 1;
    }
    for (Int p = 0; p < n * n; ++p) {
        a.col_ind[size(p)] = p % n + 1;
    }
    return a;
}

TEST(OutOfMemory, OutputsStayAndTheNextProductIsRight) {
    CsrArrays a = full_matrix();
    const CsrArrays unwritten(n * n, n + 1);
    CsrArrays product = unwritten;
    CsrArrays counted = unwritten;
    multiply(0, a, product);
    multiply(1, a, counted);
    int failures = 0;
    for (const auto& [stage, before] :
         {std::pair{dense, unwritten}, {0, unwritten}, {1, unwritten}, {2, counted}, {2, product}}) {
        CsrArrays after = before;
        const int first = requests;
        multiply(stage, a, after);
        const int of_a_call = requests - first;
        for (int request = 0; request < 2 * of_a_call; ++request, ++failures) { // each once, and each from there on
            SCOPED_TRACE(testing::Message() << "stage " << stage << ", request " << request << " of " << of_a_call);
            CsrArrays outputs = before;
            first_failure = requests + request % of_a_call;
            last_failure = request < of_a_call ? first_failure.load() : INT_MAX;
            multiply(stage, a, outputs);
            first_failure = last_failure = -1;
            EXPECT_TRUE(outputs == before);
            multiply(stage, a, outputs);
            EXPECT_TRUE(outputs == after);
        }
    }
    EXPECT_GE(failures, 20) << "MKL takes its memory elsewhere";
}

// Never a structure without the rows of a block.
TEST(OutOfMemory, LocalBlocksThrow) {
    CsrArrays a = full_matrix();
    const local_blocks::CsrView view{n, n, a.val.data(), a.col_ind.data(), a.row_ptr.data()};
    const auto structure = [&] { return structure_of_product(view, view, n / 3 + 1).col_ind; };
    const auto expected = structure();
    const int first = requests;
    structure();
    const int of_a_call = requests - first;
    int thrown = 0;
    for (int request = 0; request < of_a_call; ++request) {
        first_failure = last_failure = requests + request;
        try {
            EXPECT_EQ(structure(), expected) << "request " << request << " of " << of_a_call;
        } catch (const std::bad_alloc&) {
            ++thrown;
        }
        first_failure = last_failure = -1;
    }
    EXPECT_GE(thrown, 20);
}

} // namespace
