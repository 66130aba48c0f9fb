#include "recovery/decision.h"

Action Decide(const std::optional<Mark>& mark, const std::string& stamp,
              const std::function<std::optional<TreeContent>()>& fingerprint) {
    if (!mark)
        return Action::LeaveAlone;
    const bool isStamped = mark->version.empty() || mark->version == stamp;
    if (mark->state == State::Stamped || (mark->state == State::Done && mark->held && isStamped))
        return Action::Remove;
    // A mark that says what a run left is that of a run which ended, whatever its name: a disk that
    // refuses things may have refused to rename it, too.
    const bool hasEnded = mark->held && (mark->state == State::Refused || mark->left);
    if (hasEnded) {
        const auto now = fingerprint();
        if (!now)
            return Action::GiveUp;
        if (now != mark->left)
            return Action::StampAndRemove;
    }
    const bool isSecondTry = mark->state == State::SecondUnderWay || mark->state == State::Refused;
    return isSecondTry ? Action::PutBackAgain : Action::PutBack;
}
