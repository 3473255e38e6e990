// How the database lies on the disk.
//
//   files     id, name, disk_time, scans_done, place, tally, foreign_tally, sum
//                                                        one row a file that was ever named
//   scans     id, name, sum                              scan names, as small numbers
//   records   id, sum, scope, scan, scanned_file, scanned_scope, seen, classes, imports, data
//   changes   seq, file, tally, sum                      which file each save or clear was of
//   lost      source, target, seq, sum                   what a file has said of another, and is
//                                                        gone, by which change
//   contents  file, seal, disk_time                      with which stamp a file had which disk time
//   ties      an index of the records that hang together with other files than their own: made from
//             another one, or resting on one. They are few, and an index run asks for all of them;
//             what it asks is in the index, since the rows lie far apart.
//
// A file's id is its number in scopes-seen bytes and in scanned_file, so a row of `files` is never
// deleted; a file without data has no disk time. The id is a hash of the name, or the next free
// number behind it, and so there is no index over the names to be kept up with every new file.
//
// A record's id says where it lies, and serves for an index too:
//
//   bits 62 to 38   the place: rows of one file, and of no other, have the file's place
//   bits 37 to 20   a hash of the scope's name
//   bits 19 to  0   a running number among the rows of that hash
//
// So the rows of a file are one range of the table, and those of a scope one range in it. A place
// is given out when a file gets its first row, always behind all others: files that are indexed one
// after the other fill the pages one after the other, which is the fastest that SQLite can write
// and leaves no page half empty. The usual key (file, scope, scan, scanned file, scanned scope) as
// primary key of a table WITHOUT ROWID lost: such a table moves a row above 1 KB to pages of its
// own, and fills its pages by two thirds.
//
// What is the same in nearly every row takes no room:
//
//   scanned_file    NULL: the file itself; 0: absent
//   scanned_scope   NULL: the scope itself; a number: absent
//   seen            NULL: just the file itself, at its disk time; empty: absent
//   classes, imports  NULL: none
//   scan            NULL: absent
//
// `lost` is what makes up for a race that no order of saves avoids. The rows of a target go when it
// is saved at another time or cleared, and with them what was scanned from other files, its
// sources. Whoever does it scans the sources again; but another process may have added one
// meanwhile, which claims to be scanned, and nothing else would say that a row of it is missing. So
// the pair is noted in the transaction that drops the row, and goes when the source claims to be
// scanned anew, or says something of the target again, by a process that has heard of the drop: one
// that has not takes rows for stored that went with it, and does not store them again.
//
// `contents` says for a file by its number what it looked like when it was last read, so that it
// need not be read again: `seal` is a hash over its times of modification and change, its size, its
// inode and its disk time. What a disk time stands for hangs on no row; see files/contenttime.h.
//
// `changes` is a log. A process that looks for changes reads what came since it last looked; the
// log keeps the last kChangesKept, and who looks too late is told that everything changed.
//
// Each row carries a checksum, `sum`, which is compared when the row is read (rowsum.h):
//
//   bytes 0 to 3    of `sum` in records: a hash of `data`, seeded with the id, so that who asks for
//   (the lower)     names and classes alone need not read it
//   bytes 4 to 7    the upper half of a hash of the file's id, the record's id, and all columns
//                   from `scope` to `imports`, each as its type, its length and its bytes
//   elsewhere       all 8 bytes: a hash of the other columns in their order
//
// That a row is missing, or is one that was there earlier, no checksum of a row tells; sums of the
// checksums do, modulo 2^64:
//
//   files.tally           of the file's records
//   files.foreign_tally   of those that were made from another file. If it is right, just the file
//                         itself has to be scanned to have all of its records again.
//   changes.tally         in the last row: of all rows of `files` and `lost`
//
// What is found to be wrong is repaired by soundness.h.
//
// To change any of this, or the encoding of what is in `seen` and `data`, raise kSchemaVersion: a
// database of another version is set aside and made anew.
#pragma once

#include <cstdint>

#include "pysource/host/text.h"

namespace pysource::standalone::sqlitedb {

inline constexpr int kSchemaVersion = 6;
// "PySI", in the header of the file: tells our databases from those of other programs.
inline constexpr int kApplicationId = 0x50795349;

inline constexpr const char* kSchema = R"(
  CREATE TABLE files(id INTEGER PRIMARY KEY, name TEXT NOT NULL, disk_time REAL, scans_done TEXT,
                     place INTEGER, tally INTEGER NOT NULL, foreign_tally INTEGER NOT NULL,
                     sum INTEGER NOT NULL);
  CREATE TABLE scans(id INTEGER PRIMARY KEY, name TEXT NOT NULL, sum INTEGER NOT NULL);
  CREATE TABLE records(id INTEGER PRIMARY KEY, sum INTEGER NOT NULL, scope TEXT NOT NULL,
                       scan INTEGER, scanned_file INTEGER, scanned_scope, seen BLOB, classes TEXT,
                       imports TEXT, data BLOB NOT NULL);
  CREATE TABLE changes(seq INTEGER PRIMARY KEY, file INTEGER NOT NULL, tally INTEGER NOT NULL,
                       sum INTEGER NOT NULL);
  CREATE TABLE lost(source INTEGER NOT NULL, target INTEGER NOT NULL, seq INTEGER NOT NULL,
                    sum INTEGER NOT NULL, PRIMARY KEY(source, target)) WITHOUT ROWID;
  CREATE TABLE contents(file INTEGER PRIMARY KEY, seal INTEGER NOT NULL, disk_time REAL NOT NULL);
  CREATE INDEX ties ON records(id, scanned_file, seen) WHERE scanned_file IS NOT NULL OR seen IS NOT NULL;
)";

// What scanned_file holds for an absent location.
inline constexpr int64_t kAbsentFile = 0;

inline constexpr int kRunningBits = 20;
inline constexpr int kScopeBits = 18;
inline constexpr int64_t kScopeSpan = int64_t{1} << kRunningBits;
inline constexpr int64_t kPlaceSpan = int64_t{1} << (kRunningBits + kScopeBits);

// About what a branch change in a big workspace touches, several times over; 100 KB of log.
inline constexpr int64_t kChangesKept = 10000;
// The log is cut only now and then, so that most saves touch one page of it.
inline constexpr int64_t kChangesCutEvery = 1024;

// FNV-1a. It decides where things lie on the disk, so it must never change, unlike HashBytes.
inline constexpr uint64_t StableHash(TextView text) {
  uint64_t hash = 0xCBF29CE484222325ULL;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ULL;
  }
  return hash ^ (hash >> 32);
}

// Where the id of a file of that name is looked for first; from 1 up to kMaxFileId.
inline constexpr int64_t kMaxFileId = 0x7FFFFFFF;
inline constexpr int64_t FirstFileId(TextView name) {
  return static_cast<int64_t>(StableHash(name) % kMaxFileId) + 1;
}
inline constexpr int64_t NextFileId(int64_t id) { return id == kMaxFileId ? 1 : id + 1; }

// Where the rows of that scope begin, counted from the place of their file.
inline constexpr int64_t ScopeOffset(TextView scope) {
  return static_cast<int64_t>(StableHash(scope) & ((1U << kScopeBits) - 1)) << kRunningBits;
}

}  // namespace pysource::standalone::sqlitedb
