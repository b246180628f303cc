#include <unistd.h>

#include "file_operations/file_manager.h"
#include "platform/text_escape.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/failure.h"
#include "support/file_digest.h"

namespace pallion::tool {

namespace {

const PLFileManager& files() { return PLFileManager::defaultManager(); }

int answer(bool succeeded, const URL& subject, const Error& error) {
  return succeeded ? kExitSuccess : fail(subject, error);
}

// sha256sum marks a line whose name it had to escape with a backslash at its beginning.
std::string digestLine(const std::string& digest, const std::string& name) {
  std::string escaped;
  for (const char byte : name) {
    if (byte == '\\') {
      escaped += "\\\\";
    } else if (byte == '\n') {
      escaped += "\\n";
    } else if (byte == '\r') {
      escaped += "\\r";
    } else {
      escaped += byte;
    }
  }
  return (escaped == name ? "" : "\\") + digest + "  " + escaped + "\n";
}

// One path a line: as it is for programs, fit for the screen on a terminal.
bool printPaths(const std::vector<URL>& urls) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  std::string lines;
  for (const URL& url : urls) {
    lines += terminal ? terminalText(url.path()) : url.path();
    lines += '\n';
  }
  return print(lines);
}

}  // namespace

int digest(const Options& options) {
  // Who reads a pipe or a file gets many lines in one piece; who watches sees each as it comes.
  const size_t piece = isatty(STDOUT_FILENO) == 1 ? 1 : size_t{64} * 1024;
  int status = kExitSuccess;
  std::string lines;
  for (const std::string& name : options.files) {
    const URL file = location(name);
    const std::optional<std::string> digits = PLCreateSHA256Digest(file);
    if (!digits) {
      status = fail(file);
      continue;
    }
    lines += digestLine(*digits, name);
    if (lines.size() < piece) continue;
    if (!print(lines)) return kExitFailure;
    lines.clear();
  }
  return lines.empty() || print(lines) ? status : kExitFailure;
}

int realPath(const Options& options) {
  const URL base = location(options.base);
  const URL path = location(options.path);
  const std::optional<URL> real = files().realPathForURL(&path, &base);
  if (!real) return fail(path);
  return printPaths({*real}) ? kExitSuccess : kExitFailure;
}

int standardizeOwnership(const Options& options) {
  const URL root = location(options.path);
  Error error;
  return answer(files().standardizeOwnershipAtURL(root, options.uid, options.gid,
                                                  options.validateSymlinks, &error),
                root, error);
}

int moveItem(const Options& options) {
  const URL source = location(options.path);
  Error error;
  return answer(files().moveItemAtURL(source, location(options.destination), &error), source,
                error);
}

int copyItem(const Options& options) {
  const URL source = location(options.path);
  Error error;
  return answer(files().copyItemAtURL(source, location(options.destination), &error), source,
                error);
}

int removeItem(const Options& options) {
  const URL item = location(options.path);
  Error error;
  return answer(files().removeItemAtURL(item, &error), item, error);
}

int listDirectory(const Options& options) {
  const URL directory = directoryLocation(options.path);
  Error error;
  const auto items = files().urlsForItemsInDirectoryAtURL(directory, options.ignoreLinks, &error);
  if (!items) return fail(directory, error);
  return printPaths(*items) ? kExitSuccess : kExitFailure;
}

}  // namespace pallion::tool
