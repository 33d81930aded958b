// The start of a process, a fork, and the summary at the end.

#include "lock.h"
#include "report.h"
#include "watch.h"

#include <link.h>

using namespace csr_products::check;

namespace {

std::uint64_t load_time = nanoseconds_now();
bool is_child = false; // its parent may have loaded the library that computes

// Another library of this name, whose calls do not come through here. The loader is not asked more: it may wait for a
// thread that waits for this function.
int tell_unchecked_library(dl_phdr_info* module, std::size_t /*size*/, void* own_path) {
    const std::string_view path = module->dlpi_name;
    if (path.find("/libcsr_products.so") == std::string_view::npos || path == static_cast<const char*>(own_path)) {
        return 0;
    }
    write_line("no call was checked: load libcsr_products.so.1 in place of {}", path);
    return 1;
}

[[gnu::destructor]] void summarise() {
    if (calls == 0) {
        if (!is_child) {
            Dl_info own{};
            dladdr(&load_time, &own);
            dl_iterate_phdr(tell_unchecked_library, const_cast<char*>(own.dli_fname));
        }
        return;
    }
    write_line("calls: {}, threads: {}, errors: {}, notes: {}", calls.load(), threads.load(), errors, notes);
    write_repeated();
    constexpr std::uint64_t million = 1000000;
    const std::uint64_t run = std::max<std::uint64_t>(nanoseconds_now() - load_time, 1);
    write_line("{:>10} {:>11} {:>11} {:>7}", "calls", "seconds", "ms a call", "share");
    for (const Entry* entry : entries) {
        const std::uint64_t count = entry->calls.load();
        const std::uint64_t time = entry->nanoseconds.load();
        if (count > 0) { // no floating-point arithmetic: the host may trap it
            write_line("{:>10} {:>7}.{:03} {:>7}.{:03} {:>5} %  {}{}", count, time / million / 1000,
                       time / million % 1000, time / count / million, time / count / 1000 % 1000, time * 100 / run,
                       entry->name(), (entry->properties & Long) != 0 ? " (long form)" : "");
        }
    }
}

// In the child of a fork, which counts its own calls. What products left is in its memory too.
void start_child() {
    forget_calls();
    forget_complaints();
    is_child = true;
    load_time = nanoseconds_now();
    pthread_mutex_unlock(&Lock::mutex);
}

[[gnu::constructor]] void start() {
    open_output();
    pthread_atfork([] { pthread_mutex_lock(&Lock::mutex); }, [] { pthread_mutex_unlock(&Lock::mutex); }, start_child);
}

} // namespace
