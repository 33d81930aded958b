// Lets MKL start in a working folder that has no name, such as a job's folder that was removed.
//
// MKL's constructors ask for the name when the library is loaded, and end the process if they get none. The
// library is therefore linked with getcwd wrapped.

#include <algorithm>
#include <cstddef>

// The linker's --wrap sends MKL's calls of a function to __wrap_ and ours of __real_ to the C library.
extern "C" {

char* __real_getcwd(char* buffer, std::size_t size);

char* __wrap_getcwd(char* buffer, std::size_t size) {
    constexpr char root[] = "/";
    char* const name = __real_getcwd(buffer, size);
    if (name != nullptr || buffer == nullptr || size < sizeof root) {
        return name;
    }
    std::copy_n(root, sizeof root, buffer);
    return buffer;
}

} // extern "C"
