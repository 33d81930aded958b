// The lines that a program's user sees, and the summary at its end.

#include "report.h"

#include "place.h"
#include "watch.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace csr_products::check {
namespace {

// Set when this library is loaded.
int output = -1;
struct stat output_file;
bool stops = false;
std::uint64_t load_time = 0;

std::atomic<std::uint64_t> calls{0};
std::atomic<std::uint64_t> threads{0};
std::atomic<unsigned> generation{1}; // one more in the child of each fork
[[gnu::tls_model("initial-exec")]] thread_local unsigned counted_generation = 0;

// The complaints that were written, by their place and their text without its numbers.
struct Written {
    std::uint64_t key;
    std::uint64_t count;
    std::size_t size;
    char line[500];
};

Written written[512];
std::size_t distinct = 0;
std::uint64_t counts[2]; // errors and notes

std::uint64_t key_of(const Call& call, const Complaint& complaint) noexcept {
    auto key = reinterpret_cast<std::uintptr_t>(call.site.caller);
    Dl_info module{}; // another may have been at the same address before
    dladdr(call.site.caller, &module);
    for (const std::string_view part : {std::string_view(module.dli_fname != nullptr ? module.dli_fname : ""),
                                        call.site.entry.name(), complaint.text.view()}) {
        for (const char letter : part) {
            key = letter >= '0' && letter <= '9' ? key : (key ^ static_cast<unsigned char>(letter)) * 0x100000001B3;
        }
    }
    return key;
}

// Counts the complaint. Returns its record if it is a new one, and null where the table is full.
Written* enter(const Call& call, const Complaint& complaint) noexcept {
    const std::uint64_t key = key_of(call, complaint);
    const Lock lock;
    ++counts[static_cast<int>(complaint.severity)];
    Written* const end = written + distinct;
    Written* const found = std::find_if(written, end, [&](const Written& other) { return other.key == key; });
    if (found == std::end(written)) {
        return nullptr;
    }
    distinct += found == end ? 1 : 0;
    found->key = key;
    return ++found->count == 1 ? found : nullptr;
}

// Another library of this name, whose calls do not come through here.
void tell_unchecked_library() noexcept {
    Dl_info here{};
    dladdr(&Lock::mutex, &here);
    std::FILE* const maps = std::fopen("/proc/self/maps", "re");
    char line[1000];
    while (maps != nullptr && std::fgets(line, sizeof line, maps) != nullptr) {
        const std::string_view text(line, std::strcspn(line, "\n"));
        const std::string_view path = text.substr(std::min(text.find('/'), text.size()));
        if (path.find("/libcsr_products.so") != std::string_view::npos && path != here.dli_fname) {
            write_line("no call was checked: load libcsr_products.so.1 in place of {}", path);
            break;
        }
    }
    if (maps != nullptr) {
        std::fclose(maps);
    }
}

[[gnu::destructor]] void summarise() {
    const std::uint64_t all = calls.load();
    if (all == 0) {
        const auto is_loaded = [](const Entry* entry) { return entry->real.load() != nullptr; }; // by a parent
        if (std::none_of(std::begin(entries), std::end(entries), is_loaded)) {
            tell_unchecked_library();
        }
        return;
    }
    const bool is_locked = pthread_mutex_trylock(&Lock::mutex) == 0; // exit may have been called by a signal handler
    write_line("calls: {}, threads: {}, errors: {}, notes: {}", all, threads.load(), counts[0], counts[1]);
    for (std::size_t i = 0; i < distinct; ++i) {
        if (written[i].count > 1) {
            write_line("{} times: {}", written[i].count, std::string_view(written[i].line, written[i].size));
        }
    }
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
    if (const std::uint64_t times = repeated_structures.load(); times > 0) {
        write_line("{} times a sparse product computed a structure that C held once: stage 2 refreshes it", times);
    }
    if (is_locked) {
        pthread_mutex_unlock(&Lock::mutex);
    }
}

// In the child of a fork, which counts its own calls. What products left is in its memory too.
void start_child() {
    forget_running();
    ++generation;
    std::fill_n(written, std::exchange(distinct, 0), Written{});
    counts[0] = counts[1] = 0;
    calls = threads = repeated_structures = 0;
    load_time = nanoseconds_now();
    for (Entry* entry : entries) {
        entry->calls = entry->nanoseconds = 0;
    }
    pthread_mutex_unlock(&Lock::mutex);
}

// A host may close its standard error, and a file of its own then gets the number: lines go to a copy with a number
// far away. Programs that this one starts do not get the copy.
[[gnu::constructor]] void start() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const char* const file = std::getenv("CSR_PRODUCTS_CHECK_OUTPUT");
    const int given = file == nullptr ? STDERR_FILENO : open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    output = fcntl(given, F_DUPFD_CLOEXEC, std::min<rlim_t>(limit.rlim_cur - limit.rlim_cur / 8, 900));
    if (file != nullptr) {
        close(given);
    }
    fstat(output, &output_file);
    traces = std::getenv("CSR_PRODUCTS_CHECK_TRACE") != nullptr;
    stops = std::getenv("CSR_PRODUCTS_CHECK_STOP") != nullptr;
    load_time = nanoseconds_now();
    pthread_atfork([] { pthread_mutex_lock(&Lock::mutex); }, [] { pthread_mutex_unlock(&Lock::mutex); }, start_child);
}

} // namespace

pthread_mutex_t Lock::mutex = PTHREAD_MUTEX_INITIALIZER;
bool traces = false;

void write_text(std::string_view line) noexcept {
    const Text<900> text("csr_products[{}]: {}\n", getpid(), line);
    sigset_t pipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);        // a reader that has gone is not the host's fault
    for (const int number : {output, STDERR_FILENO}) { // the host may have closed one of them, or both
        struct stat file {};
        const bool is_same =
            fstat(number, &file) == 0 && file.st_dev == output_file.st_dev && file.st_ino == output_file.st_ino;
        if (is_same && write(number, text.view().data(), text.view().size()) < 0 && errno == EPIPE &&
            sigismember(&pending, SIGPIPE) == 0) {
            const timespec no_time{};
            sigtimedwait(&pipe, nullptr, &no_time);
        }
        if (is_same) {
            break;
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::uint64_t count_call() noexcept {
    const unsigned now = generation.load(std::memory_order_relaxed);
    if (counted_generation != now) {
        counted_generation = now;
        ++threads;
    }
    return ++calls;
}

void report(const Call& call, const Findings& found) noexcept {
    if (stops && found.has_errors) {
        static pthread_mutex_t last = PTHREAD_MUTEX_INITIALIZER;
        pthread_mutex_lock(&last); // one thread ends the process, after its line
    }
    for (const Complaint& complaint : found) {
        Written* const entered = enter(call, complaint);
        if (entered == nullptr && !traces) {
            continue;
        }
        const Text<500> line("{}: {}: {}, called from {}", complaint.severity == Severity::Error ? "error" : "note",
                             call.site.entry.name(), complaint.text.view(), place_of(call.site.caller).view());
        if (entered != nullptr) {
            const Lock lock;
            entered->size = line.view().copy(entered->line, sizeof entered->line);
        }
        write_text(line.view());
    }
    if (stops && found.has_errors) {
        std::abort();
    }
}

std::uint64_t nanoseconds_now() noexcept {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

} // namespace csr_products::check
