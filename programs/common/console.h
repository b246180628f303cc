#pragma once

#include <string>
#include <string_view>

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

// The status line at the bottom of a terminal on standard error; it makes room for each line of
// `complain`. An empty text takes it away. `text` must fit into one row and be fit for a terminal.
void showStatus(const std::string& text);
// Takes the status line away for good. Waits a moment at most for a thread that is drawing it: the
// terminal may be stopped. For the end by a signal.
void closeStatus();

}  // namespace pallion
