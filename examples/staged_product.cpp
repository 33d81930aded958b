// The sparse product C := A*B^T three ways: in one call, by a count and its finish, and a refresh of the values.

#include <csr_products.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

struct Csr {
    std::int64_t rows, cols;
    std::vector<double> val;
    std::vector<std::int64_t> col_ind, row_ptr;
};

// c.val and c.col_ind hold rows * cols elements, however few of them the product stores.
void multiply(std::int64_t stage, Csr& a, Csr& b, Csr& c) {
    std::int64_t ignored = 0;
    // clang-format off
    spgmatspgmattr_mkl_int64_new(
        stage, c.rows, a.cols, c.cols,
        a.val.data(), a.col_ind.data(), a.row_ptr.data(),
        b.val.data(), b.col_ind.data(), b.row_ptr.data(),
        ignored, c.val.data(), c.col_ind.data(), c.row_ptr.data(), ignored);
    // clang-format on
}

// Keeps the stored entries alone, in the order in which the product left them. A refresh needs no more.
void compress(Csr& c) {
    const auto stored = static_cast<std::size_t>(c.row_ptr.back() - 1);
    c.val.resize(stored);
    c.col_ind.resize(stored);
    c.val.shrink_to_fit();
    c.col_ind.shrink_to_fit();
}

void print(const char* title, const Csr& c) {
    std::printf("%s:", title);
    for (std::size_t row = 0; row + 1 < c.row_ptr.size(); ++row) {
        for (auto p = static_cast<std::size_t>(c.row_ptr[row] - 1); p + 1 < std::size_t(c.row_ptr[row + 1]); ++p) {
            std::printf(" (%zu, %d) = %g", row + 1, int(c.col_ind[p]), c.val[p]);
        }
    }
    std::puts("");
}

} // namespace

int main() {
    Csr a{2, 3, {2.0, 1.0, 3.0}, {1, 2, 3}, {1, 2, 4}};    // (2 0 0; 0 1 3)
    Csr b{3, 3, {1.0, 5.0, 4.0}, {1, 3, 2}, {1, 2, 3, 4}}; // (1 0 0; 0 0 5; 0 4 0)
    Csr c{2, 3, std::vector<double>(6), std::vector<std::int64_t>(6), std::vector<std::int64_t>(3)};
    Csr staged = c;

    multiply(0, a, b, c);
    print("one call", c);

    multiply(1, a, b, staged);
    std::printf("counted: %d entries\n", int(staged.row_ptr.back() - 1));
    multiply(2, a, b, staged);
    print("finished", staged);

    compress(c);
    a.val = {20.0, 10.0, 30.0};
    multiply(2, a, b, c);
    print("refreshed", c);
}
