#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t page_size = 4096;

// Elements that can be read, no more than were asked for; none where the source cannot be read.
template <class T>
struct Readable {
    const T* data;
    std::int64_t count;
};

// A window over an array that may end anywhere, or be unmapped by another thread while it is read.
//
// The arrays of a sparse result are as long as its stored entries, and null after a count request,
// while the copy out of MKL runs over m*n elements. Behind MKL's arrays may lie memory of other
// threads, so asking first and reading later would still fault: the window takes a snapshot, which
// the kernel makes and ends where nothing can be read. If the kernel refuses (a sandbox), the
// elements are the source's own, unchecked.
class SourceWindow {
public:
    static constexpr std::int64_t capacity = 4096; // elements, large enough to hide a system call

    template <class T>
    Readable<T> read(const T* source, std::int64_t count) noexcept {
        static_assert(sizeof(T) == element_size);
        const Readable<void> elements = snapshot(source, count);
        return {static_cast<const T*>(elements.data), elements.count};
    }

private:
    static constexpr std::size_t element_size = 8;

    Readable<void> snapshot(const void* source, std::int64_t count) noexcept;

    // A page more than the capacity: the snapshot lies in its pages as the source does in its own,
    // since the kernel copies several times slower when the two are shifted against each other.
    alignas(page_size) std::byte buffer_[static_cast<std::size_t>(capacity) * element_size + page_size];
};
