// bench-product WHAT ARGUMENT...: operations of the product, each measured alone where the start of
// a program would drown it. All but the makers print their figures.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>

#include "benchmarks/figures.h"
#include "file_operations/file_manager.h"
#include "foundation/format.h"
#include "foundation/property_list.h"
#include "platform/bundle.h"
#include "platform/registry.h"

namespace {

using namespace pallion;
using bench::timed;

std::string absolute(const std::string& path) { return std::filesystem::absolute(path); }
URL directory(const std::string& path) {
  return URL::fileURL(absolute(path), URL::Kind::kDirectory);
}
URL file(const std::string& path) { return URL::fileURL(absolute(path), URL::Kind::kFile); }

int list(char** arguments) {
  return timed(1, [&] {
    const auto items = PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
        directory(arguments[0]), false, nullptr);
    return items && !items->empty();
  });
}

// read-list FILE REPETITIONS: the time until the values are there, without that of their release.
int readList(char** arguments) {
  const int repetitions = std::atoi(arguments[1]);
  std::chrono::duration<double> wall{};
  for (int i = 0; i < repetitions; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const Value list = readPropertyListFile(file(arguments[0]));
    wall += std::chrono::steady_clock::now() - start;
    if (!list) return 1;
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  bench::printFigures(wall / repetitions, usage);
  return 0;
}

// make-map FILE COUNT xml|binary: a map of group containers.
int makeMap(char** arguments) {
  Dictionary groups;
  for (int i = 0; i < std::atoi(arguments[1]); ++i) {
    char path[128];
    std::snprintf(path, sizeof path,
                  "/private/var/mobile/Library/GroupContainers/%08X-0000-4000-8000-%012X", i, i);
    groups.set("group.com.example.application" + std::to_string(i), Value::string(path));
  }
  const auto format = std::strcmp(arguments[2], "xml") == 0 ? PropertyListFormat::kXML
                                                            : PropertyListFormat::kBinary;
  return writePropertyListFile(Value::dictionary(std::move(groups)), file(arguments[0]), format,
                               Durability::kNotSynced);
}

std::string identifier(int number) { return "com.example.application" + std::to_string(number); }

bool makeStaging(const std::string& staging, int number) {
  const std::string payload = staging + "/Payload";
  const std::string bundle = payload + "/Sample.app";
  if (mkdir(staging.c_str(), 0755) != 0 || mkdir(payload.c_str(), 0755) != 0 ||
      mkdir(bundle.c_str(), 0755) != 0) {
    return false;
  }
  const Dictionary info = {{kQXBundleIdentifier, Value::string(identifier(number))},
                           {"QXBundleVersion", Value::string("1.0")}};
  return writePropertyListFile(Value::dictionary(info), file(bundle + "/Info.plist"),
                               PropertyListFormat::kXML, Durability::kNotSynced) == 0;
}

// make-staging ROOT COUNT: packages that `install` takes over.
int makeStagings(char** arguments) {
  for (int i = 0; i < std::atoi(arguments[1]); ++i) {
    if (!makeStaging(std::string(arguments[0]) + "/staging" + std::to_string(i), i)) return 1;
  }
  return 0;
}

int install(char** arguments) {
  const std::string root = arguments[0];
  const auto registry = Registry::atRoot(directory(root));
  return timed(1, [&] {
    for (int i = 0; i < std::atoi(arguments[1]); ++i) {
      const Dictionary options = {
          {kQXBundleIdentifier, Value::string(identifier(i))},
          {kAppPackageTypeKey, Value::string(std::string(kAppPackageTypeCustomer))}};
      Error error;
      if (!registry->installApplication(directory(root + "/staging" + std::to_string(i)), options,
                                        &error)) {
        std::fprintf(stderr, "bench-product: %s\n", description(error).c_str());
        return false;
      }
    }
    return true;
  });
}

// look-up ROOT COUNT: the time of one of as many look-ups.
int lookUp(char** arguments) {
  const auto registry = Registry::atRoot(directory(arguments[0]));
  const int count = std::atoi(arguments[1]);
  if (!registry->proxyForIdentifier(identifier(0))) return 1;  // opens it
  int number = 0;
  return timed(count, [&] {
    const auto proxy = registry->proxyForIdentifier(identifier(number++));
    return proxy && proxy->foundBackingBundle();
  });
}

struct Work {
  const char* name;
  int arguments;
  int (*run)(char** arguments);
};

constexpr Work kWorks[] = {
    {"list", 1, list},       {"read-list", 2, readList}, {"make-map", 3, makeMap},
    {"install", 2, install}, {"look-up", 2, lookUp},     {"make-staging", 2, makeStagings},
};

}  // namespace

int main(int argc, char** argv) {
  for (const Work& work : kWorks) {
    if (argc == 2 + work.arguments && std::strcmp(argv[1], work.name) == 0) {
      return work.run(argv + 2);
    }
  }
  std::fprintf(stderr, "bench-product: wrong usage\n");
  return 2;
}
