#include "tests/scanner/scan_helper.h"

#include "pysource/host/repr.h"

namespace pysource::standalone {
namespace {

void DumpDict(const CStrDict& dict, TextView mark, Text& out) {
  for (const auto& [name, value] : dict) {
    out += Text("  ") + Text(mark) + Text(name) + " " + Text(value) + "\n";
  }
}

}  // namespace

Text Dump(const CFileScan& scan, Loc loc) {
  Text result;
  for (const CScanResult& scanned : scan.results) {
    for (const scopeinfo::CScopeInfoPtr& info : scanned.infos) {
      Text body;
      DumpDict(info->type_equivs, "", body);
      if (info->inst_type_equivs) {
        DumpDict(*info->inst_type_equivs, "@", body);
      }
      if (info->_domains) {
        DumpDict(*info->_domains, "=", body);
      }
      for (const auto& [ref, time] : *info->scope_seen_dict) {
        if (!(ref.loc == loc && ref.scope == scanned.scanned_scope)) {
          body += "  seen " + (ref.loc == loc ? Repr(ref.scope) : ref.loc->fUrl) + " " +
                  Repr(time) + "\n";
        }
      }
      if (body.empty()) {
        continue;
      }
      result += Repr(scanned.scanned_scope);
      if (scanned.scan_name == kAttrsScan) {
        result += " attrs > " + (info->loc == loc ? Repr(info->for_scope) : info->loc->fUrl);
      } else if (!info->scope_ibytes.empty()) {
        result += " " + Text(info->scope_ibytes);
      }
      result += "\n" + body;
    }
  }
  return result;
}

}  // namespace pysource::standalone
