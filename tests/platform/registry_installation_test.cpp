#include <cerrno>
#include <filesystem>
#include <functional>
#include <sys/syscall.h>

#include "platform/built_in_applications.h"
#include "platform/bundle.h"
#include "platform/extended_attributes.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/unreadable_bundle.h"
#include "tests/platform/registry_fixture.h"

namespace pallion::test {
namespace {

using Groups = std::vector<std::pair<std::string, URL>>;
using RegistryInstallation = RegistryTest;

std::string attribute(const URL& url, const char* name) {
  std::string value(16, '\0');
  const ssize_t size = ExtendedAttributes::current().get(url.fileSystemRepresentation(), name,
                                                         value.data(), value.size());
  value.resize(size < 0 ? 0 : static_cast<size_t>(size));
  return value;
}

const std::string kMark("\1\0\0\0", 4);
const std::string kType6("\6\0\0\0\0\0\0\0", 8);

TEST_F(RegistryInstallation, PlaceholderThenBundleKeepsTheDataContainer) {
  const std::string source = makePlaceholder("com.a");
  ASSERT_EQ(install(source, placeholderOptions("com.a", "meta")), "");
  EXPECT_FALSE(exists(source));
  const BundleProxy first = proxy("com.a");
  EXPECT_TRUE(first.isPlaceholder() && first.foundBackingBundle() && !first.isBuiltIn());
  EXPECT_EQ(attribute(*first.bundleURL(), "com.orlix.palliond.placeholder"), kMark);
  EXPECT_EQ(attribute(*first.bundleURL(), "com.orlix.palliond.installType"), kType6);
  EXPECT_EQ(namesIn(first.dataContainerURL()->path()), (Strings{"Documents", "Library", "tmp"}));
  root_.makeFile("staging/GeoJSON", "geo");
  makeStaging("staging", "A.app",
              {"com.a", "2.5", "Run", {"group.b", "group.a", "bad/group", "group.a"}});
  ASSERT_EQ(installBundle(root_ / "staging", "com.a"), "");
  EXPECT_FALSE(exists(root_ / "staging"));
  const BundleProxy second = proxy("com.a");
  EXPECT_EQ(second.dataContainerURL(), first.dataContainerURL());
  EXPECT_FALSE(second.isPlaceholder());
  EXPECT_EQ(attribute(*second.bundleURL(), "com.orlix.palliond.installType"), kType6);
  EXPECT_EQ(namesIn(second.bundleContainerURL()->path()),
            (Strings{"A.app", "BriscaMetadata.plist", "GeoJSON"}));
  const Groups groups = *second.groupContainerURLs();
  ASSERT_EQ(groups.size(), 2U);
  EXPECT_EQ(groups[0].first, "group.a");
  EXPECT_FALSE(exists(first.bundleContainerURL()->path()));
  EXPECT_EQ(installPlaceholder("com.a"), "IdentifierInUse");
  // An update, older than what it replaces, drops a group and brings other metadata.
  makeStaging("staging", "New.app", {"com.a", "1.0", "Run", {"group.a"}});
  root_.makeFile("staging/GeoJSON", "new");
  ASSERT_EQ(installBundle(root_ / "staging", "com.a"), "");
  const BundleProxy third = proxy("com.a");
  EXPECT_EQ(third.dataContainerURL(), first.dataContainerURL());
  EXPECT_EQ(*third.groupContainerURLs(), Groups{groups[0]});
  EXPECT_TRUE(exists(groups[1].second.path()));
  EXPECT_EQ(namesIn(third.bundleContainerURL()->path()),
            (Strings{"BriscaMetadata.plist", "GeoJSON", "New.app"}));
  EXPECT_EQ(readAll(third.bundleContainerURL()->path() + "GeoJSON"), "new");
  EXPECT_EQ(namesIn(containers("/Bundle")).size(), 1U);
  // There is one writer at a time. All of it is there for the next process, in one file.
  EXPECT_FALSE(Registry::atRoot(root_.url())->applicationIsInstalled("com.a"));
  reopen();
  EXPECT_EQ(proxy("com.a").bundleURL(), third.bundleURL());
  registry_->close();
  EXPECT_EQ(namesIn(library()), Strings{"registry.sqlite"});
}

TEST_F(RegistryInstallation, RefusalsLeaveEverythingAsItWas) {
  makeBuiltIn("com.builtin", "2.0");
  ASSERT_EQ(installBundle(makeStaging("first", "P.app", {"com.real"}), "com.real"), "");
  ASSERT_EQ(installPlaceholder("com.waiting"), "");
  const std::string bundle = "staging/Payload/X.app";
  const auto remove = [&](const std::string& item) { std::filesystem::remove_all(root_ / item); };
  const auto make = [&](const std::string& name, const std::string& identifier) {
    makeBundle(root_ / ("staging/Payload/" + name), {identifier});
  };
  // What stands there stands elsewhere, with a link to it.
  const auto link = [&](const std::string& item) {
    std::filesystem::rename(root_ / item, root_ / "elsewhere");
    root_.makeLink(item, root_ / "elsewhere");
  };
  const std::string noCode = "MissingBundleExecutable";
  const struct {
    const char* what;
    std::function<void()> change;  // of a good staging directory
    std::string identifier = "com.x";
    std::string error = "PackageInspectionFailed";
  } kCases[] = {
      {"no identifier", [] {}, "", "InvalidInstallOptions"},
      {"identifier with a slash", [] {}, "com/x", "InvalidInstallOptions"},
      {"identifier above", [] {}, "..", "InvalidInstallOptions"},
      {"identifier of another bundle", [] {}, "com.y"},
      {"no staging directory", [&] { remove("staging"); }},
      {"staging through a link", [&] { link("staging"); }},
      {"Payload through a link", [&] { link("staging/Payload"); }},
      {"empty Payload", [&] { remove(bundle); }},
      {"empty Payload for a placeholder", [&] { remove(bundle); }, "com.waiting"},
      {"two applications", [&] { make("Y.app", "com.y"); }},
      {"two plug-ins", [&] { make("A.vpnplugin", "com.y"), make("B.vpnplugin", "com.z"); }},
      {"something else in Payload", [&] { root_.makeFile("staging/Payload/readme"); }},
      {"file for a plug-in", [&] { root_.makeFile("staging/Payload/P.vpnplugin"); }},
      {"link for the bundle", [&] { link(bundle); }},
      {"item in the bundle's way", [&] { root_.makeFile("staging/X.app"); }},
      {"no Info.plist", [&] { remove(bundle + "/Info.plist"); }},
      {"damaged Info.plist", [&] { root_.makeFile(bundle + "/Info.plist", "<pl"); }},
      {"no executable", [&] { remove(bundle + "/Run"); }, "com.x", noCode},
      {"link for the executable", [&] { link(bundle + "/Run"); }, "com.x", noCode},
      {"executable outside",
       [&] {
         makeBundle(root_ / bundle, {"com.x", "1.0", "../X.app/Run"});
       },
       "com.x", noCode},
      {"plug-in for an installed application",
       [&] { remove(bundle), make("R.vpnplugin", "com.real"); }, "com.real", "IdentifierInUse"}};
  for (const auto& [what, change, identifier, error] : kCases) {
    SCOPED_TRACE(what);
    makeStaging("staging", "X.app", {"com.x"});
    root_.makeFile("staging/GeoJSON", "geo");
    change();
    const TreeSnapshot before = snapshotTree(root_ / "staging");
    const TreeSnapshot layout = newLayout();
    EXPECT_EQ(installBundle(root_ / "staging", identifier), error);
    EXPECT_EQ(difference(before, snapshotTree(root_ / "staging")), "");
    EXPECT_EQ(difference(layout, newLayout()), "");
    for (const char* item : {"staging", "elsewhere"}) remove(item);
  }
  Dictionary unknown = bundleOptions("com.x");
  unknown.set(kAppPackageTypeKey, Value::string("Other"));
  EXPECT_EQ(install(makeStaging("staging", "X.app", {"com.x"}), unknown), "InvalidInstallOptions");
  // Placeholders likewise.
  root_.makeLink("tmp/link.app", makePlaceholder("com.x"));
  makeBundle(root_ / "tmp/com.x.bundle", {"com.x"});
  for (const std::string& path : {root_ / "tmp/link.app", root_ / "tmp/none.app",
                                  root_ / "tmp/com.x.bundle", makePlaceholder("com.y")}) {
    EXPECT_EQ(install(path, placeholderOptions("com.x")), "PackageInspectionFailed") << path;
  }
  EXPECT_EQ(installPlaceholder("com.builtin"), "IdentifierInUse");
  EXPECT_TRUE(exists(root_ / "tmp/com.builtin.app/Info.plist"));
  EXPECT_FALSE(registry_->applicationIsInstalled("com.x"));
}

TEST_F(RegistryInstallation, WhatCannotBeReadIsRefusedAndNotForgotten) {
  makeBuiltIn("com.builtin", "2.0");
  ASSERT_EQ(installPlaceholder("com.a"), "");
  makeStaging("staging", "B.app", {"com.builtin", "3.0"});
  QXBundle::replace(&makeUnreadableBundle);
  reopen();
  EXPECT_EQ(installBundle(root_ / "staging", "com.builtin"), "PackageInspectionFailed");
  EXPECT_FALSE(registry_->applicationIsInstalled("com.builtin"));
  EXPECT_FALSE(registry_->proxyForIdentifier("com.builtin"));
  EXPECT_TRUE(registry_->proxyForIdentifier("com.a"));  // which does not depend on it
  Error error;
  EXPECT_FALSE(registry_->allProxies(&error));
  EXPECT_TRUE(error.underlyingError().isPOSIX(EIO));
  QXBundle::replace(nullptr);
  EXPECT_TRUE(registry_->applicationIsInstalled("com.builtin"));
  EXPECT_EQ(installBundle(root_ / "staging", "com.builtin"), "");
}

TEST_F(RegistryInstallation, BuiltInApplications) {
  makeBuiltIn("com.builtin", "1.10", {"group.system"});
  root_.makeLink("Applications/Link.app", "com.builtin.app");
  root_.makeDirectory("Applications/Broken.app");
  const BundleProxy system = proxy("com.builtin");
  EXPECT_TRUE(system.isBuiltIn() && system.foundBackingBundle() && system.dataContainerURL());
  EXPECT_EQ(system.bundleURL()->path(), root_ / "Applications/com.builtin.app/");
  ASSERT_EQ(system.groupContainerURLs()->size(), 1U);
  EXPECT_TRUE(exists(system.groupContainerURLs()->front().second.path()));
  // Older: refused, and the staging directory is gone. A repetition finds nothing left and
  // succeeds.
  for (const char* version : {"1.9", "", "beta"}) {
    makeStaging("staging", "B.app", {"com.builtin", version});
    EXPECT_EQ(installBundle(root_ / "staging", "com.builtin"), "ApplicationAlreadyInstalled");
    EXPECT_EQ(namesIn(root_.path()), (Strings{"Applications", "private"})) << version;
  }
  root_.makeDirectory("staging/Payload");
  EXPECT_EQ(installBundle(root_ / "staging", "com.builtin"), "");
  makeStaging("staging", "B.app", {"com.builtin", "1.10.0"});
  ASSERT_EQ(installBundle(root_ / "staging", "com.builtin"), "");
  const BundleProxy updated = proxy("com.builtin");
  EXPECT_TRUE(updated.isBuiltIn());
  EXPECT_EQ(updated.version(), "1.10.0");
  EXPECT_EQ(updated.dataContainerURL(), system.dataContainerURL());
}

TEST(BundleVersion, ComparesNumberByNumber) {
  const std::pair<const char*, const char*> kOrdered[] = {
      {"1.9", "1.10"},  {"", "1"},    {"1", "1.0.1"},
      {"1.2b9", "1.3"}, {"x", "0.1"}, {"99999999999999999998", "99999999999999999999"}};
  for (const auto& [older, newer] : kOrdered) {
    EXPECT_LT(compareVersions(older, newer), 0) << older << " " << newer;
    EXPECT_GT(compareVersions(newer, older), 0) << older << " " << newer;
  }
  for (const char* same : {"01.0", "1.0.0.", "1b2"}) EXPECT_EQ(compareVersions(same, "1"), 0);
}

TEST_F(RegistryInstallation, LateMetadataGoesBesideTheBundle) {
  root_.makeFile("staging/GeoJSON", "old");
  ASSERT_EQ(installBundle(makeStaging("staging", "A.app", {"com.a"}), "com.a"), "");
  const std::string container = proxy("com.a").bundleContainerURL()->path();
  root_.makeFile("staging/GeoJSON", "late");
  root_.makeFile("staging/BriscaArtwork", "art");
  root_.makeDirectory("staging/Payload");
  ASSERT_EQ(installBundle(root_ / "staging", "com.a"), "");
  EXPECT_FALSE(exists(root_ / "staging"));
  EXPECT_EQ(readAll(container + "GeoJSON"), "late");
  // Items of any kind, over items of any kind.
  for (const char* content : {"over a file", "over a directory"}) {
    root_.makeFile("staging/BriscaArtwork/part", content);
    ASSERT_EQ(installBundle(root_ / "staging", "com.a"), "");
    EXPECT_EQ(readAll(container + "BriscaArtwork/part"), content);
  }
  EXPECT_EQ(proxy("com.a").bundleContainerURL()->path(), container);
  // Never over the bundle.
  root_.makeFile("staging/A.app", "no bundle");
  EXPECT_EQ(installBundle(root_ / "staging", "com.a"), "InstallationFailed");
  EXPECT_EQ(readAll(root_ / "staging/A.app"), "no bundle");
  EXPECT_TRUE(proxy("com.a").foundBackingBundle());
}

TEST_F(RegistryInstallation, PlugInsHaveRecordsOfTheirOwn) {
  const BundleProxy alone = proxy("com.vpn");
  EXPECT_EQ(alone.bundleType(), "VPNBundle");
  EXPECT_FALSE(alone.foundBackingBundle() || alone.bundleURL() || alone.isPlaceholder());
  ASSERT_EQ(installBundle(makeStaging("staging", "V.vpnplugin", {"com.vpn"}), "com.vpn"), "");
  // Beside an application; groups are shared. The plug-in leaves the container where it stood
  // alone.
  makeStaging("staging", "A.app", {"com.a", "1", "Run", {"group.v"}});
  makeBundle(root_ / "staging/Payload/V.vpnplugin", {"com.vpn", "2", "Run", {"group.v"}});
  ASSERT_EQ(installBundle(root_ / "staging", "com.a"), "");
  const BundleProxy beside = proxy("com.vpn");
  const BundleProxy application = proxy("com.a");
  EXPECT_EQ(beside.bundleContainerURL(), application.bundleContainerURL());
  EXPECT_EQ(beside.dataContainerURL(), alone.dataContainerURL());
  EXPECT_NE(beside.dataContainerURL(), application.dataContainerURL());
  EXPECT_EQ(beside.groupContainerURLs(), application.groupContainerURLs());
  EXPECT_EQ(namesIn(containers("/Bundle")).size(), 1U);
  // An update without the plug-in does not take the plug-in's bundle away.
  ASSERT_EQ(installBundle(makeStaging("staging", "A.app", {"com.a"}), "com.a"), "");
  EXPECT_TRUE(proxy("com.vpn").foundBackingBundle());
  // A plug-in without an identifier is only kept; one with another application's identifier must
  // not take its place.
  for (const char* identifier : {"", "com.a", "com.b"}) {
    makeStaging("staging", "B.app", {"com.b"});
    makeBundle(root_ / "staging/Payload/Q.vpnplugin", {identifier});
    ASSERT_EQ(installBundle(root_ / "staging", "com.b"), "") << identifier;
    EXPECT_EQ(namesIn(proxy("com.b").bundleContainerURL()->path()),
              (Strings{"B.app", "Q.vpnplugin"}));
    EXPECT_EQ(proxy("com.b").bundleType(), "App") << identifier;
    EXPECT_EQ(proxy("com.a").bundleURL()->lastPathComponent(), "A.app") << identifier;
  }
}

TEST_F(RegistryInstallation, RecordsOnlyForPlainNames) {
  for (const char* identifier : {"", ".", "..", "a/b", "a\nb"}) {
    EXPECT_FALSE(registry_->proxyForIdentifier(identifier)) << identifier;
    EXPECT_FALSE(registry_->applicationIsInstalled(identifier)) << identifier;
  }
  // Containers that were lost are made again.
  ASSERT_EQ(
      installBundle(makeStaging("staging", "A.app", {"com.a", "1", "Run", {"group.a"}}), "com.a"),
      "");
  for (const char* kind : {"/Data", "/Group", "/Bundle"})
    std::filesystem::remove_all(containers(kind));
  reopen();
  const BundleProxy again = proxy("com.a");
  EXPECT_EQ(namesIn(again.dataContainerURL()->path()), (Strings{"Documents", "Library", "tmp"}));
  EXPECT_TRUE(exists(again.groupContainerURLs()->front().second.path()));
  EXPECT_FALSE(again.foundBackingBundle());
}

// Every kind of call that an installation changes something with, refused: nothing is taken, or all
// of it.
TEST_F(RegistryInstallation, ARefusedCallLosesNothing) {
  const struct {
    std::initializer_list<long> calls;
    int error;
  } kCases[] = {
      {{SYS_fdatasync, SYS_fsync, SYS_syncfs}, EIO},          {{SYS_pwrite64, SYS_write}, ENOSPC},
      {{SYS_rename, SYS_renameat, SYS_renameat2}, EACCES},    {{SYS_mkdir, SYS_mkdirat}, ENOSPC},
      {{SYS_setxattr, SYS_lsetxattr, SYS_fsetxattr}, ENOSPC}, {{SYS_getdents64}, EIO},
      {{SYS_lstat, SYS_fstat, SYS_newfstatat}, EIO}};
  ASSERT_EQ(installPlaceholder("com.a"), "");
  root_.makeDirectory("Applications");
  makeStaging("staging", "A.app", {"com.a", "1", "Run", {"group.a"}});
  const std::string placeholder = makePlaceholder("com.b");
  // The one thing that a refused installation may have done to the staging directory.
  const std::string bundle = root_ / "staging/Payload/A.app";
  ASSERT_EQ(ExtendedAttributes::current().set(bundle.c_str(), "com.orlix.palliond.installType",
                                              kType6.data(), 8),
            0);
  const TreeSnapshot before = snapshotTree(root_ / "staging", {.ignoreTimes = true});
  const TreeSnapshot layout = newLayout();
  for (const auto& [calls, error] : kCases) {
    SCOPED_TRACE(*calls.begin());
    reopen();  // built-in applications have yet to be listed
    EXPECT_TRUE(runInMountNamespace([&, refused = calls, number = error] {
      ASSERT_TRUE(registry_->applicationIsInstalled("com.a"));
      ASSERT_TRUE(refuseCalls(refused, number));
      EXPECT_NE(installBundle(root_ / "staging", "com.a"), "");
      EXPECT_NE(install(placeholder, placeholderOptions("com.b", "meta")), "");
    }));
    EXPECT_TRUE(exists(placeholder + "/Info.plist"));
    EXPECT_EQ(difference(before, snapshotTree(root_ / "staging", {.ignoreTimes = true})), "");
    EXPECT_TRUE(registry_->applicationIsInstalled("com.a"));
    registry_->close();
    EXPECT_EQ(difference(layout, newLayout()), "");
  }
  EXPECT_EQ(installBundle(root_ / "staging", "com.a"), "");
}

}  // namespace
}  // namespace pallion::test
