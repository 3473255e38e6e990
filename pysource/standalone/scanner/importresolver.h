// Which file a module name means, as seen from a file that imports it.
//
// The scanner asks while it reads a file; the answers decide for which files a scan makes records
// and on which files they rest. CImportResolver is the narrow seam that tests fake;
// CFileImportResolver answers from the file system, by the rules of a plain Python tree: no
// interpreter is run, no import hook and no .pth file is heard.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/disktimes.h"

namespace pysource::standalone {

// Called from worker threads, several at a time.
class CImportResolver {
 public:
  CImportResolver() = default;
  CImportResolver(const CImportResolver&) = delete;
  CImportResolver& operator=(const CImportResolver&) = delete;
  virtual ~CImportResolver();

  // The file of `module` ("a.b", ".x", "..": leading dots are relative to the package of `from`),
  // or absent when there is none. It is found, not guessed: the file was there when it was looked
  // for.
  virtual Loc Resolve(Loc from, TextView module) const = 0;

  // What the answer rests on besides `found` itself (absent: nothing was found), each with the disk
  // time that it had: the files that were looked for before and are not there, and the marks of the
  // folders of which it mattered whether they are packages (files/packagemark.h). If one of these
  // has another time, the answer can be another one.
  virtual std::vector<std::pair<Loc, DiskTime>> RestsOn(Loc from, TextView module, Loc found) const;

  // The present disk time of a file that Resolve answered: kFileDoesNotExistMtime when it is gone.
  virtual DiskTime GetDiskTime(Loc loc) const = 0;
};

// Answers from the file system and remembers the answers until Clear(), as imports are asked for
// over and over. Relative imports start in the folder of the file; absolute ones are looked for in
// the roots, in their order, and then in the folder above the outermost package that the file is in
// (a folder is in a package as long as it holds an __init__.py or .pyi). In each place m.py comes
// before m/__init__.py, and a .pyi file counts only when neither is there.
class CFileImportResolver final : public CImportResolver {
 public:
  // `loc_cache` makes the locations, `times` gives their disk times; both must outlive this. `roots`
  // are folders.
  CFileImportResolver(CLocationCache& loc_cache, CDiskTimes& times, std::vector<std::string> roots);
  ~CFileImportResolver() override;

  Loc Resolve(Loc from, TextView module) const override;
  std::vector<std::pair<Loc, DiskTime>> RestsOn(Loc from, TextView module,
                                                Loc found) const override;
  DiskTime GetDiskTime(Loc loc) const override;

  // Takes other roots, and forgets all answers. Not while a scan runs.
  void SetRoots(std::vector<std::string> roots);
  // Forgets all answers: files have come or gone. What a thread is looking for meanwhile it may
  // still find as it was before, but nobody else is told so.
  void Clear();

 private:
  // One of several, chosen by the hash of what is asked, so that worker threads seldom meet.
  struct CShard {
    std::mutex mutex;
    // Keyed by a starting folder and a dotted name, or by a folder alone.
    std::unordered_map<std::string, Loc> modules;
    std::unordered_map<std::string, std::string> package_roots;
  };

  CShard& ShardOf(TextView text) const;
  // The file of the dotted `name` below `folder`; absent when there is none. Remembered.
  Loc Find(const std::string& folder, TextView name) const;
  Loc FindOnDisk(const std::string& folder, TextView name) const;
  // The folders in which the module is looked for, in order; takes leading dots off its name.
  std::vector<std::string> FoldersToLookIn(Loc from, TextView& module) const;
  void AddPackageMarks(Loc from, const std::string& root,
                       std::vector<std::pair<Loc, DiskTime>>& rests_on) const;
  // The folder above the outermost package that `folder` is in; `folder` itself outside of one.
  std::string PackageRoot(const std::string& folder) const;

  CLocationCache& _fLocCache;
  CDiskTimes& _fTimes;
  std::vector<std::string> _fRoots;
  std::atomic<uint64_t> _fClears = 0;  // so far
  const std::unique_ptr<std::array<CShard, 16>> _fShards;
};

}  // namespace pysource::standalone
