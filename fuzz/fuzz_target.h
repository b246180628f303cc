#pragma once

#include <string>
#include <string_view>

// What every fuzz target shares. A target is one source file that defines runInput; the rest comes
// from libFuzzer, or from replay.cpp where that is not there.

namespace pallion::fuzz {

// Puts one input through the code under test and ends the process where a promise is broken. Leaves
// nothing behind that the next input could see.
void runInput(std::string_view input);

// Ends the process, with a line on stderr, when a promise does not hold.
void require(bool holds, const char* promise);

// Writes a file that may be there already.
void writeFile(const std::string& path, std::string_view bytes);

}  // namespace pallion::fuzz
