#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

#include "file_operations/file_manager.h"
#include "platform/extended_attributes.h"
#include "platform/protection_class.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

const PLFileManager& files = PLFileManager::defaultManager();

}  // namespace

TEST(ItemAttributes, PlaceholderMarkCountsByItsSize) {
  TemporaryRoot root;
  const URL bundle = URL::fileURL(root.makeDirectory("Foo.app"), URL::Kind::kDirectory);
  const char* path = bundle.fileSystemRepresentation();
  EXPECT_FALSE(files.bundleAtURLIsPlaceholder(bundle));
  for (const size_t size : {size_t{4}, size_t{0}, size_t{8}}) {
    ASSERT_EQ(0, ExtendedAttributes::current().set(path, "com.orlix.palliond.placeholder",
                                                   "12345678", size));
    EXPECT_EQ(files.bundleAtURLIsPlaceholder(bundle), size == 4) << size;
  }
  ASSERT_TRUE(files.markBundleAsPlaceholder(bundle, nullptr));
  EXPECT_TRUE(files.bundleAtURLIsPlaceholder(bundle));
  // A link is itself the item.
  EXPECT_FALSE(files.bundleAtURLIsPlaceholder(URL::fileURL(root.makeLink("Link.app", "Foo.app"))));
}

TEST(ItemAttributes, InstallTypeIsAnUnsignedNumber) {
  TemporaryRoot root;
  RecordedProductLog log;
  const URL bundle = URL::fileURL(root.makeDirectory("Foo.app"), URL::Kind::kDirectory);
  const std::string path = bundle.fileSystemRepresentation();
  Error error;
  EXPECT_EQ(files.installTypeForBundle(bundle, &error), Value::integer(0));
  for (const Value& type : {Value::integer(6), Value::unsignedInteger(UINT64_MAX), Value()}) {
    ASSERT_TRUE(files.setInstallType(type, bundle, &error));
    EXPECT_EQ(files.installTypeForBundle(bundle, &error),
              Value::unsignedInteger(type.uint64Value()));
  }
  EXPECT_FALSE(error);
  EXPECT_TRUE(log.lines.empty());

  ASSERT_EQ(0, ExtendedAttributes::current().set(path.c_str(), "com.orlix.palliond.installType",
                                                 "1234", 4));
  EXPECT_FALSE(files.installTypeForBundle(bundle, &error));
  EXPECT_EQ(error.code(), 4);
  EXPECT_FALSE(error.underlyingError());
  EXPECT_EQ(error.localizedDescription(),
            "getxattr for installType EA on " + path + " returned 4 (expected 8)");
}

TEST(ItemAttributes, FailuresAreLoggedRecords) {
  TemporaryRoot root;
  RecordedProductLog log;
  const URL bundle = URL::fileURL(root.makeDirectory("Foo.app"), URL::Kind::kDirectory);
  const std::string path = bundle.fileSystemRepresentation();
  class Failing : public ExtendedAttributes {
    ssize_t get(const char*, const char*, void*, size_t) override { return errno = EIO, -1; }
    int set(const char*, const char*, const void*, size_t) override { return errno = EIO, -1; }
  } failing;
  ExtendedAttributes::replace(&failing);
  EXPECT_FALSE(files.bundleAtURLIsPlaceholder(bundle));
  EXPECT_TRUE(log.lines.empty());
  Error records[3];
  EXPECT_FALSE(files.markBundleAsPlaceholder(bundle, &records[0]));
  EXPECT_FALSE(files.setInstallType(Value::integer(1), bundle, &records[1]));
  EXPECT_FALSE(files.installTypeForBundle(bundle, &records[2]));
  ExtendedAttributes::replace(nullptr);
  const std::string texts[] = {"Could't set placeholder EA on \"" + path + "\"",
                               "Could't set installType EA on \"" + path + "\"",
                               "Couldn't get installType EA from \"" + path + "\""};
  ASSERT_EQ(log.lines.size(), 3U);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(description(records[i]),
              "PLInstallerErrorDomain 4: " + texts[i] + ": Input/output error (POSIX 5)");
    EXPECT_NE(log.lines[i].find(texts[i]), std::string::npos) << log.lines[i];
  }
}

TEST(ItemAttributes, ProtectionClassesGoThroughTheItemsDescriptor) {
  TemporaryRoot root;
  const URL file = URL::fileURL(root.makeFile("file"));
  int32_t value = -1;
  ASSERT_TRUE(files.dataProtectionClassOfItemAtURL(file, value, nullptr));
  EXPECT_EQ(value, 0);
  int32_t offered = -1;
  const auto decline = [&](int32_t current) { return offered = current, false; };
  ASSERT_TRUE(files.setDataProtectionClassOfItemAtURL(file, 3, {}, nullptr));
  ASSERT_TRUE(files.setDataProtectionClassOfItemAtURL(file, 1, decline, nullptr));
  EXPECT_EQ(offered, 3);
  ASSERT_TRUE(files.dataProtectionClassOfItemAtURL(file, value, nullptr));
  EXPECT_EQ(value, 3);

  const URL link = URL::fileURL(root.makeLink("link", "file"));
  Error error;
  EXPECT_FALSE(files.setDataProtectionClassOfItemAtURL(link, 3, {}, &error));
  EXPECT_TRUE(error.isPOSIX(ELOOP));
  EXPECT_EQ(error.localizedDescription(),
            "Failed to open " + (root / "link") + " : " + std::strerror(ELOOP));

  class Refusing : public ProtectionClass {
    int get(int) override { return errno = EIO, -1; }
    int set(int, int) override { return errno = EPERM, -1; }
  } refusing;
  ProtectionClass::replace(&refusing);
  const std::string path = root / "file";
  EXPECT_FALSE(files.setDataProtectionClassOfItemAtURL(file, 5, {}, &error));
  EXPECT_EQ(description(error),
            "POSIX 1: Failed to setclass(5) on file " + path + ": Operation not permitted");
  EXPECT_FALSE(files.setDataProtectionClassOfItemAtURL(file, 5, decline, &error));
  EXPECT_EQ(description(error),
            "POSIX 5: Failed to getclass of file " + path + ": Input/output error");
  const URL directory = root.url();
  EXPECT_FALSE(files.createDirectoryAtURL(directory, false, 0755, 4, &error));
  EXPECT_EQ(description(error), "POSIX 1: Failed to setclass(4) on directory " + root.path() +
                                    "/: Operation not permitted");
  ProtectionClass::replace(nullptr);
}

}  // namespace pallion::test
