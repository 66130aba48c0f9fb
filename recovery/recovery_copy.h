#pragma once

#include <optional>
#include <string>
#include <vector>

#include "files/refusals.h"
#include "files/sync.h"
#include "recovery/mark.h"
#include "recovery/tree_copy.h"
#include "recovery/tree_lock.h"

/// The stamp of a telephony directory; empty without one.
std::string ReadStamp(const std::string& tree);

/// The recovery copy: what makes an upgrade one transaction.
///
/// Many conversions must not run twice: the echo delay would lose another 80, minutes would become
/// seconds twice over. So an upgrade that did not end is not gone on with but begun again, from a
/// copy of the telephony directory beside it. The rules:
///
/// - The copy gets its name when it is complete and on the disk. From then on a crash leads back to
///   it, so saves sync nothing; all changes are synced once, before the stamp. Then comes the
///   stamp, then the copy loses its name.
/// - A mark in it says how far the upgrade is, which version it would stamp, and what the copy
///   holds, by its bytes. A copy that no longer holds what its mark says is neither put back nor
///   removed; a directory of that name without a mark is not ours and is left alone.
/// - The copy is made of links, which cost nothing, for saves replace files and never write into
///   them. What others write into a file that is not converted yet is the newest setting, in the
///   copy as in the tree.
/// - Where nothing can be made beside the tree, the copy stands in the tree itself, under a name
///   that no step enters.
/// - A run that was killed is begun again by the next start. So is, once, a run that ended because
///   the disk refused something, but only while the tree is as that run left it: settings that were
///   changed since are worth more than what was refused.
/// - What cannot be protected for want of room or memory is not begun.
/// - What the disk does not tell is not guessed: then the upgrade is not continued.
class RecoveryCopy {
public:
    /// Messages go to the end of `report`.
    explicit RecoveryCopy(std::string& report) : report_(report) {}

    /// At the start: waits until no other run works on the tree that `configRoot` leads to, and
    /// from here on makes others wait; finds what an earlier run left of the tree, and puts the
    /// tree back if that run did not end. False when that failed: the tree is half upgraded and
    /// must not be upgraded again.
    /// `version` is what an upgrade that begins now would stamp, nothing when the disk does not
    /// tell it; `log` is where the run's log is or will be, which no copy holds and no put-back
    /// rolls away.
    bool Resume(const std::string& configRoot, const std::optional<std::string>& version,
                const std::string& log);
    /// Makes the copy unless it stands. False when there is no room or memory for one: then the
    /// upgrade must not begin. Where one cannot be made for another reason, the upgrade goes on
    /// without it. `isEntered` tells of which links at the tree's top the directories behind them
    /// are upgraded, too; `version` is what the upgrade would stamp.
    bool Make(const std::string& version, const NamePredicate& isEntered);
    /// Brings all that was changed to the disk; from here on every save does so itself. False, with
    /// errno set, when that failed.
    bool SyncTree();
    /// Marks that nothing but the stamp is left to do.
    void MarkDone();
    /// Before a command that may write into files of the tree: has the copy share none of them. The
    /// reason in words, noted, when it can't: then the command must not run.
    std::string Unshare();
    /// At the end: removes the copy, or leaves it to the next start.
    void End(bool isFinished);
    /// At the end of a run that had too little memory: puts the tree back at once and removes the
    /// copy. The files are not to blame, so nothing is stamped; the next start tries anew.
    void TakeBack();

    /// Whether it is complete, and of the tree as it was.
    bool Stands() const { return stands_; }
    /// Whether the disk refused something that the next start can still mend. What fails on the
    /// second try as well is no accident, and is stamped.
    bool ShouldBeginAgain() const;
    /// Whether memory was what the system refused.
    bool HasSeenNoMemory() const { return watch_.HasSeenNoMemory(); }
    /// Whether a real path is the copy's or lies in it.
    bool Holds(const std::string& realPath) const;

private:
    bool ResumeFrom(const std::string& copy, const std::optional<std::string>& version);
    bool BeginAgain(const Mark& mark, const std::optional<std::string>& version, bool isSecondTry);
    std::string PutBack();
    bool GiveUp(const std::string& reason);
    bool StampAndRemove(const std::string& version);
    std::string MakeAt(const std::string& copy, const std::string& version,
                       const NamePredicate& isEntered);
    void Stand();
    void Remove();

    std::string& report_;
    std::string tree_;  // the telephony directory itself, without "/" at its end
    std::string log_;
    std::string copy_;  // where it stands, or is looked for or made
    bool stands_ = false;
    bool isSecondTry_ = false;  // the first one ended because the disk refused something
    std::optional<TreeLock> lock_;
    files::RefusalWatch watch_;
    std::optional<files::SyncLater> syncLater_;
};
