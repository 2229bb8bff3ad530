#pragma once

// Stream text of utility and protocol code types, for trace output only.
// Every operator writes the enumerator name of the value and nothing else;
// a value without a name is written by streamUnknownTypeValueString.
#include <cstddef>
#include <cstdint>
#include <ostream>

#include "Ap/ApEventTypes.h"
#include "Common/Utility/UtlCommandFamilies.h"

// Writes "UNKNOWN <typeName>[<dec>][0x<8 hex digits>]" and leaves the
// stream's formatting state as the caller had it.
std::ostream& streamUnknownTypeValueString(std::ostream& os, const char* typeName, int value);

// One entry of a code type's name table.
struct UtlCodeName {
    std::int32_t value;
    const char* name;
};

// The name of value in table, or nullptr. With duplicate values the first
// entry wins, so an alias listed later never replaces the primary name.
const char* findCodeName(const UtlCodeName* table, std::size_t count, int value);

// Writes the name of value from table, or the unknown text with typeName.
std::ostream& streamCodeName(std::ostream& os, const char* typeName, const UtlCodeName* table, std::size_t count,
                             int value);

template <std::size_t N>
std::ostream& streamCodeName(std::ostream& os, const char* typeName, const UtlCodeName (&table)[N], int value)
{
    return streamCodeName(os, typeName, table, N, value);
}

#define TAVRO_DECLARE_FAMILY_STREAMER(TYPE) std::ostream& operator<<(std::ostream& os, const TYPE& code);
TAVRO_COMMAND_FAMILIES(TAVRO_DECLARE_FAMILY_STREAMER)
#undef TAVRO_DECLARE_FAMILY_STREAMER

std::ostream& operator<<(std::ostream& os, I_EVENT_TYPE type);
std::ostream& operator<<(std::ostream& os, I_EVENT_ACTION action);
