// The constants of the module and the helpers that every floor of it uses. The vocabulary of scope
// names and info bytes is in pysource/host/symbolinfo.h.
#pragma once

#include "pysource/host/scoperef.h"

namespace pysource::scopeinfo {

// The positions of the fields of a serialized record, in the order in which hosts and tools list
// them.
inline constexpr int kSerializedRecordScanNameIndex = 0;
inline constexpr int kSerializedRecordScannedLocationIndex = 1;
inline constexpr int kSerializedRecordScopeScannedIndex = 2;
inline constexpr int kSerializedRecordSerializedDataIndex = 3;
inline constexpr int kSerializedRecordScopesSeenIndex = 4;
inline constexpr int kSerializedRecordIncompleteIndex = 5;

// The markers: disk times that are not times. Single precision holds all three exactly.
//
// The file's content is modified in memory, or its time cannot be determined.
inline constexpr float kFileModifiedInMemoryMtime = -1.0F;
// The file does not exist, which is a valid state of the disk.
inline constexpr float kFileDoesNotExistMtime = 0.0F;
// Nothing usable is known about the file on disk.
inline constexpr float kFileUnknownOnDiskMtime = 1.0F;

// Whether the time stands for a state of the disk: a real time (above 1.0), or the marker of a file
// that does not exist.
constexpr bool ValidOnDiskMtime(DiskTime mtime) {
  return mtime > static_cast<DiskTime>(kFileUnknownOnDiskMtime) ||
         mtime == static_cast<DiskTime>(kFileDoesNotExistMtime);
}

// Prints diagnostics for merges of more than 20 records. Off; set it here to find a scope to which
// far too many scans contribute.
inline constexpr bool kLogLargeMerges = false;

// Prints a line for each record that a scan changes, adds or removes. Off; set it here to follow
// records.
inline constexpr bool kLogRecordChanges = false;

// Whether the extra self-checks of writing and trimming run. Initially true unless the executable
// or library that contains the main-loop layer is in a folder named "bin": so true in a source
// tree, false in an installation.
bool kDevelopmentRun();
// Sets the flag and returns what it was before.
bool SetDevelopmentRun(bool development_run);

}  // namespace pysource::scopeinfo
