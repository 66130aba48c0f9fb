#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "rehearse/base/child.h"
#include "rehearse/fleet/fleet.h"
#include "rehearse/fleet/job_log.h"

namespace rehearse {

/// Rehearses sites by GNU parallel. Each leaves one file that keeps its result, from which
/// everything else can be made, and a page.
class FleetRunner {
public:
    /// `out` is made, and nobody else works in it as long as the object lives.
    FleetRunner(const FleetRequest& request, const Request& site, std::string directory,
                std::string out);
    ~FleetRunner();
    FleetRunner(const FleetRunner&) = delete;
    FleetRunner& operator=(const FleetRunner&) = delete;

    /// Rehearses those of the names of which nothing is kept that still holds. Returns how many
    /// are as they were.
    std::size_t Run(const std::vector<std::string>& names, bool showsProgress);
    /// Rehearses these once more, and keeps the results beside the first ones.
    void RunAgain(const std::vector<std::string>& names, bool showsProgress);

    /// The files that keep a site's results.
    std::string KeptOf(const std::string& name) const { return KeptIn("sites", name); }
    std::string KeptAgainOf(const std::string& name) const { return KeptIn("again", name); }
    /// How a site's own process ended that left no result.
    Job JobOf(const std::string& name) const;

    const std::string& Out() const { return out_; }
    const std::string& Common() const { return common_; }  // what all sites are asked
    const std::string& Target() const { return target_; }  // of --firmware

private:
    std::string KeptIn(const std::string& room, const std::string& name) const {
        return out_ + "/" + room + "/" + name + ".kept";
    }
    void RequireOwn() const;
    void TakeFirmwareOnce();
    bool Holds(const std::string& name, const std::string& kept) const;
    void Rehearse(const std::vector<std::string>& names, const std::string& room,
                  bool showsProgress);
    std::string SiteCommand(const std::string& room) const;
    std::unique_ptr<Child> Start(const std::vector<std::string>& names, const std::string& room,
                                 bool hasBar) const;
    unsigned LongestTime(const std::vector<std::string>& names) const;
    std::map<std::size_t, Job> ReadJobs(std::size_t sites) const;

    const FleetRequest& request_;
    const Request& site_;
    std::string directory_;
    std::string out_;
    int lock_ = -1;
    std::string firmware_;  // in OUT
    std::string target_;
    std::string programs_;
    std::string common_;
    std::map<std::string, Job> jobs_;
};

}  // namespace rehearse
