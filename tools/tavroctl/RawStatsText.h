#pragma once

// The raw statistics of a blade as a table for people or JSON for scripts.
#include <string>

namespace tavroctl {

// Both return an empty string when the block has a format the public
// reader does not know.
std::string rawStatsTable(const void* block);
std::string rawStatsJson(const void* block);

} // namespace tavroctl
