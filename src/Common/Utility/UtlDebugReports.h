#pragma once

// Process and thread reports for post-mortem and stack sizing work.
#include <string>

// Raises the core-file size limit to unlimited, or to the hard limit when
// that is not allowed. True when the soft limit was raised.
bool enableCoreDump();

// One trace line about the calling thread: detach state, stack and guard
// size, scheduling policy and priority.
std::string threadAttributesText(const char* who);
void DisplayThreadAttributes(const char* who);

// One trace line with the bytes of the calling thread's stack in use.
std::string stackUsageText(const char* who);
void DisplayStackUsage(const char* who);
