// The structures that CSR products left.

#include "checks.h"
#include "lock.h"

#include <cstdlib>
#include <memory>
#include <optional>

namespace csr_products::check {
namespace {

// Operands and what they left, as hashes of structures. A count and a product have nothing in common.
struct Product {
    std::uint64_t a;
    std::uint64_t b;         // without the columns that A has not, which have no effect
    std::uint64_t c;         // of the row pointer alone after a count
    std::uint64_t unordered; // the same for any order of the columns
};

Product products[4096]; // the oldest go first
std::size_t remembered = 0;

// For each entry: its row from 0, and its column.
template <class Visit>
void each_entry(const Sparse& matrix, Visit visit) noexcept {
    for (Int i = 0; i < matrix.rows; ++i) {
        for (Int p = matrix.row_ptr[i] - 1; p < matrix.row_ptr[i + 1] - 1; ++p) {
            visit(as_unsigned(i), as_unsigned(matrix.col_ind[p]));
        }
    }
}

// Nothing where memory runs out.
std::optional<Product> product_of(const Call& call, bool is_count) noexcept {
    const std::unique_ptr<std::uint64_t, decltype(&std::free)> columns(
        static_cast<std::uint64_t*>(std::calloc(static_cast<std::size_t>(call.k / 64) + 1, 8)), std::free);
    std::uint64_t* const in_a = columns.get();
    if (in_a == nullptr) {
        return std::nullopt;
    }
    const Sparse& c = call.c;
    const std::uint64_t start = mix(as_unsigned(call.m), is_count ? 1 : 0);
    Product product{start, start, start, start};
    each_entry(call.a, [&](std::uint64_t i, std::uint64_t j) {
        product.a = mix(product.a, mix(i, j));
        in_a[j / 64] |= std::uint64_t{1} << (j % 64);
    });
    each_entry(call.b, [&](std::uint64_t i, std::uint64_t j) {
        product.b = (in_a[j / 64] >> (j % 64) & 1) != 0 ? mix(product.b, mix(i, j)) : product.b;
    });
    for (Int i = 0; is_count && i < c.rows; ++i) {
        product.c = mix(product.c, as_unsigned(c.row_ptr[i + 1]));
    }
    if (!is_count) {
        each_entry(c, [&](std::uint64_t i, std::uint64_t j) {
            product.c = mix(product.c, mix(i, j));
            product.unordered += mix(i, j);
        });
    }
    return product;
}

// The remembered product of these operands, or null.
Product* product_like(const Product& call) noexcept {
    Product* const end = products + std::min(remembered, std::size(products));
    const auto has_operands = [&](const Product& other) { return other.a == call.a && other.b == call.b; };
    Product* const product = std::find_if(products, end, has_operands);
    return product == end ? nullptr : product;
}

} // namespace

void check_stage(const Call& call, Findings& found) noexcept {
    const bool finishes = call.stage == 2 && is_counted(call.c);
    const std::optional<Product> now = call.stage == 2 ? product_of(call, finishes) : std::nullopt;
    if (!now || (call.c.entries() == 0 && now->b == now->c)) { // both without entries
        return;
    }
    const Lock lock;
    const Product* const same = product_like(*now);
    if (same != nullptr && same->c == now->c) {
        return;
    }
    if (finishes) {
        found.note("c_row_ptr is not what a count of operands with this structure left, and C is computed anew");
    } else if (same != nullptr && same->unordered == now->unordered) {
        found.error("c_col_ind: the columns stand in another order than a product left them");
    } else {
        found.add(same != nullptr, "c_col_ind: no product of these operands in this process left this structure");
    }
}

void remember(const Call& call) noexcept {
    const Sparse& c = call.c;
    const bool is_count = call.stage == 1;
    if (c.row_ptr == nullptr || (!is_count && c.col_ind == nullptr) || c.row_ptr[0] != 1 ||
        !std::is_sorted(c.row_ptr, c.row_ptr + c.rows + 1) ||
        (!is_count && accessible(array("", c.col_ind, c.entries())) < c.entries())) {
        return; // the structure is not there as a whole, or memory ran out
    }
    if (const std::optional<Product> now = product_of(call, is_count)) {
        const Lock lock;
        Product* const same = product_like(*now);
        (same != nullptr ? *same : products[remembered++ % std::size(products)]) = *now;
    }
}

} // namespace csr_products::check
