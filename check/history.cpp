#include "history.h"

#include "bounds.h"
#include "checks.h"
#include "report.h"

#include <numeric>
#include <utility>

namespace csr_products::check {
namespace {

// What one call left, and of which operands, as hashes of structures.
struct Product {
    bool is_count; // C is then the row pointer alone
    std::uint64_t c;
    std::uint64_t unordered; // C with its columns in any order
    std::uint64_t a;
    std::uint64_t b;
    Int m, k, n;
};

Product products[4096]; // the oldest go first
std::size_t remembered = 0;
std::uint64_t repeated = 0;

// The rows that products left: a bit for each shape of a row of C with that of its row of A. Two may share a bit, so
// that an unknown row is taken for a known one, and never the other way round.
constexpr std::size_t row_bits = std::size_t{1} << 23;
std::atomic<std::uint64_t> rows_left[row_bits / 64];

std::uint64_t mix(std::uint64_t hash, std::uint64_t value) noexcept {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 32);
}

std::uint64_t mix(std::uint64_t hash, const Int* begin, const Int* end) noexcept {
    return std::accumulate(begin, end, hash, [](std::uint64_t sum, Int value) { return mix(sum, as_unsigned(value)); });
}

std::uint64_t structure_of(const Sparse& matrix) noexcept {
    const std::uint64_t rows = mix(1, matrix.row_ptr, matrix.row_ptr + matrix.rows + 1);
    return mix(rows, matrix.col_ind, matrix.col_ind + matrix.entries());
}

Product product_of(const Call& call, bool is_count) noexcept {
    const Sparse& c = call.c;
    const std::uint64_t rows = mix(1, c.row_ptr, c.row_ptr + c.rows + 1);
    Product product{is_count, rows, rows, structure_of(call.a), structure_of(call.b), call.m, call.k, call.n};
    for (Int i = 0; !is_count && i < c.rows; ++i) {
        for (Int p = c.row_ptr[i] - 1; p < c.row_ptr[i + 1] - 1; ++p) {
            const std::uint64_t entry = mix(as_unsigned(i), as_unsigned(c.col_ind[p]));
            product.c = mix(product.c, entry);
            product.unordered += entry;
        }
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
enum class Likeness { Same, OtherB, OtherA, OtherDimensions, OtherOrder, None };

Likeness compare(const Product& one, const Product& other) noexcept {
    if (one.is_count != other.is_count || one.unordered != other.unordered) {
        return Likeness::None;
    }
    if (one.c != other.c) {
        return Likeness::OtherOrder;
    }
    if (one.a == other.a && one.b == other.b) {
        return Likeness::Same;
    }
    if (one.m != other.m || one.k != other.k || one.n != other.n) {
        return Likeness::OtherDimensions;
    }
    return one.a == other.a ? Likeness::OtherB : Likeness::OtherA;
}

Likeness find(const Product& product) noexcept {
    auto best = Likeness::None;
    for (std::size_t i = 0; i < std::min(remembered, std::size(products)); ++i) {
        best = std::min(best, compare(product, products[i]));
    }
    return best;
}

} // namespace

void check_stage(const Call& call, Findings& found) noexcept {
    if (call.stage != 2 || call.c.entries() == 0) {
        return;
    }
    const bool finishes = is_counted(call.c);
    const Product product = product_of(call, finishes);
    const Lock lock;
    const Likeness likeness = find(product);
    const bool is_part = likeness == Likeness::OtherDimensions || remembered > std::size(products);
    if (likeness == Likeness::Same) {
        return;
    }
    if (finishes) {
        found.note("c_row_ptr is not what a count of operands with this structure left, and C is computed anew");
    } else if (likeness == Likeness::OtherA || likeness == Likeness::OtherB) {
        found.error("{} has another structure than at the product that left C",
                    likeness == Likeness::OtherA ? "A" : "B");
    } else if (likeness == Likeness::OtherOrder) {
        found.error("c_col_ind: the columns stand in another order than a product left them");
    } else if (is_part || are_rows_left(call)) {
        found.note("C is not what one product left, and is taken for one that was put together from several");
    } else {
        found.error("c_col_ind: no product in this process left this structure");
    }
}

void remember(const Call& call) noexcept {
    const Sparse& c = call.c;
    const bool is_count = call.stage == 1;
    if (c.row_ptr == nullptr || c.row_ptr[0] != 1 || !std::is_sorted(c.row_ptr, c.row_ptr + c.rows + 1) ||
        (!is_count && accessible(array("", c.col_ind, c.entries())) < c.entries())) {
        return; // memory ran out, or not even the structure was asked for
    }
    const Product product = product_of(call, is_count);
    for (Int i = 0; !is_count && i < call.m; ++i) {
        const auto [word, bit] = bit_of_row(call, i);
        *word |= bit;
    }
    const Lock lock;
    const bool is_known = find(product) == Likeness::Same;
    repeated += is_known && !is_count ? 1 : 0;
    if (!is_known) {
        products[remembered++ % std::size(products)] = product;
    }
}

std::uint64_t repeated_structures() noexcept {
    const Lock lock;
    return repeated;
}

} // namespace csr_products::check
