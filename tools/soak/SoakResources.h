#pragma once

// What the process holds, read from /proc/self, and the check that it stays
// flat once the run is warm.

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

struct ResourceSample {
    std::uint64_t rssBytes = 0;
    unsigned threads = 0;
    unsigned descriptors = 0;
};

// False when /proc/self cannot be read.
bool sampleResources(ResourceSample& out);

struct ResourceLimits {
    std::uint64_t rssSlackBytes = 0; // above the peak seen while warming up
    unsigned threadSlack = 0;        // above the count when warm
    unsigned descriptorSlack = 0;
};

// Keeps the baselines and the extremes; reports growth past the limits.
class ResourceWatch {
public:
    explicit ResourceWatch(const ResourceLimits& limits) : limits_(limits) {}

    // Feeds one sample. Before markWarm() it only widens the warm-up peak;
    // afterwards it returns what is out of bounds ("" when nothing is).
    std::string add(const ResourceSample& s);
    // The last sample becomes the baseline for threads and descriptors; the
    // highest RSS seen so far is the baseline for RSS.
    void markWarm();

    bool warm() const { return warm_; }
    const ResourceSample& first() const { return first_; }
    const ResourceSample& last() const { return last_; }
    const ResourceSample& atWarm() const { return atWarm_; }
    std::uint64_t warmPeakRss() const { return warmPeakRss_; }
    std::uint64_t peakRss() const { return peak_.rssBytes; }
    unsigned peakThreads() const { return peak_.threads; }
    unsigned peakDescriptors() const { return peak_.descriptors; }

private:
    ResourceLimits limits_;
    bool any_ = false;
    bool warm_ = false;
    ResourceSample first_, last_, atWarm_, peak_;
    std::uint64_t warmPeakRss_ = 0;
};

std::string mebibytes(std::uint64_t bytes);

} // namespace soak
