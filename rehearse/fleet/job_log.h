#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace rehearse {

/// What GNU parallel's job log tells of a site.
struct Job {
    double seconds = 0;
    int exitStatus = -1;
    int signal = 0;
};

/// parallel leaves a site that it ended for its time without an exit status.
bool WasTooLong(const Job& job);

/// A line of the job log: the site's number from 0, and what became of it. Nothing for the heads of
/// the columns, or a line that was cut.
std::optional<std::pair<std::size_t, Job>> ParseJob(const std::string& line);

}  // namespace rehearse
