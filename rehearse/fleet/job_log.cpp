#include "rehearse/fleet/job_log.h"

#include <sstream>

namespace rehearse {

bool WasTooLong(const Job& job) {
    return job.exitStatus < 0;
}

std::optional<std::pair<std::size_t, Job>> ParseJob(const std::string& line) {
    // A host may be a whole ssh command, with blanks; its column ends at a tab as all do.
    const std::size_t host = line.find('\t');
    const std::size_t rest = host == std::string::npos ? host : line.find('\t', host + 1);
    if (rest == std::string::npos)
        return std::nullopt;
    std::istringstream words(line.substr(0, host) + line.substr(rest));
    std::size_t number = 0;
    std::string unused;
    Job job;
    if (words >> number >> unused >> job.seconds >> unused >> unused >> job.exitStatus >>
            job.signal &&
        number >= 1)
        return std::pair(number - 1, job);
    return std::nullopt;
}

}  // namespace rehearse
