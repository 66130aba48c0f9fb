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

void ConfigUpgrader::Tell(Fact::Kind kind, std::string_view path, std::string_view reason) {
    if (appliance.onFact != nullptr)
        (*appliance.onFact)({kind, path, reason});
}

void ConfigUpgrader::Tell(Fact::Kind kind, const std::exception& error) {
    const auto* fileError = dynamic_cast<const Configuration::FileError*>(&error);
    if (appliance.onFact == nullptr)
        return;
    if (fileError == nullptr)
        (*appliance.onFact)({kind, {}, error.what()});
    else
        (*appliance.onFact)({kind, fileError->Path(), fileError->Reason(), fileError->Line(),
                             fileError->IsMissing()});
}

void ConfigUpgrader::Trace(int level, const char* format, ...) {
    if (!log)
        return;
    va_list arguments;
    va_start(arguments, format);
    log->TRACE(level, format, arguments, 0);
    va_end(arguments);
}
