#include <CLI/CLI.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "programs/common/option_table.h"
#include "programs/make_old_layout/layout_options.h"
#include "programs/make_old_layout/old_layout.h"
#include "programs/make_old_layout/places.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
// Beyond these a number is taken for a slip of the hand.
constexpr double kMostItems = 1e6;
constexpr double kLargestFile = 1e12;
constexpr double kLargestSeed = 1e18;

int complain(int status, const std::string& text) {
  std::fprintf(stderr, "make-old-layout: %s\n", text.c_str());
  return status;
}

void describe(CLI::App& app, pallion::LayoutOptions& options) {
  app.set_version_flag("--version", "make-old-layout " PALLION_VERSION);
  app.add_option("--root", options.root, "Directory that stands for \"/\"; made when missing")
      ->required()
      ->type_name("DIR");
  // The range is checked on the text, because the conversion to a number takes "-1" for a very
  // large one.
  const auto number = [&app](const char* name, uint64_t& value, double most, const char* text) {
    app.add_option(name, value, text)
        ->capture_default_str()
        ->check(CLI::Range(0.0, most).description(""))
        ->type_name("N");
  };
  number("--apps", options.applications, kMostItems,
         "Applications, each in a container of its own");
  number("--files", options.files, kMostItems, "User-data files in each container");
  number("--file-size", options.fileSize, kLargestFile, "Bytes of each of these files");
  number("--vpn", options.vpnPlugins, kMostItems,
         "Containers that hold a VPN plug-in alone, besides the applications");
  number("--groups", options.groups, kMostItems,
         "Group containers, each shared by two applications");
  number("--harbors", options.harbors, kMostItems, "Safe harbors");
  number("--placeholders", options.placeholders, kMostItems,
         "So many of the applications are placeholders");
  app.add_flag("--mess", options.mess,
               "Add awkward cases: stray and damaged files, links, odd identifiers and maps");
  number("--seed", options.seed, kLargestSeed,
         "The same seed gives the same names, contents and times");
  app.footer(
      "Examples:\n"
      "  make-old-layout --root /tmp/device\n"
      "  make-old-layout --root /tmp/device --apps 5 --mess\n"
      "  make-old-layout --root /tmp/large --apps 5000 --files 20 --file-size 4096 --seed 7");
}

}  // namespace

int main(int argc, char** argv) {
  pallion::LayoutOptions options;
  CLI::App app(
      "Writes the application layout of an old device, for demonstrations, tests and "
      "measurements.",
      "make-old-layout");
  describe(app, options);
  if (pallion::printsOptionTable(app, argc, argv)) return 0;
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return complain(kWrongUsage, error.what());
  }
  if (options.placeholders > options.applications) {
    return complain(kWrongUsage, "--placeholders: more than there are applications");
  }
  if (const int number = pallion::canHoldLayout(options.root); number != 0) {
    return complain(number == ENOTEMPTY ? kWrongUsage : kFailed,
                    options.root + pallion::kContainersDirectory + ": " + std::strerror(number));
  }

  const pallion::LayoutSummary summary = pallion::writeOldLayout(options);
  if (summary.errorNumber != 0) {
    return complain(kFailed, summary.failedPath + ": " + std::strerror(summary.errorNumber));
  }
  std::printf("%" PRIu64 " applications (%" PRIu64 " of them placeholders), %" PRIu64
              " VPN plug-ins alone, %" PRIu64 " groups, %" PRIu64 " safe harbors, %" PRIu64
              " awkward cases: %" PRIu64 " files, %" PRIu64 " bytes in %s\n",
              options.applications, options.placeholders, options.vpnPlugins, options.groups,
              options.harbors, summary.awkwardCases, summary.files, summary.bytes,
              options.root.c_str());
  return 0;
}
