#pragma once

#include <string>
#include <vector>

namespace files {

/// Notes that the system refused something, by errno, in reading, making, saving or removing. An
/// error that only says what stands under a name (nothing, a directory, a link that leads nowhere)
/// is not the disk's and is not noted: it is the same on every start.
void NoteRefusal(int error);

/// The same, kept for the log, for what no step's own message tells: `what` is "Can't read: PATH".
void NoteRefusal(int error, const std::string& what);

/// Notes the call that has just failed, by errno, and returns "what: reason in words".
std::string NotedReason(const std::string& what);

/// The kept ones, "what: reason in words", and forgets them. Of many, the first.
std::vector<std::string> TakeRefusalTexts();

/// Tells whether the disk refused something since it was made. An upgrade with a refusal is not the
/// upgrade that a healthy disk would have given.
class RefusalWatch {
public:
    RefusalWatch();
    bool HasSeenOne() const;
    /// Whether one of them was for want of something that there may be more of another time: room
    /// on the disk, memory, open files.
    bool HasSeenShortage() const;
    void StartAnew() { *this = RefusalWatch(); }

private:
    unsigned before_;
    unsigned shortagesBefore_;
};

/// Once one of these has gone, no watch sees what the disk refused while it lived. Shortages are
/// still seen.
class RefusalsForgiven {
public:
    RefusalsForgiven();
    ~RefusalsForgiven();
    RefusalsForgiven(const RefusalsForgiven&) = delete;
    RefusalsForgiven& operator=(const RefusalsForgiven&) = delete;

private:
    unsigned before_;
};

}  // namespace files
