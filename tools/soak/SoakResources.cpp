#include "SoakResources.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace soak {

namespace {

// Entries of a /proc directory, "." and ".." excluded; -1 on failure.
long countEntries(const char* path)
{
    DIR* d = opendir(path);
    if (d == nullptr) return -1;
    long n = 0;
    while (const dirent* e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

} // namespace

bool sampleResources(ResourceSample& out)
{
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return false;
    unsigned long long size = 0, resident = 0;
    const int got = std::fscanf(f, "%llu %llu", &size, &resident);
    std::fclose(f);
    if (got != 2) return false;
    const long tasks = countEntries("/proc/self/task");
    // The listing's own descriptor is counted too.
    const long fds = countEntries("/proc/self/fd");
    if (tasks < 0 || fds < 1) return false;
    out.rssBytes = resident * std::uint64_t(sysconf(_SC_PAGESIZE));
    out.threads = unsigned(tasks);
    out.descriptors = unsigned(fds - 1);
    return true;
}

std::string ResourceWatch::add(const ResourceSample& s)
{
    if (!any_) first_ = s;
    any_ = true;
    last_ = s;
    peak_.rssBytes = std::max(peak_.rssBytes, s.rssBytes);
    peak_.threads = std::max(peak_.threads, s.threads);
    peak_.descriptors = std::max(peak_.descriptors, s.descriptors);
    if (!warm_) {
        warmPeakRss_ = std::max(warmPeakRss_, s.rssBytes);
        return "";
    }
    std::ostringstream os;
    if (s.rssBytes > warmPeakRss_ + limits_.rssSlackBytes)
        os << "RSS " << mebibytes(s.rssBytes) << " grew past the warm-up peak " << mebibytes(warmPeakRss_) << " + "
           << mebibytes(limits_.rssSlackBytes) << "; ";
    if (s.threads > atWarm_.threads + limits_.threadSlack)
        os << "threads " << s.threads << " grew past " << atWarm_.threads << " + " << limits_.threadSlack << "; ";
    if (s.descriptors > atWarm_.descriptors + limits_.descriptorSlack)
        os << "descriptors " << s.descriptors << " grew past " << atWarm_.descriptors << " + "
           << limits_.descriptorSlack << "; ";
    std::string text = os.str();
    if (!text.empty()) text.resize(text.size() - 2);
    return text;
}

void ResourceWatch::markWarm()
{
    warm_ = true;
    atWarm_ = last_;
    warmPeakRss_ = std::max(warmPeakRss_, last_.rssBytes);
}

std::string mebibytes(std::uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / (1024.0 * 1024.0));
    return text;
}

} // namespace soak
