#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace rehearse {

/// What is started, and with what. Standard input is always /dev/null unless `input` is given.
struct ChildPlan {
    std::vector<std::string> words;  // found by PATH
    std::string input;               // a file
    std::string output;              // a file that gets standard output; ours when empty
    std::string errors;              // the same for standard error; may be the same file
    int handedOn = -1;               // a descriptor that the child has as 3
    std::string package;             // to install when the program is missing
    /// What ends it before its time: a job that starts others needs to be asked twice.
    enum class End { Killed, AskedTwice } end = End::Killed;
};

/// How a child ended.
struct Ended {
    int status = 0;  // 0 for a signal
    int signal = 0;
    bool IsGood() const { return status == 0 && signal == 0; }
};

/// A process that never outlives the object.
class Child {
public:
    /// Throws Failure when it can't be started.
    explicit Child(const ChildPlan& plan);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// `goOn` is called every `milliseconds`, and may throw, which ends the child.
    Ended Wait(const std::function<void()>& goOn, unsigned milliseconds = 2);

private:
    pid_t child_ = -1;
    ChildPlan::End end_;
};

/// The two ends of a pipe.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int Reading() const { return reading_; }
    int Writing() const { return writing_; }
    void CloseWriting();

private:
    int reading_ = -1;
    int writing_ = -1;
};

}  // namespace rehearse
