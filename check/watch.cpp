#include "watch.h"

#include "checks.h"
#include "lock.h"
#include "place.h"
#include "report.h"

#include <chrono>
#include <cstdlib>
#include <dlfcn.h>
#include <utility>

namespace csr_products::check {
namespace {

// What other threads see of a thread's call. A host may leave a call by siglongjmp: it goes when its thread calls
// again, or ends.
[[gnu::tls_model("initial-exec")]] thread_local Call own_call;
Call* running = nullptr; // the first
pthread_key_t thread_end;

// The library stands in the folder above this one. The first call loads it, so that programs that never call do not
// start MKL. The loader reads a run path in words, which valgrind reports.
void* real_entry(Entry& entry) noexcept {
    if (entry.real == nullptr) {
        Dl_info here{};
        dladdr(&running, &here);
        const std::string_view own = here.dli_fname;
        const Text<4096> path("{}/../libcsr_products.so.1{}", own.substr(0, own.find_last_of('/')), '\0');
        const Unreported loader;
        void* const library = dlopen(path.view().data(), RTLD_NOW | RTLD_LOCAL);
        for (Entry* each : entries) { // at once: a later call must not wait for the loader
            each->real = library == nullptr ? nullptr : dlsym(library, each->symbol);
        }
    }
    if (entry.real == nullptr) {
        write_line("{}", dlerror());
        std::_Exit(127);
    }
    return entry.real;
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
    write_line("call {}: {}({}), called from {}", call.number, call.entry->name(), arguments.view(),
               place_of(call.caller).view());
}

// Compares the arrays with those of a call on another thread.
void compare(const Call& call, const Call& other, Findings& found) noexcept {
    for (const Block& own : call.blocks) {
        for (const Block& theirs : other.blocks) {
            if ((own.written || theirs.written) && overlap(own, theirs)) {
                found.error("{} is {} while {} on another thread {} it as its {}", own.name,
                            own.written ? "written" : "read", other.entry->name(), theirs.written ? "writes" : "reads",
                            theirs.name);
                return;
            }
        }
    }
}

void leave_running(void* /*unused*/ = nullptr) noexcept {
    const Lock lock;
    Call** link = &running;
    while (*link != nullptr && *link != &own_call) {
        link = &(*link)->next;
    }
    *link = *link == nullptr ? nullptr : own_call.next;
    own_call.number = 0;
}

// Compares the call with all that run, and enters it.
void enter_running(const Call& call, Findings& found) noexcept {
    if (own_call.number != 0) {
        leave_running();
    }
    const Lock lock;
    for (const Call* other = running; other != nullptr; other = other->next) {
        const bool sets_count = call.form == Form::ThreadCount && other->is_sparse_by_sparse();
        if (sets_count || (call.is_sparse_by_sparse() && other->form == Form::ThreadCount)) {
            found.error("the thread count is set while a sparse-by-sparse product runs on another thread");
        }
        compare(call, *other, found);
    }
    own_call = call;
    own_call.next = std::exchange(running, &own_call);
}

[[gnu::constructor]] void make_key() {
    pthread_key_create(&thread_end, leave_running);
}

} // namespace

std::atomic<std::uint64_t> calls{0};
std::atomic<std::uint64_t> threads{0};

std::uint64_t nanoseconds_now() noexcept {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

void forget_calls() noexcept {
    running = nullptr;
    calls = threads = 0;
    pthread_setspecific(thread_end, nullptr);
    for (Entry* entry : entries) {
        entry->calls = entry->nanoseconds = 0;
    }
}

void* begin(Call& call) noexcept {
    void* const real = real_entry(*call.entry);
    threads += pthread_getspecific(thread_end) == nullptr ? 1 : 0;
    pthread_setspecific(thread_end, &own_call);
    call.number = ++calls;
    if (traces) {
        trace(call);
    }
    Findings found;
    if (check_arguments(call, found) && call.form == Form::SparseCsr) {
        check_stage(call, found);
        call.leaves_structure = call.stage != 2 || is_counted(call.c);
    }
    enter_running(call, found);
    const bool ends = report(call, found);
    if (ends) { // unless the host handles the signal
        leave_running();
        std::abort();
    }
    call.start = nanoseconds_now();
    return real;
}

void end(Call& call) noexcept {
    const std::uint64_t time = nanoseconds_now() - call.start;
    call.entry->nanoseconds += time;
    ++call.entry->calls;
    leave_running();
    if (call.leaves_structure) {
        remember(call);
    }
    if (traces) {
        write_line("call {}: {}.{:06} ms", call.number, time / 1000000, time % 1000000);
    }
}

} // namespace csr_products::check
