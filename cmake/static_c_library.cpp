// Only linked into programs that carry the C library. glibc is always ready to translate its
// messages and to load a character set for it. This program never calls setlocale, so none of that
// happens, but no linker can know: it is a tenth of the 32-bit program. What is defined here is
// found before the C library is looked through, which then is not asked for its own, nor for what
// hangs on that. CMake tries first whether a C library takes it; where the names mean nothing, they
// cost nothing.

#include <unistd.h>

#include <cstdlib>
#include <cstring>

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

/// A message in the user's language; strerror asks for it.
char* __dcgettext(const char*, const char* message, int) {
    return const_cast<char*>(message);
}

/// For the C library's own assertions; its own puts the text together by way of wide streams.
[[noreturn]] void __assert_fail(const char* assertion, const char*, unsigned, const char*) {
    [[maybe_unused]] const auto said = write(STDERR_FILENO, assertion, std::strlen(assertion));
    std::abort();
}

// Loads what converts between character sets.
void* __libc_dlopen_mode(const char*, int) {
    return nullptr;
}
void* __libc_dlsym(void*, const char*) {
    return nullptr;
}
void* __libc_dlvsym(void*, const char*, const char*) {
    return nullptr;
}
int __libc_dlclose(void*) {
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
