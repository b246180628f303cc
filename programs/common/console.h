#pragma once

#include <string>
#include <string_view>
#include <vector>

// A program's words on standard output and standard error. Any thread may call.

namespace pallion {

// Writes to standard output. False for what can't be written and is lost; the first time, a line on
// standard error says so.
bool print(std::string_view text);

// One line "<program>: <text>" on standard error. Control bytes and what is not UTF-8 are
// replaced.
void complain(std::string_view text);
// The same with ": " and the text of `errorNumber`.
void complain(std::string_view text, int errorNumber);

// What follows never waits for who reads standard error; what it does not take is lost. Before its
// first use, and before the root changes and other threads are made:
void openStatus();
// A line as `complain` writes it.
void remark(std::string_view text);
// The rows of the status at the bottom of a terminal on standard error. They make room for each
// line of the others above, and come back with the next call. No rows take them away. Each must fit
// into one row and be fit for a terminal.
void showStatus(const std::vector<std::string>& rows);
// Takes the status away for good. Waits a moment at most for a thread that is drawing it. For the
// end by a signal.
void closeStatus();

}  // namespace pallion
