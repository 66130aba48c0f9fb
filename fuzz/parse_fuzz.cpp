// Any bytes are a file of either kind: they parse or are refused, and print back as they were.

#include <cstdlib>

#include "store/document.h"

using Configuration::Document;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (Document(bytes, Document::Layout::Flat, "flat").Text() != bytes)
        std::abort();
    try {
        if (Document(bytes, Document::Layout::Sectioned, "sectioned").Text() != bytes)
            std::abort();
    } catch (const Configuration::FileError&) {
    }
    return 0;
}
