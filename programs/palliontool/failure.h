#pragma once

#include <string>

#include "foundation/error.h"
#include "foundation/url.h"

// Why an operation failed, as the product tells it.

namespace pallion::tool {

// From now on the product's log lines are remembered instead of printed.
void listenToLog();

// Prints one line with the reason: of `error`, or without one what the product logged first. Where
// that does not name `subject`, its path stands before it; where it lacks `cause`, that follows.
// The remembered lines are forgotten. Answers kExitFailure.
int fail(const URL& subject, const Error& error = {}, const std::string& cause = "");

// Prints the remembered lines on failures, each on a line of its own, and forgets them. True when
// there was one.
bool tellLoggedErrors();

// A path from the command line; a relative one is taken from the working directory. A directory
// exactly when it ends in "/".
URL location(const std::string& path);
URL directoryLocation(const std::string& path);

}  // namespace pallion::tool
