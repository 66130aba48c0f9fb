#pragma once

#include <cstddef>
#include <string_view>

/// Something that a run met and that its report puts into words: the same as data, for an observer.
/// The words stay the report's; whoever needs the path or the reason takes them from here.
struct Fact {
    enum class Kind {
        // What the version check found: one of these a run.
        UpToDate,  // by the labels or the stamp; path: the version
        Due,       // path: the live version, reason: the firmware's
        NoLabel,   // one cannot be read, and all gates are open
        // How the run ended.
        EndedEarly,  // before the steps were through
        Stamped,     // reason: the version
        // Files and directories, by path.
        Restored,    // a main database that could not be read was replaced by the factory's
        Unreadable,  // or not what it is read as; the step went on without it
        Absent,      // a directory, or a section by its name, that the step does not find
        Unsaved,     // a file stayed as it was, or a directory was not made
        Refused,     // the system refused something that no step reports; reason: the whole text
        // What a step did not do.
        CommandFailed,  // path: the command, reason: its words
        Canceled,       // path: the file that stays as it is, reason: the extension to blame
        Incomplete,     // a setting that found no place; path: the file
    };
    Kind kind;
    // They last as long as the call. A relative path is one in the configuration root.
    std::string_view path;
    std::string_view reason;
    std::size_t line = 0;    // of the file at `path`; 0 for none
    bool isMissing = false;  // there is no such file
};
