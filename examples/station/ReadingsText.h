#pragma once

#include "HostRegisters.h"

#include <string>
#include <string_view>

// The text in which stations tell each other their readings:
//
//     station-readings 1
//     0 1
//     1 9029
//     ...
//     13 987
//
// The first line names the format and its version. Then comes each host register, its address and its value in decimal
// digits with one blank between them. Every line ends with a line feed, the last one too; nothing else is in the text.
// Thread: any.

std::string FormatReadings(const HostRegisters& registers);

// Returns false, with `registers` left as they were, for every text that FormatReadings() cannot have made.
bool ParseReadings(std::string_view text, HostRegisters& registers);
