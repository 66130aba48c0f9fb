#pragma once

#include <chrono>
#include <string>

namespace rehearse {

/// Tells on standard error what is being done and how far it is: a bar on a terminal, a line every
/// ten seconds elsewhere. Throws Failure when the user has interrupted us (see CatchInterrupts),
/// and Crash when the time is over.
class Progress {
public:
    /// `secondsAtMost` is 0 for no limit.
    explicit Progress(bool isShown, unsigned secondsAtMost = 0);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// From the begin on; 0 for no limit.
    void Limit(unsigned secondsAtMost) { secondsAtMost_ = secondsAtMost; }
    /// `done` is the part of the whole, from 0 to 1.
    void Show(const std::string& what, double done);
    /// The same again, for those who wait.
    void Tick() { Show(what_, done_); }

private:
    using Clock = std::chrono::steady_clock;

    bool isShown_;
    bool isTerminal_;
    unsigned secondsAtMost_;
    std::string what_;
    double done_ = 0;
    Clock::time_point begin_ = Clock::now();
    Clock::time_point told_ = begin_;
    bool hasBar_ = false;
};

/// Lets an interruption end the program by a Failure, so that what it made is removed.
void CatchInterrupts();

/// The signal that interrupted us, or 0.
int Interruption();

}  // namespace rehearse
