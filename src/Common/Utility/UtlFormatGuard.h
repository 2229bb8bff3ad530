#pragma once

// Keeps the caller's stream formatting (flags, fill, width) intact around
// text that sets its own.
#include <ios>

class UtlFormatGuard {
public:
    explicit UtlFormatGuard(std::ios& os) : os_(os), flags_(os.flags()), fill_(os.fill()), width_(os.width()) {}
    ~UtlFormatGuard()
    {
        os_.flags(flags_);
        os_.fill(fill_);
        os_.width(width_);
    }
    UtlFormatGuard(const UtlFormatGuard&) = delete;
    UtlFormatGuard& operator=(const UtlFormatGuard&) = delete;

private:
    std::ios& os_;
    std::ios::fmtflags flags_;
    char fill_;
    std::streamsize width_;
};
