#include "rehearse/fleet/job_log.h"

#include <sstream>

namespace rehearse {

bool WasTooLong(const Job& job) {
    return job.exitStatus < 0;
}

std::optional<std::pair<std::size_t, Job>> ParseJob(const std::string& line) {
    std::istringstream words(line);
    std::size_t number = 0;
    std::string host;
    std::string unused;
    Job job;
    if (words >> number >> host >> unused >> job.seconds >> unused >> unused >> job.exitStatus >>
            job.signal &&
        number >= 1)
        return std::pair(number - 1, job);
    return std::nullopt;
}

}  // namespace rehearse
