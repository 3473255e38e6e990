// What is known of a file and of its scopes: from the database where that holds the file as it is
// on the disk now, otherwise from a scan made on the spot, which is not stored.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::standalone {

class CScopeReader {
 public:
  enum class ESource { kDatabase, kScan };

  // `db` may be null: then everything is scanned. All must outlive the reader.
  CScopeReader(CAnalysisDb* db, CLocationCache& loc_cache) : _fDb(db), _fLocCache(loc_cache) {}

  // Turns to the file, of which the other operations then tell. Throws CValueError when it is not
  // there or cannot be read.
  ESource Open(const std::string& path);

  Loc GetLoc() const { return _fLoc; }
  DiskTime GetDiskTime() const { return _fDiskTime; }

  // All scopes that the primary scan found, sorted.
  std::vector<Text> GetScopeNames();

  // The records of all scans for the scope, the primary one first, merged into one; null when there
  // is none. Made anew at each call, the caller's own.
  scopeinfo::CScopeInfoPtr GetMergedInfo(TextView scope);

  // Calls `visit` with each record of the primary scan.
  void VisitPrimaryInfos(const std::function<void(const scopeinfo::CScopeInfo&)>& visit);

 private:
  std::vector<scopeinfo::CScopeInfoPtr> ReadInfos(const std::vector<Text>& scan_names, Text scope);

  CAnalysisDb* _fDb;
  CLocationCache& _fLocCache;
  scopeinfo::CScopeInfoSerializer _fSerializer;

  Loc _fLoc;
  DiskTime _fDiskTime = 0;
  ESource _fSource = ESource::kScan;
  std::vector<scopeinfo::CScopeInfoPtr> _fScanned;  // of a scan: the records for the file
};

}  // namespace pysource::standalone
