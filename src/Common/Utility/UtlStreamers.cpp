#include "Common/Utility/UtlStreamers.h"

#include <cstdint>
#include <iomanip>

std::ostream& streamUnknownTypeValueString(std::ostream& os, const char* typeName, int value)
{
    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill();
    const std::streamsize width = os.width(0);
    os << "UNKNOWN " << typeName << "[" << std::dec << value << "][0x" << std::hex
       << std::setw(8) << std::setfill('0') << std::right << static_cast<std::uint32_t>(value) << "]";
    os.flags(flags);
    os.fill(fill);
    os.width(width);
    return os;
}
