#include "checks.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <xmmintrin.h>

namespace csr_products::check {
namespace {

// What the library does to the output when it cannot wrap A: a product of a dense matrix or a vector clears m*k
// elements, modulo 2^64, and the others do nothing.
Text<100> refusal(const Call& call) noexcept {
    const auto cleared = static_cast<Int>(as_unsigned(call.m) * as_unsigned(call.k));
    const char* const output = call.output.name;
    if (call.is_sparse_by_sparse() || cleared <= 0) {
        return Text<100>("{} is left as it was", output);
    }
    Text<100> text("{} elements of {} are set to 0", cleared, output);
    if (const Int behind = cleared - call.output.extent(); behind > 0) {
        text.append(", {} of them behind its end", behind);
    }
    return text;
}

// Whether anything is computed with these dimensions, or the pointers of A must be looked at first: where A cannot be
// wrapped, n has no effect.
bool check_dimensions(const Call& call, Findings& found) noexcept {
    if (call.m < 0 || call.k < 0) {
        const bool is_m = call.m < 0;
        return found.error("{} = {} is negative, so {}", is_m ? "m" : "k", is_m ? call.m : call.k,
                           refusal(call).view());
    }
    const bool transposed = call.has(Transposed);
    const Int summed = transposed ? call.m : call.k;
    if ((transposed ? call.k : call.m) == 0) {
        return false; // C has no rows
    }
    if (summed > 0 && (call.a.row_ptr == nullptr || call.a.col_ind == nullptr)) {
        return true;
    }
    const Int* const c_end = call.c.row_ptr == nullptr || call.stage == 2 ? nullptr : call.c.row_ptr + call.m;
    if (call.n == 0 && c_end != nullptr && (accessible(array("", c_end, 1)) == 0 || *c_end != 1)) {
        found.error("n = 0: {} is left as it was, not set to 1", call.c.names->row_ptr);
    } else if (call.n == 0) {
        found.note("n = 0: nothing is computed");
    } else if (call.n < 0) {
        found.error("n = {} is negative, so {} is left as it was", call.n, call.output.name);
    } else if (summed == 0 && !call.has(Accumulates)) {
        found.error("{} = 0: {} is left as it was, not set to 0", transposed ? "m" : "k", call.output.name);
    }
    return call.n > 0 && summed > 0;
}

// Whether the array is there as a whole, and an output can be written.
bool check_bounds(const Block& block, Findings& found) noexcept {
    if (const Int there = accessible(block); there < block.extent()) {
        return block.data == nullptr
                   ? found.error("{} is null", block.name)
                   : found.error("{} ends after {} of {} elements", block.name, there, block.extent());
    }
    return !block.written || block.extent() == 0 || is_writable(block) ||
           found.error("{} cannot be written", block.name);
}

// What an index that is out of range may be, where the right ones are not above `most`.
const char* hint(Int index, Int most) noexcept {
    const std::uint64_t low = as_unsigned(index) % (std::uint64_t{1} << 32);
    const std::uint64_t high = as_unsigned(index) >> 32;
    const bool is_pair = high > 0 && std::max(low, high) <= as_unsigned(most) + 1; // a row pointer ends behind a row
    const bool is_double = high >= 0x3FF00000 && high < 0x43E00000;                // from 1 to 2^63
    return index == 0 ? "; indices count from 1" : is_pair ? "; 32-bit integers?" : is_double ? "; doubles?" : "";
}

// Whether the row pointer can be followed.
bool check_row_pointer(const Sparse& matrix, Findings& found) noexcept {
    const char* const name = matrix.names->row_ptr;
    const Int* const row_ptr = matrix.row_ptr;
    if (!check_bounds(array(name, row_ptr, std::min(matrix.rows, most_elements - 1) + 1), found)) {
        return false;
    }
    if (const Int first = row_ptr[0]; first != 1) {
        const bool is_unset = matrix.names == &CNames && first == 0 && row_ptr[matrix.rows] == 0;
        return found.error("{}[0] is {}, not 1{}", name, first,
                           is_unset ? "; no count or product left it" : hint(first, matrix.cols));
    }
    const Int i = std::is_sorted_until(row_ptr, row_ptr + matrix.rows + 1) - row_ptr;
    return i > matrix.rows ||
           found.error("{}[{}] is {}, less than {}[{}], which is {}", name, i, row_ptr[i], name, i - 1, row_ptr[i - 1]);
}

// Whether each row of [first, last) has its columns in ascending order, from 1 to cols. The loop over all entries has
// no branches: it collects signs. The descents that it counts between two rows are subtracted.
[[gnu::target_clones("avx2", "default")]] bool are_ascending(const Sparse& matrix, Int first, Int last) noexcept {
    const Int* const col_ind = matrix.col_ind - 1;
    const Int begin = matrix.row_ptr[first];
    const Int end = matrix.row_ptr[last];
    const std::uint64_t cols = as_unsigned(matrix.cols);
    const auto sign = [](std::uint64_t difference) { return difference >> 63; };
    const auto descent = [&](Int p) { return sign(as_unsigned(col_ind[p]) - as_unsigned(col_ind[p - 1]) - 1); };
    std::uint64_t outside = 0;
    std::uint64_t descents = 0;
    for (Int p = begin; p < end; ++p) {
        const std::uint64_t column = as_unsigned(col_ind[p]);
        outside |= (column - 1) | (cols - column);
        descents += p > begin ? descent(p) : 0;
    }
    for (Int i = first + 1; i < last; ++i) {
        const Int start = matrix.row_ptr[i];
        descents -= start > begin && start < matrix.row_ptr[i + 1] ? descent(start) : 0;
    }
    return sign(outside) == 0 && descents == 0;
}

// Whether the columns are in range, and each at most once in its row. Rows count from 1 in what is reported.
bool check_columns(const Sparse& matrix, Findings& found) noexcept {
    constexpr Int rows_at_once = 64; // so that the second loop finds the columns in the nearest cache
    const char* const name = matrix.names->col_ind;
    std::unique_ptr<std::uint64_t, decltype(&std::free)> seen(nullptr, std::free);
    for (Int i = 0; i < matrix.rows; ++i) {
        if (i % rows_at_once == 0 && are_ascending(matrix, i, std::min(i + rows_at_once, matrix.rows))) {
            i += rows_at_once - 1;
            continue;
        }
        const Int* const begin = matrix.col_ind + matrix.row_ptr[i] - 1;
        const Int* const end = matrix.col_ind + matrix.row_ptr[i + 1] - 1;
        const auto is_outside = [&](Int column) { return column < 1 || column > matrix.cols; };
        if (const Int* const outside = std::find_if(begin, end, is_outside); outside != end) {
            return found.error("{}: column {} in row {} is outside 1...{}{}", name, *outside, i + 1, matrix.cols,
                               hint(*outside, matrix.cols));
        }
        if (seen == nullptr) {
            seen.reset(static_cast<std::uint64_t*>(std::calloc(static_cast<std::size_t>(matrix.cols / 64) + 1, 8)));
        }
        std::uint64_t* const bits = seen.get(); // of the columns, and zero again afterwards; null without memory
        const auto is_seen = [&](Int column) {
            const std::uint64_t bit = std::uint64_t{1} << (column % 64);
            return (std::exchange(bits[column / 64], bits[column / 64] | bit) & bit) != 0;
        };
        const Int* const twice = bits == nullptr ? end : std::find_if(begin, end, is_seen);
        if (twice != end) {
            return found.error("{}: column {} stands twice in row {}", name, *twice, i + 1);
        }
        std::for_each(begin, bits == nullptr ? begin : end, [&](Int column) { bits[column / 64] = 0; });
    }
    return true;
}

// Whether A or B is a matrix that the library can take.
bool check_operand(Call& call, const Sparse& matrix, Findings& found) noexcept {
    const SparseNames& names = *matrix.names;
    if (matrix.row_ptr == nullptr || (matrix.col_ind == nullptr && matrix.val != nullptr)) {
        const char* const name = matrix.row_ptr == nullptr ? names.row_ptr : names.col_ind;
        return found.error("{} is null, so {}", name, refusal(call).view());
    }
    if (!check_row_pointer(matrix, found)) {
        return false;
    }
    const Int entries = matrix.entries();
    if (matrix.col_ind == nullptr) {
        found.error("{} and {} are null, and releases of MKL differ in what they do then", names.val, names.col_ind);
    } else if (&matrix == &call.b && entries == 0) {
        found.error("B has no entries, so C is left as it was");
    } else if (matrix.val == nullptr && entries > 0) {
        found.error("{} is null, and {} has {} entries", names.val, &matrix == &call.b ? "B" : "A", entries);
    } else if (matrix.val == nullptr && (call.form == Form::Matrix || call.form == Form::SparseDense)) {
        found.error("{} is null, so {} is left as it was", names.val, call.output.name);
    } else {
        const Block val = array(names.val, matrix.val, entries);
        const Block col_ind = array(names.col_ind, matrix.col_ind, entries);
        if (matrix.val == nullptr) {
            found.note("{} is null; give a matrix without entries one element", names.val);
        }
        if (check_bounds(val, found) && check_bounds(col_ind, found) && check_columns(matrix, found)) {
            call.blocks.add(val);
            call.blocks.add(col_ind);
            call.blocks.add(array(names.row_ptr, matrix.row_ptr, matrix.rows + 1));
            return true;
        }
    }
    return false;
}

// Whether the arrays of a product with a dense matrix have a place for each element.
bool check_shapes(const Call& call, Findings& found) noexcept {
    const bool is_square = call.m == call.k;
    if (call.has(Symmetric) && !is_square) {
        return found.error("m = {} and k = {} differ, and a symmetric A is square", call.m, call.k);
    }
    if (call.has(Transposed)) {
        return is_square || call.n == 1 ||
               found.error("m = {} and k = {} differ and n = {}: pass A as a square matrix", call.m, call.k, call.n);
    }
    bool fits = true;
    for (const auto& [letter, block] : {std::pair{'B', call.dense}, {'C', call.output}}) {
        if (block.leading_dimension < block.rows) {
            fits = found.error("ld{} = {} is less than the {} rows of {}", block.name, block.leading_dimension,
                               block.rows, letter);
        }
    }
    return fits;
}

// The output arrays of the CSR product, as far as this stage uses them. A refresh writes the values alone.
void check_csr_outputs(Call& call, Findings& found) noexcept {
    const Sparse& c = call.c;
    bool refreshes = false;
    if (call.stage == 2) {
        if (c.row_ptr != nullptr && (!check_row_pointer(c, found) || c.entries() == 0)) {
            return;
        }
        if (c.row_ptr == nullptr || c.col_ind == nullptr) {
            found.error("{} is null, so stage 2 writes nothing",
                        c.row_ptr == nullptr ? c.names->row_ptr : c.names->col_ind);
            return;
        }
        refreshes = !is_counted(c);
    }
    const Int stored = refreshes ? c.entries() : call.output.extent();
    for (const Block& output :
         {array(c.names->val, c.val, stored, true), array(c.names->col_ind, c.col_ind, stored, !refreshes),
          array(c.names->row_ptr, c.row_ptr, call.m + 1, !refreshes)}) {
        if (output.data != nullptr && check_bounds(output, found)) {
            call.blocks.add(output);
        }
    }
    if (refreshes && !found.has_errors && check_columns(c, found) && c.val == nullptr) {
        found.note("{} is null, so stage 2 writes nothing", c.names->val);
    }
}

void check_overlaps(const Call& call, Findings& found) noexcept {
    for (const Block& output : call.blocks) {
        for (const Block& other : call.blocks) {
            const bool is_known = other.written && &other <= &output;
            if (output.written && !is_known && overlap(output, other)) {
                found.error("{} overlaps {}", output.name, other.name);
            }
        }
    }
}

std::uint64_t bits_of(const double& value) noexcept {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits == std::uint64_t{1} << 63 ? 0 : bits; // -0.0 is 0.0
}

// A symmetric A is given by its entries on and above the diagonal. Those below are compared by a sum of hashes.
void note_lower_triangle(const Sparse& a, Findings& found) noexcept {
    std::uint64_t difference = 0;
    bool has_lower = false;
    for (Int i = 1; i <= a.rows; ++i) {
        for (Int p = a.row_ptr[i - 1] - 1; p < a.row_ptr[i] - 1; ++p) {
            const Int j = a.col_ind[p];
            const std::uint64_t hash =
                mix(mix(as_unsigned(std::min(i, j)), as_unsigned(std::max(i, j))), bits_of(a.val[p]));
            has_lower |= j < i;
            difference += j == i ? 0 : j > i ? hash : 0 - hash;
        }
    }
    if (has_lower && difference != 0) {
        found.note("the entries of A below the diagonal are not those above, and have no effect");
    }
}

void note_meaning(const Call& call, Findings& found) noexcept {
    const Block& c = call.output;
    if (call.has(Symmetric)) {
        note_lower_triangle(call.a, found);
    }
    for (Int j = 0; call.has(NamedSum) && j < c.columns; ++j) {
        const double* const column = static_cast<const double*>(c.data) + j * c.leading_dimension;
        if (std::any_of(column, column + c.rows, [](const double& value) { return bits_of(value) != 0; })) {
            found.note("c holds values, and they are not added to");
            return;
        }
    }
}

} // namespace

bool is_counted(const Sparse& c) noexcept {
    return c.entries() > 0 && accessible(array("", c.col_ind, 1)) == 1 && c.col_ind[0] == 0;
}

bool overlap(const Block& one, const Block& other) noexcept {
    constexpr Int size = sizeof(double);
    const auto first = reinterpret_cast<std::intptr_t>(one.data);
    const auto other_first = reinterpret_cast<std::intptr_t>(other.data);
    if (one.extent() == 0 || other.extent() == 0 || first + one.extent() * size <= other_first ||
        other_first + other.extent() * size <= first) {
        return false;
    }
    // Each column of one against the first column of the other that ends behind its start.
    for (Int j = 0; j < one.columns; ++j) {
        const std::intptr_t begin = first + j * one.leading_dimension * size;
        const std::intptr_t behind = begin - other_first - other.rows * size;
        const Int column = behind < 0 ? 0 : behind / (other.leading_dimension * size) + 1;
        if (column < other.columns && other_first + column * other.leading_dimension * size < begin + one.rows * size) {
            return true;
        }
    }
    return false;
}

bool check_arguments(Call& call, Findings& found) noexcept {
    if (call.form == Form::ThreadCount) {
        if (call.threads <= 0) {
            found.note("count = {}: the thread count stays as it was", call.threads);
        }
        return false;
    }
    if ((_mm_getcsr() & _MM_MASK_MASK) != _MM_MASK_MASK) {
        found.note("floating-point traps are enabled, and MKL may raise exceptions on the way to a right result");
    }
    if (call.stage < 0 || call.stage > 2) {
        found.note("stage = {} is none of 0, 1 and 2, and works as 0", call.stage);
    }
    if (!check_dimensions(call, found)) {
        return false;
    }
    const bool has_a = check_operand(call, call.a, found);
    const bool has_null = call.a.val == nullptr || call.a.col_ind == nullptr || call.a.row_ptr == nullptr;
    if ((has_null && !has_a) || (call.is_sparse_by_sparse() && (!check_operand(call, call.b, found) || !has_a))) {
        return false; // C is not computed, or anything may happen
    }
    if (call.form == Form::SparseCsr) {
        check_csr_outputs(call, found);
    } else if (check_shapes(call, found)) {
        for (const Block& block : {call.dense, call.output}) {
            if (block.rows > 0 && check_bounds(block, found)) {
                call.blocks.add(block);
            }
        }
        if (!found.has_errors && RUNNING_ON_VALGRIND == 0) { // which would report values that need not be defined
            note_meaning(call, found);
        }
    }
    check_overlaps(call, found);
    return !found.has_errors;
}

} // namespace csr_products::check
