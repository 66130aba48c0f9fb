#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

// The handler that libstdc++ has for an exception that nobody catches names the exception's type,
// for which it brings a demangler: an eighth of the program. A definition of ours is found before
// the library is looked through. std::set_terminate would not do, for the library's own is still
// the first to be set. Part of the program itself, not of its library, whose files are taken only
// when asked for.
#ifdef __GLIBCXX__
void __gnu_cxx::__verbose_terminate_handler() {  // NOLINT(bugprone-reserved-identifier)
    static bool isRunning = false;
    // Without an exception, the throw below ends here once more: there was not even the memory for
    // one. The tree is as it was, and start scripts rely on the status.
    if (isRunning)
        _exit(0);
    isRunning = true;
    try {
        throw;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "setupmend: not caught: %s\n", error.what());
    } catch (...) {
    }
    std::abort();
}
#endif
