#pragma once

// Stream text of utility and protocol code types, for trace output only.
#include <ostream>

// Writes "UNKNOWN <typeName>[<dec>][0x<8 hex digits>]" and leaves the
// stream's formatting state as the caller had it.
std::ostream& streamUnknownTypeValueString(std::ostream& os, const char* typeName, int value);
