// The report and the log.

#include <cstdarg>

#include "app/config_upgrader.h"

void ConfigUpgrader::FlushReport() {
    if (!log)
        return;
    constexpr std::size_t pieceSize = 1000;
    std::size_t begin = 0;
    for (; report.size() - begin > pieceSize; begin += pieceSize) {
        log->TRACE(3, report.substr(begin, pieceSize));
        log->Flush();
    }
    log->TRACE(3, report.substr(begin));
    log->Flush();
    report.clear();
}

void ConfigUpgrader::Trace(int level, const char* format, ...) {
    if (!log)
        return;
    va_list arguments;
    va_start(arguments, format);
    log->TRACE(level, format, arguments, 0);
    va_end(arguments);
}
