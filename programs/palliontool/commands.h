#pragma once

#include "programs/palliontool/options.h"

// The tool's subcommands: each calls one operation of the product, or a few, and prints the answer.
// Each answers the program's exit status.

namespace pallion::tool {

int digest(const Options& options);
int infoPlist(const Options& options);
int plist(const Options& options);
int realPath(const Options& options);
int standardizeOwnership(const Options& options);
int placeholder(const Options& options);
int installType(const Options& options);
int protectionClass(const Options& options);
int showConfiguration(const Options& options);
int showBuiltIn(const Options& options);
int getPreference(const Options& options);
int setPreference(const Options& options);
int moveItem(const Options& options);
int copyItem(const Options& options);
int removeItem(const Options& options);
int listDirectory(const Options& options);

}  // namespace pallion::tool
