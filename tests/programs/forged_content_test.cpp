#include <filesystem>
#include <optional>
#include <sys/stat.h>

#include "tests/helpers/device_state.h"
#include "tests/helpers/png_bytes.h"
#include "tests/programs/program_process.h"

// Old containers in which something was put to mislead the migration.

namespace pallion::test {

namespace {

const std::string kMobile = "/private/var/mobile";
const std::string kContainers = kMobile + "/Applications";
const std::string kForged = kContainers + "/F0F0F0F0-0000-4000-8000-000000000000";
const std::string kOutside = kMobile + "/Media";
constexpr const char* kSecondsUntilHung = "100";
constexpr size_t kSound = 5;  // containers

const std::string kInfo = entry("QXBundleIdentifier", "com.example.forged") +
                          entry("QXBundleExecutable", "Forged") + entry("QXBundleIconFile", "Icon");

// A device with sound containers, one that is to be forged, and something outside to be misled to.
class Device {
 public:
  Device() {
    makeOldLayout(root_.path(), "--apps 4 --vpn 1 --groups 2 --harbors 1 --files 3");
    for (const auto& item : std::filesystem::directory_iterator(root_ / kContainers)) {
      others.push_back(kContainers + "/" + item.path().filename().string());
    }
    sound_.emplace(root_.path());
    file("Forged.app/Info.plist", plist(kInfo));
    file("Forged.app/Forged", "#!/bin/sh\n");
    file("Documents/note", "of the forged container");
    for (const char* name : {"/Payload/file", "/Forged.app/Forged", "/Documents/file"}) {
      root_.makeFile(kOutside + name, "outside");
    }
    root_.makeFile(kOutside + "/Forged.app/Info.plist", plist(kInfo));
  }

  // Items of the forged container; what stood there goes.
  void file(const std::string& name, const std::string& content) const {
    std::filesystem::remove_all(path(name));
    root_.makeFile(kForged + "/" + name, content);
  }
  void link(const std::string& name, const std::string& target) const {
    std::filesystem::remove_all(path(name));
    root_.makeLink(kForged + "/" + name, target);
  }
  void fifo(const std::string& name) const {
    file(name, "");
    unlink(path(name).c_str());
    ASSERT_EQ(mkfifo(path(name).c_str(), 0644), 0);
  }
  void info(const std::string& more) const { file("Forged.app/Info.plist", plist(kInfo + more)); }
  void marker(const std::string& container, const std::string& bundle,
              const std::string& more = "") const {
    file("com.orlix.pallion.container_migrator.plist",
         plist(entry("ContainerPath", container) + entry("BundlePath", bundle) +
               entry("BundleIdentifier", "com.example.forged") + entry("ContainerType", "App") +
               more));
  }
  [[nodiscard]] std::string path(const std::string& name) const {
    return root_ / (kForged + "/" + name);
  }

  [[nodiscard]] std::string bundleOf(const std::string& container) const {
    for (const auto& item : std::filesystem::directory_iterator(root_ / container)) {
      const std::string extension = item.path().extension();
      if (extension == ".app" || extension == ".vpnplugin") {
        return container + "/" + item.path().filename().string();
      }
    }
    return "";
  }

  // Migrates; answers what is wrong afterwards.
  [[nodiscard]] std::string migrate() const {
    const TreeSnapshot before = snapshotTree(root_ / kOutside, {.changeTimes = true});
    ChildProcess::Setup setup = setupOf("migration-host", {"--root", root_.path(), "-q"});
    setup.arguments.insert(setup.arguments.begin(), {"/usr/bin/timeout", kSecondsUntilHung});
    const ProcessOutcome outcome = runProcess(setup);
    std::string wrong;
    if (outcome.status != 0 && outcome.status != 1) {
      wrong += "exit status " + std::to_string(outcome.status) + "\n" + outcome.err;
    }
    wrong += difference(before, snapshotTree(root_ / kOutside, {.changeTimes = true}));
    // With the forged container, the directory of the containers stays.
    const bool stays = exists(path(""));
    for (const std::string& line : lines(sound_->differenceAfterMigration(root_.path())))
      if (!stays || !line.starts_with("still there: ")) wrong += line + "\n";
    if (!exists(root_ / kContainers)) return wrong;
    for (const auto& item : std::filesystem::directory_iterator(root_ / kContainers)) {
      if (item.path() != root_ / kForged) wrong += "left: " + item.path().string() + "\n";
    }
    return wrong;
  }

  std::vector<std::string> others;  // paths of the sound containers, inside the device

 private:
  TemporaryRoot root_;
  std::optional<DeviceState> sound_;
};

}  // namespace

TEST(ForgedContent, CostsItsOwnContainerAtMost) {
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root";
  using D = const Device&;
  struct Case {
    std::string name;
    std::function<void(D)> forge;
  };
  const std::string remainder = ".com.orlix.pallion.moved.F0F0F0F0-0000-4000-8000-000000000000";
  const std::string groups =
      "<key>QXApplicationGroups</key><array><string>../../../../mobile/Media</string>"
      "<string>/private/var/mobile/Media</string></array>";
  const std::string vast =
      pngBytes({60000, 60000, 8, 6, "", false, {{"IDAT", zlibBomb(size_t{64} << 20)}}});
  const std::string text = std::string("Comment\0\0", 9) + zlibBomb(size_t{1} << 30);
  const std::string unfolding =
      pngBytes({1, 1, 8, 0, std::string("\0\x80", 2), false, {{"zTXt", text}}});
  const std::string bundle = kForged + "/Forged.app";
  std::vector<Case> cases = {
      {"nothing", [](D) {}},
      {"staging leads out by climbing", [](D d) { d.link("Staging", "../../Media"); }},
      {"staging leads aside", [](D d) { d.link("Staging", d.others.front()); }},
      {"payload leads out", [](D d) { d.link("Staging/Payload", kOutside + "/Payload"); }},
      {"info plist of 65 MiB",
       [](D d) { d.info("<!--" + std::string(size_t{65} << 20, ' ') + "-->"); }},
      {"info plist of a TiB",
       [](D d) {
         std::filesystem::resize_file(d.path("Forged.app/Info.plist"), uintmax_t{1} << 40);
       }},
      {"group climbs", [&](D d) { d.info(groups); }},
      {"icon leads out", [](D d) { d.info(entry("QXBundleIconFile", "../../Icon")); }},
      {"icon claims to be vast", [&](D d) { d.file("Forged.app/Icon.png", vast); }},
      {"icon with texts that unfold", [&](D d) { d.file("Forged.app/Icon.png", unfolding); }},
      {"marker of the user's directory", [&](D d) { d.marker(kMobile, bundle); }},
      {"marker of what is outside", [](D d) { d.marker(kOutside, kOutside + "/Forged.app"); }},
      {"marker that climbs", [&](D d) { d.marker(kForged + "/../../Media", bundle); }},
      {"marker's bundle outside", [](D d) { d.marker(kForged, kOutside + "/Forged.app"); }},
      {"marker's bundle climbs",
       [](D d) { d.marker(kForged, kForged + "/../../Media/Forged.app"); }},
      {"marker's bundle is a container", [](D d) { d.marker(kForged, d.others.front()); }},
      {"marker's second bundle outside",
       [&](D d) {
         d.marker(kForged, bundle, entry("SecondBundlePath", kOutside + "/Forged.app"));
       }},
  };
  for (const std::string item :
       {"Staging", "Documents", "Library", "Manifest.plist", "BriscaArtwork",
        "BriscaMetadata.plist", "GeoJSON", "com.orlix.pallion.container_migrator.plist",
        "Forged.app/Info.plist", "Forged.app/Forged", "Forged.app/Icon.png", remainder.c_str()}) {
    const std::string target = item.starts_with("Forged.app") ? kOutside + "/" + item : kOutside;
    cases.push_back({item + " leads out", [=](D d) { d.link(item, target); }});
    cases.push_back({item + " is a FIFO", [=](D d) { d.fifo(item); }});
  }
  // Whichever of them comes first in the run.
  for (size_t i = 0; i < kSound; ++i) {
    const std::string number = std::to_string(i);
    cases.push_back(
        {"marker of container " + number, [=](D d) { d.marker(d.others.at(i), bundle); }});
    cases.push_back({"marker with the bundle of container " + number,
                     [=](D d) { d.marker(kForged, d.bundleOf(d.others.at(i))); }});
  }
  for (const Case& each : cases) {
    const Device device;
    each.forge(device);
    EXPECT_EQ(device.migrate(), "") << each.name;
  }
}

}  // namespace pallion::test
