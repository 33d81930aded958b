#pragma once

#include "findings.h"

#include <pthread.h>

namespace csr_products::check {

// Guards all that the threads share, for a short time. A fork takes it, so that the child finds it free.
struct Lock {
    Lock() noexcept { pthread_mutex_lock(&mutex); }
    ~Lock() { pthread_mutex_unlock(&mutex); }

    static pthread_mutex_t mutex;
};

// Writes one line, and loses it where nothing can be written.
void write_text(std::string_view line) noexcept;

template <class... Values>
void write_line(const char* format, const Values&... values) noexcept {
    write_text(Text<800>(format, values...).view());
}

// Counts a call and its thread. Returns the number of the call in the process.
std::uint64_t count_call() noexcept;

// Whether each call is written, and each complaint. Set when this library is loaded.
extern bool traces;

// Writes each complaint when its place makes it for the first time, and counts the others. Ends the process at an
// error if that was asked for.
void report(const Call& call, const Findings& found) noexcept;

std::uint64_t nanoseconds_now() noexcept;

} // namespace csr_products::check
