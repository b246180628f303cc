#pragma once

#include <string_view>

// The property list that PLAppMigrator::migrationPlan answers. Names and paths are bytes.

namespace pallion::plan {

// --- The plan.

// String: SHA-256 in hexadecimal of what the run will do and of what it was concluded from: every
// entry under kContainers, kGroups and kHarbors; inode, size, mode and times of modification and
// change of every item of the old containers directory and of each entry of its user data, groups
// and harbors, of migration markers, information property lists and both maps. Neither volumes nor
// names of devices: an image has one id wherever it is attached.
inline constexpr std::string_view kId = "id";
// Boolean: what performMigration will answer.
inline constexpr std::string_view kResult = "result";
// String, where `init` will yield no migrator: why.
inline constexpr std::string_view kNoMigrator = "noMigrator";
// Boolean: no old layout, and nothing kept for removed applications.
inline constexpr std::string_view kNothingToMigrate = "nothingToMigrate";
// Arrays of dictionaries, each in the order in which the run comes to it.
inline constexpr std::string_view kContainers = "containers";
inline constexpr std::string_view kGroups = "groups";
inline constexpr std::string_view kHarbors = "harbors";
inline constexpr std::string_view kVolumes = "volumes";
// What makes the result false: kPath (where it is about one) and kReason.
inline constexpr std::string_view kProblems = "problems";

// --- Of containers (every item of the old containers directory), groups and harbors.

inline constexpr std::string_view kPath = "path";              // of the old item
inline constexpr std::string_view kIdentifier = "identifier";  // where there is one
inline constexpr std::string_view kAction = "action";          // below
inline constexpr std::string_view kReason = "reason";          // for people; where there is one
inline constexpr std::string_view kBytes = "bytes";            // in regular files
inline constexpr std::string_view kEntries = "entries";  // items of the tree, its top included
// True where part of the tree can't be read, so that the two above are too small.
inline constexpr std::string_view kIncomplete = "incomplete";

// --- Of containers alone.

inline constexpr std::string_view kContainerType = "containerType";  // as in the marker
inline constexpr std::string_view kResumed = "resumed";              // true: from its marker
inline constexpr std::string_view kSucceeds = "succeeds";            // of kMigrate
inline constexpr std::string_view kIsRemoved = "isRemoved";          // false: it stays
inline constexpr std::string_view kInstallation = "installation";    // of kMigrate, for people
// User data: dictionaries of kName, kAction, kBytes, kEntries, and kIncomplete.
inline constexpr std::string_view kItems = "items";
inline constexpr std::string_view kName = "name";
// Names of entries that nothing moves: they keep the container, or go with it (kDiscarded).
inline constexpr std::string_view kMissed = "missed";
inline constexpr std::string_view kDiscarded = "discarded";
// Names of left-overs of an interrupted move, which are removed.
inline constexpr std::string_view kSwept = "swept";

// --- Of groups alone: the application that takes it along.

inline constexpr std::string_view kApplication = "application";

// --- Actions.

inline constexpr std::string_view kMigrate = "migrate";  // a container
inline constexpr std::string_view kRename = "rename";    // moved on its volume
inline constexpr std::string_view kCopy = "copy";        // moved to another volume
inline constexpr std::string_view kRemove = "remove";
inline constexpr std::string_view kLeave = "leave";
inline constexpr std::string_view kSkip = "skip";      // an entry of a map that says nothing useful
inline constexpr std::string_view kRefuse = "refuse";  // a harbor
inline constexpr std::string_view kTaken = "taken";    // a harbor that an earlier run registered

// --- Of volumes: kPath (a directory on it), and bytes and files that the run needs and finds
// there.

inline constexpr std::string_view kNeeded = "needed";
inline constexpr std::string_view kAvailable = "available";
inline constexpr std::string_view kFilesNeeded = "filesNeeded";
inline constexpr std::string_view kFilesAvailable = "filesAvailable";  // none: without limit
inline constexpr std::string_view kReadOnly = "readOnly";

}  // namespace pallion::plan
