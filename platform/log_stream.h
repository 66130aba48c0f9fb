#pragma once

#include <cstdarg>
#include <string>

#include "files/file_descriptor.h"

/// The appliance's log: lines appended to a file as they are, without a prefix, gathered up to a
/// buffer's size. A log that cannot be written any more loses lines, never stops the program.
class LogStream {
public:
    /// Opens the log; it is emptied first unless `append`. Records with a level above `maxLevel`
    /// are dropped. Throws std::runtime_error when the file cannot be opened for writing.
    LogStream(const std::string& path, bool append, bool prefix, int maxLevel, int files = 1,
              int bufferSize = 2048, bool echo = false);
    ~LogStream();
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    /// Writes a printf-style record.
    void TRACE(int level, const char* format, va_list arguments, int flags)
        __attribute__((format(printf, 3, 0)));
    /// Writes a text as it is: a "%" in it is no conversion.
    void TRACE(int level, const std::string& text);
    /// Brings what was gathered to the file.
    void Flush();

private:
    files::FileDescriptor file_;
    int maxLevel_;
    std::size_t bufferSize_;
    std::string gathered_;
};
