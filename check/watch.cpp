#include "watch.h"

#include "checks.h"
#include "place.h"
#include "report.h"

#include <cstdlib>
#include <dlfcn.h>
#include <utility>

namespace csr_products::check {
namespace {

Call* running = nullptr; // the first of the calls that run now

// The library in the folder above this one. The first call loads it, so that programs that never call do not start
// MKL.
void* load_library() noexcept {
    Dl_info here{};
    dladdr(&running, &here);
    const std::string_view own = here.dli_fname;
    const Text<4096> path("{}/../libcsr_products.so.1{}", own.substr(0, own.find_last_of('/')), '\0');
    return dlopen(path.view().data(), RTLD_NOW | RTLD_LOCAL);
}

void trace(const Call& call) noexcept {
    Text<200> arguments("m = {}, k = {}, n = {}", call.m, call.k, call.n);
    if (call.form == Form::ThreadCount) {
        arguments = Text<200>("count = {}", call.threads);
    } else if (call.form == Form::SparseCsr) {
        arguments.append(", stage = {}", call.stage);
    } else if (call.form == Form::Matrix) {
        arguments.append(", ldb = {}, ldc = {}", call.dense.leading_dimension, call.output.leading_dimension);
    }
    write_line("call {}: {}({}), called from {}", call.number, call.site.entry.name(), arguments.view(),
               place_of(call.site.caller).view());
}

// Compares the arrays with those of a call on another thread.
void compare(const Call& call, const Call& other, Findings& found) noexcept {
    for (const Block& mine : call.blocks) {
        for (const Block& theirs : other.blocks) {
            if ((mine.written || theirs.written) && overlap(mine, theirs)) {
                found.error("{} is {} while {} on another thread {} it as its {}", mine.name,
                            mine.written ? "written" : "read", other.site.entry.name(),
                            theirs.written ? "writes" : "reads", theirs.name);
                return;
            }
        }
    }
}

// Compares the call with all that run, and enters it.
void enter_running(Call& call, Findings& found) noexcept {
    const Lock lock;
    for (const Call* other = running; other != nullptr; other = other->next) {
        const bool sets_count = call.form == Form::ThreadCount && other->is_sparse_by_sparse();
        if (sets_count || (call.is_sparse_by_sparse() && other->form == Form::ThreadCount)) {
            found.error("the thread count is set while a sparse-by-sparse product runs on another thread");
        }
        compare(call, *other, found);
    }
    call.next = std::exchange(running, &call);
}

void leave_running(const Call& call) noexcept {
    const Lock lock;
    Call** link = &running;
    while (*link != nullptr && *link != &call) {
        link = &(*link)->next;
    }
    if (*link != nullptr) {
        *link = call.next;
    }
}

} // namespace

void forget_running() noexcept {
    running = nullptr;
}

void* real_entry(Entry& entry) noexcept {
    void* real = entry.real.load();
    if (real == nullptr) {
        void* const library = load_library();
        real = library == nullptr ? nullptr : dlsym(library, entry.symbol);
    }
    if (real == nullptr) {
        write_line("{}", dlerror());
        std::_Exit(127);
    }
    entry.real.store(real);
    return real;
}

void begin(Call& call) noexcept {
    call.number = count_call();
    if (traces) {
        trace(call);
    }
    Findings found;
    if (check_arguments(call, found) && call.form == Form::SparseCsr) {
        check_stage(call, found);
        call.leaves_structure = call.stage != 2 || is_counted(call.c);
    }
    enter_running(call, found);
    report(call, found);
    call.start = nanoseconds_now();
}

void end(const Call& call) noexcept {
    const std::uint64_t time = nanoseconds_now() - call.start;
    call.site.entry.nanoseconds += time;
    ++call.site.entry.calls;
    leave_running(call);
    if (call.leaves_structure) {
        remember(call);
    }
    if (traces) {
        write_line("call {}: {}.{:06} ms", call.number, time / 1000000, time % 1000000);
    }
}

} // namespace csr_products::check
