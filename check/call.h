#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string_view>

namespace csr_products::check {

using Int = std::int64_t;

constexpr std::uint64_t as_unsigned(Int value) noexcept {
    return static_cast<std::uint64_t>(value);
}

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t value) noexcept {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 32);
}

constexpr Int most_elements = std::numeric_limits<Int>::max();

enum Property : unsigned { General = 0, Symmetric = 1, Transposed = 2, Accumulates = 4, NamedSum = 8, Long = 16 };

// One of the thirteen functions, and what was counted of it.
struct Entry {
    const char* symbol;
    unsigned properties = General;
    std::atomic<void*> real{nullptr}; // the function of the library that computes
    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint64_t> nanoseconds{0};

    // The name stands in the symbol behind "_Z" and its own length, which has two digits.
    std::string_view name() const noexcept {
        return {symbol + 4, static_cast<std::size_t>((symbol[2] - '0') * 10 + symbol[3] - '0')};
    }
};

// Memory that a call reads or writes. All elements have eight bytes.
struct Block {
    const char* name;
    const void* data;
    Int rows;
    Int columns;
    Int leading_dimension;
    bool written;

    // Elements from the first to the last, or as many as there can be.
    Int extent() const noexcept {
        Int elements = 0;
        const bool overflows = __builtin_mul_overflow(columns - 1, leading_dimension, &elements) ||
                               __builtin_add_overflow(elements, rows, &elements);
        return rows <= 0 || columns <= 0 ? 0 : overflows ? most_elements : elements;
    }
};

inline Block array(const char* name, const void* data, Int elements, bool written = false) noexcept {
    return {name, data, elements, 1, elements, written};
}

// The arrays of a call that are there as a whole: at most those of A, B and C.
struct Blocks {
    Block blocks[9];
    int count = 0;

    void add(const Block& block) noexcept { blocks[count++] = block; }
    const Block* begin() const noexcept { return blocks; }
    const Block* end() const noexcept { return blocks + count; }
};

struct SparseNames {
    const char* val;
    const char* col_ind;
    const char* row_ptr;
};

inline constexpr SparseNames OnlyNames{"val", "col_ind", "row_ptr"};
inline constexpr SparseNames ANames{"a_val", "a_col_ind", "a_row_ptr"};
inline constexpr SparseNames BNames{"b_val", "b_col_ind", "b_row_ptr"};
inline constexpr SparseNames CNames{"c_val", "c_col_ind", "c_row_ptr"};

struct Sparse {
    const SparseNames* names;
    Int rows;
    Int cols;
    const double* val;
    const Int* col_ind;
    const Int* row_ptr;

    // Only of a row pointer that was checked.
    Int entries() const noexcept { return row_ptr[rows] - 1; }
};

enum class Form { Vector, Matrix, SparseDense, SparseCsr, ThreadCount };

struct Call {
    Form form = Form::Vector;
    Entry* entry = nullptr;
    Int m = 0;
    Int k = 0;
    Int n = 1;
    Sparse a{};
    Sparse b{};     // of the products of two sparse matrices
    Block dense{};  // B or x
    Block output{}; // a dense one, or the name C alone
    Sparse c{};     // of the CSR product
    Int stage = 0;  // of the CSR product
    int threads = 0;

    const void* caller = nullptr;
    Blocks blocks{};
    std::uint64_t number = 0; // in the process
    std::uint64_t start = 0;  // nanoseconds
    Call* next = nullptr;     // among the running calls
    bool leaves_structure = false;

    bool has(Property property) const noexcept { return (entry->properties & property) != 0; }
    bool is_sparse_by_sparse() const noexcept { return form == Form::SparseDense || form == Form::SparseCsr; }
};

// The arguments of each form of call, as its entries take them.
// clang-format off

inline Call describe(Entry& entry, double* val, Int* col_ind, Int* row_ptr, double* x, Int m, Int k, double* y) noexcept {
    return {Form::Vector, &entry, m, k, 1, {&OnlyNames, m, k, val, col_ind, row_ptr}, {}, array("x", x, k), array("y", y, m, true)};
}

inline Call describe(Entry& entry, double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                     double* c, Int ldc) noexcept {
    const bool transposed = (entry.properties & Transposed) != 0;
    return {Form::Matrix, &entry, m, k, n, {&OnlyNames, m, k, val, col_ind, row_ptr}, {},
            {"b", b, transposed ? m : k, n, ldb, false}, {"c", c, transposed ? k : m, n, ldc, true}};
}

inline Call describe(Entry& entry, double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept {
    return describe(entry, val, col_ind, row_ptr, b, k, m, k, n, c, m);
}

inline Call describe(Entry& entry, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                     double* b_val, Int* b_col_ind, Int* b_row_ptr, double* c) noexcept {
    return {Form::SparseDense, &entry, m, k, n, {&ANames, m, k, a_val, a_col_ind, a_row_ptr},
            {&BNames, n, k, b_val, b_col_ind, b_row_ptr}, {}, {"c", c, m, n, m, true}};
}

inline Call describe(Entry& entry, Int stage, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                     double* b_val, Int* b_col_ind, Int* b_row_ptr, Int /*ignored_count*/,
                     double* c_val, Int* c_col_ind, Int* c_row_ptr, Int* /*ignored_result*/) noexcept {
    return {Form::SparseCsr, &entry, m, k, n, {&ANames, m, k, a_val, a_col_ind, a_row_ptr},
            {&BNames, n, k, b_val, b_col_ind, b_row_ptr}, {}, {"C", nullptr, m, n, m, true},
            {&CNames, m, n, c_val, c_col_ind, c_row_ptr}, stage};
}

inline Call describe(Entry& entry, int threads) noexcept {
    return {Form::ThreadCount, &entry, 0, 0, 0, {}, {}, {}, {}, {}, 0, threads};
}

// clang-format on

} // namespace csr_products::check
