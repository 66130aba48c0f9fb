#include "rehearse/base/progress.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fmt/format.h>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

volatile std::sig_atomic_t interruption = 0;

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int signal) { interruption = signal; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        // Ignored by whoever started us, as nohup does.
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(signal, &action, nullptr);
    }
}

int Interruption() {
    return interruption;
}

Progress::Progress(bool isShown, unsigned secondsAtMost)
    : isShown_(isShown), isTerminal_(isatty(STDERR_FILENO) == 1), secondsAtMost_(secondsAtMost) {}

Progress::~Progress() {
    if (hasBar_)
        fmt::print(stderr, "\r\x1b[K");
}

void Progress::Show(const std::string& what, double done) {
    if (interruption != 0)
        throw Failure("interrupted");
    if (secondsAtMost_ != 0 && Clock::now() - begin_ > std::chrono::seconds(secondsAtMost_))
        throw Crash(fmt::format("it took more than {} seconds (--time-limit)", secondsAtMost_));
    using std::chrono::milliseconds;
    const milliseconds pause(!isTerminal_ ? 10'000 : what == what_ ? 100 : 0);
    what_ = what;
    done_ = done;
    const auto now = Clock::now();
    if (!isShown_ || now - told_ < pause)
        return;
    told_ = now;
    constexpr int width = 30;
    const int filled = static_cast<int>(done * width);
    if (isTerminal_)
        fmt::print(stderr, "\r[{:#<{}}{:.<{}}] {:3.0f} %  {}\x1b[K", "", filled, "", width - filled,
                   done * 100, Printable(what));
    else
        fmt::print(stderr, "{:3.0f} %  {}\n", done * 100, Printable(what));
    std::fflush(stderr);
    hasBar_ = isTerminal_;
}

}  // namespace rehearse
