// The constants of the module and the helpers that every floor of it uses. The vocabulary of scope
// names and info bytes is in pysource/host/symbolinfo.h.
#pragma once

#include "pysource/host/scoperef.h"

namespace pysource::scopeinfo {

// Where the fields of a serialized record stand in the order in which hosts and tools list them.
inline constexpr int kSerializedRecordScanNameIndex = 0;
inline constexpr int kSerializedRecordScannedLocationIndex = 1;
inline constexpr int kSerializedRecordScopeScannedIndex = 2;
inline constexpr int kSerializedRecordSerializedDataIndex = 3;
inline constexpr int kSerializedRecordScopesSeenIndex = 4;
inline constexpr int kSerializedRecordIncompleteIndex = 5;

// The disk times that are no times. Single precision holds all three exactly.
//
// The file's contents are modified in memory, or its time cannot be got.
inline constexpr float kFileModifiedInMemoryMtime = -1.0F;
// The file does not exist: a valid state of the disk.
inline constexpr float kFileDoesNotExistMtime = 0.0F;
// Nothing usable is known of the file on disk.
inline constexpr float kFileUnknownOnDiskMtime = 1.0F;

// Whether the time names a state of the disk: a real time (above 1.0) or the mark of a missing
// file.
constexpr bool ValidOnDiskMtime(DiskTime mtime) {
  return mtime > static_cast<DiskTime>(kFileUnknownOnDiskMtime) ||
         mtime == static_cast<DiskTime>(kFileDoesNotExistMtime);
}

// Prints diagnostics of merges of more than 20 records. Off; set it here while looking for a scope
// that far too many scans contribute to.
inline constexpr bool kLogLargeMerges = false;

// Prints a line for each record that a scan changes, adds or removes. Off, for the same use.
inline constexpr bool kLogRecordChanges = false;

// Whether the extra self-checks of writing and trimming run. At first true when the object that
// holds the main-loop layer does not lie in a folder named "bin": in a source tree, not in an
// installation.
bool kDevelopmentRun();
// Sets the flag and returns what it was before.
bool SetDevelopmentRun(bool development_run);

}  // namespace pysource::scopeinfo
