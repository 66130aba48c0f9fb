#include "rehearse/base/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "rehearse/base/failure.h"

namespace rehearse {
namespace {

constexpr int handedOnAs = 3;

void Open(const std::string& path, int flags, int as) {
    const int file = open(path.c_str(), flags, 0600);
    if (file >= 0)
        dup2(file, as);
}

/// In the child; returns only when nothing could be started.
int Become(const ChildPlan& plan, char* const* words) {
    if (plan.handedOn >= 0)
        dup2(plan.handedOn, handedOnAs);
    Open(plan.input.empty() ? "/dev/null" : plan.input, O_RDONLY, STDIN_FILENO);
    constexpr int appended = O_WRONLY | O_CREAT | O_APPEND;
    if (!plan.output.empty())
        Open(plan.output, appended, STDOUT_FILENO);
    if (!plan.errors.empty())
        Open(plan.errors, appended, STDERR_FILENO);
    execvp(words[0], words);
    return errno;
}

}  // namespace

Child::Child(const ChildPlan& plan) : end_(plan.end) {
    std::vector<char*> words;
    words.reserve(plan.words.size() + 1);
    for (const std::string& word : plan.words)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    Pipe trouble;  // closed by the exec that succeeds
    child_ = fork();
    if (child_ == 0) {
        // A pipe's end that stands where a descriptor is handed on would be lost.
        const int report = fcntl(trouble.Writing(), F_DUPFD_CLOEXEC, handedOnAs + 1);
        const int error = Become(plan, words.data());
        if (write(report, &error, sizeof error) < 0)
            _exit(126);
        _exit(127);
    }
    if (child_ < 0)
        throw Failure("no process can be started: " + std::string(std::strerror(errno)));
    trouble.CloseWriting();
    int error = 0;
    ssize_t got = 0;
    while ((got = read(trouble.Reading(), &error, sizeof error)) < 0 && errno == EINTR) {
    }
    if (got <= 0)
        return;
    waitpid(child_, nullptr, 0);
    child_ = -1;
    if (error == ENOENT && !plan.package.empty())
        throw Failure(plan.words[0] + " is missing; install it as root with: apt-get install " +
                      plan.package);
    throw Failure(plan.words[0] + " can't be run: " + std::strerror(error));
}

Child::~Child() {
    if (child_ <= 0)
        return;
    if (end_ == ChildPlan::End::AskedTwice) {
        // Once to begin nothing more, once more to end what runs; it ends its own children.
        kill(child_, SIGTERM);
        usleep(300'000);
        kill(child_, SIGTERM);
    } else {
        kill(child_, SIGKILL);
    }
    while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

Ended Child::Wait(const std::function<void()>& goOn, unsigned milliseconds) {
    int status = 0;
    while (waitpid(child_, &status, WNOHANG) == 0) {
        goOn();
        usleep(milliseconds * 1000);
    }
    child_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 0,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

Pipe::Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure("no pipe: " + std::string(std::strerror(errno)));
    reading_ = ends[0];
    writing_ = ends[1];
}

Pipe::~Pipe() {
    CloseWriting();
    close(reading_);
}

void Pipe::CloseWriting() {
    if (writing_ >= 0)
        close(writing_);
    writing_ = -1;
}

}  // namespace rehearse
