#include "platform/log_stream.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

// O_NONBLOCK: a log that is a FIFO without a reader is an error, not a start that hangs.
LogStream::LogStream(const std::string& path, bool append, bool, int maxLevel, int, int bufferSize,
                     bool)
    : file_(open(path.c_str(),
                 O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (append ? O_APPEND : O_TRUNC),
                 0666)),
      maxLevel_(maxLevel),
      bufferSize_(static_cast<std::size_t>(bufferSize)) {
    if (!file_.IsOpen())
        throw std::runtime_error(path + ": " + std::strerror(errno));
}

LogStream::~LogStream() {
    Flush();
}

void LogStream::TRACE(int level, const char* format, va_list arguments, int) {
    va_list again;
    va_copy(again, arguments);
    std::string text(200, '\0');  // most lines are shorter
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    if (length >= static_cast<int>(text.size())) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
    }
    va_end(again);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    TRACE(level, text);
}

void LogStream::TRACE(int level, const std::string& text) {
    if (level > maxLevel_)
        return;
    gathered_ += text;
    if (gathered_.size() >= bufferSize_)
        Flush();
}

void LogStream::Flush() {
    std::string_view rest = gathered_;
    while (!rest.empty()) {
        const ssize_t written = write(file_.Get(), rest.data(), rest.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    gathered_.clear();
}
