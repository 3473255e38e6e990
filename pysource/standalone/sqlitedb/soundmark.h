// A mark beside a database that says that all of it was looked at and found sound, and what the
// file looked like then: its identity, its size, and its times of modification and change.
//
// A check of all of a database costs more than an index run that finds nothing to do. With the mark
// it is made when somebody else has written to the file, or a process that was killed. What a disk
// does to a file by itself the mark does not see; the checksums of rows do, when they are read.
#pragma once

#include <string>

namespace pysource::standalone::sqlitedb {

// Whether the file, which nobody has open, is as it was when it was marked. False where in doubt.
bool IsMarkedSound(const std::string& path);
// Marks it, unless somebody has it open. A mark that cannot be made costs a check, nothing else.
void MarkSound(const std::string& path);

}  // namespace pysource::standalone::sqlitedb
