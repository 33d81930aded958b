#include "history.h"

#include "bounds.h"
#include "checks.h"
#include "report.h"

#include <cstdlib>
#include <memory>
#include <utility>

namespace csr_products::check {
namespace {

// What one call left, and of which operands, as hashes of structures.
struct Product {
    std::uint64_t c;         // of the lengths of its rows alone after a count
    std::uint64_t unordered; // the same for any order of the columns
    std::uint64_t a;
    std::uint64_t b; // without the columns that A has not, which have no effect
    Int m, k, n;
};

Product products[4096]; // the oldest go first
std::size_t remembered = 0;
bool forgets = false; // a product is not there

// The rows that products left: a bit for each shape of a row of C with that of its row of A. Two may share a bit, so
// that an unknown row is taken for a known one, and never the other way round.
constexpr std::size_t row_bits = std::size_t{1} << 23;
std::atomic<std::uint64_t> rows_left[row_bits / 64];

std::uint64_t mix(std::uint64_t hash, std::uint64_t value) noexcept {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 32);
}

// For each entry: its row from 0, and its column.
template <class Visit>
void each_entry(const Sparse& matrix, Visit visit) noexcept {
    for (Int i = 0; i < matrix.rows; ++i) {
        for (Int p = matrix.row_ptr[i] - 1; p < matrix.row_ptr[i + 1] - 1; ++p) {
            visit(as_unsigned(i), as_unsigned(matrix.col_ind[p]));
        }
    }
}

Product product_of(const Call& call, bool is_count) noexcept {
    const Sparse& c = call.c;
    const std::uint64_t start = as_unsigned(call.m);
    Product product{start, start, start, start, call.m, call.k, call.n};
    const std::unique_ptr<std::uint64_t, decltype(&std::free)> columns(
        static_cast<std::uint64_t*>(std::calloc(static_cast<std::size_t>(call.k / 64) + 1, 8)), std::free);
    std::uint64_t* const in_a = columns.get();
    each_entry(call.a, [&](std::uint64_t i, std::uint64_t j) {
        product.a = mix(product.a, mix(i, j));
        if (in_a != nullptr) {
            in_a[j / 64] |= std::uint64_t{1} << (j % 64);
        }
    });
    each_entry(call.b, [&](std::uint64_t i, std::uint64_t j) {
        const bool has_effect = in_a == nullptr || (in_a[j / 64] >> (j % 64) & 1) != 0;
        product.b = has_effect ? mix(product.b, mix(i, j)) : product.b;
    });
    for (Int i = 0; is_count && i < c.rows; ++i) {
        const Int length = c.row_ptr[i + 1] - c.row_ptr[i];
        product.c = product.unordered =
            length > 0 ? mix(product.c, mix(as_unsigned(i), as_unsigned(length))) : product.c;
    }
    if (!is_count) {
        each_entry(c, [&](std::uint64_t i, std::uint64_t j) {
            product.c = mix(product.c, mix(i, j));
            product.unordered += mix(i, j);
        });
    }
    return product;
}

// What a row keeps when its columns are numbered anew in the same order: its length, and where the columns descend.
std::uint64_t shape_of_row(const Sparse& matrix, Int i) noexcept {
    const Int begin = matrix.row_ptr[i] - 1;
    const Int end = matrix.row_ptr[i + 1] - 1;
    std::uint64_t hash = as_unsigned(end - begin);
    for (Int p = begin + 1; p < end; ++p) {
        hash = mix(hash, matrix.col_ind[p] < matrix.col_ind[p - 1] ? 1 : 0);
    }
    return hash;
}

// The bit of a row, and the word that holds it.
std::pair<std::atomic<std::uint64_t>*, std::uint64_t> bit_of_row(const Call& call, Int i) noexcept {
    const std::uint64_t bit = mix(mix(1, shape_of_row(call.a, i)), shape_of_row(call.c, i)) % row_bits;
    return {&rows_left[bit / 64], std::uint64_t{1} << (bit % 64)};
}

bool are_rows_left(const Call& call) noexcept {
    for (Int i = 0; i < call.m; ++i) {
        const auto [word, bit] = bit_of_row(call, i);
        if (call.c.row_ptr[i] < call.c.row_ptr[i + 1] && (*word & bit) == 0) {
            return false;
        }
    }
    return true;
}

// How much a product has in common with one before it, the most first.
enum class Likeness { Same, OtherOrder, OtherB, OtherA, OtherDimensions, None };

Likeness compare(const Product& one, const Product& other) noexcept {
    const bool same_dimensions = one.m == other.m && one.k == other.k && one.n == other.n;
    const bool same_operands = one.a == other.a && one.b == other.b;
    if (one.unordered != other.unordered || (one.c != other.c && !same_operands)) {
        return Likeness::None;
    }
    if (same_operands) {
        return one.c == other.c ? Likeness::Same : Likeness::OtherOrder;
    }
    return !same_dimensions ? Likeness::OtherDimensions : one.a == other.a ? Likeness::OtherB : Likeness::OtherA;
}

Likeness find(const Product& product, bool& has_smaller) noexcept {
    auto best = Likeness::None;
    for (std::size_t i = 0; i < std::min(remembered, std::size(products)); ++i) {
        const Product& other = products[i];
        best = std::min(best, compare(product, other));
        has_smaller |= other.m <= product.m && other.k <= product.k && other.n <= product.n &&
                       (other.m < product.m || other.k < product.k || other.n < product.n);
    }
    return best;
}

} // namespace

std::atomic<std::uint64_t> repeated_structures{0};

void check_stage(const Call& call, Findings& found) noexcept {
    if (call.stage != 2) {
        return;
    }
    const bool finishes = is_counted(call.c);
    const Product product = product_of(call, finishes);
    const Lock lock;
    bool has_pieces = false;
    const Likeness likeness = find(product, has_pieces);
    const bool is_from_pieces = has_pieces && are_rows_left(call);
    if (likeness == Likeness::Same) {
        return;
    }
    if (finishes) {
        found.note("c_row_ptr is not what a count of operands with this structure left, and C is computed anew");
    } else if (likeness == Likeness::OtherOrder) {
        found.error("c_col_ind: the columns stand in another order than a product left them");
    } else if (forgets || is_from_pieces || likeness == Likeness::OtherDimensions) {
        found.note("C is not what one product left, and is taken for one that was put together from several");
    } else if (likeness == Likeness::None) {
        found.error("c_col_ind: no product in this process left this structure");
    } else {
        found.error("{} has another structure than at the product that left C",
                    likeness == Likeness::OtherA ? "A" : "B");
    }
}

void remember(const Call& call) noexcept {
    const Sparse& c = call.c;
    const bool is_count = call.stage == 1;
    if (c.row_ptr == nullptr || (!is_count && c.col_ind == nullptr)) {
        forgets = true; // its structure may come from two calls
        return;
    }
    if (c.row_ptr[0] != 1 || !std::is_sorted(c.row_ptr, c.row_ptr + c.rows + 1) ||
        (!is_count && accessible(array("", c.col_ind, c.entries())) < c.entries())) {
        return; // memory ran out
    }
    const Product product = product_of(call, is_count);
    for (Int i = 0; !is_count && i < call.m; ++i) {
        const auto [word, bit] = bit_of_row(call, i);
        *word |= bit;
    }
    const Lock lock;
    bool has_smaller = false;
    if (find(product, has_smaller) != Likeness::Same) {
        forgets |= remembered >= std::size(products);
        products[remembered++ % std::size(products)] = product;
    } else if (!is_count) {
        ++repeated_structures;
    }
}

} // namespace csr_products::check
