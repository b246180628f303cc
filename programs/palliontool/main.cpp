#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/common/root_directory.h"
#include "programs/common/standard_descriptors.h"
#include "programs/palliontool/failure.h"
#include "programs/palliontool/options.h"

int main(int argc, char** argv) {
  using namespace pallion;
  openStandardDescriptors();
  const auto parsed = tool::parseOptions(argc, argv);
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const auto& options = std::get<tool::Options>(parsed);
  RootDirectory root;
  // The system's own root needs no entering: relative paths keep their meaning.
  if (options.root != "/") {
    int error = root.open(options.root);
    if (error == 0) error = root.enter();
    if (error != 0) {
      complain(options.root, error);
      return kExitUsage;
    }
  }
  tool::listenToLog();
  const int status = options.command(options);
  // What an operation that succeeded had to put up with.
  if (status == kExitSuccess) tool::tellLoggedErrors();
  return status;
}
