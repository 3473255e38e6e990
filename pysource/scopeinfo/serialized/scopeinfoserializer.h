// The compact byte form of records and of scopes-seen dictionaries, as the database stores it.
//
// Both forms add no NUL byte of their own, so a database can keep them as plain strings. They are
// compact: a message begins with a table of the distinct pieces of its strings, and every string is
// a sequence of references into that table. The forms are fixed to the byte: every version reads
// what any earlier version wrote.
//
// Integer, unsigned, up to 64 bits:
//
//   below 128     one byte, 0x80 + value                           0 is 80, 127 is FF
//   128 and more  six bits per byte, lowest first; all bytes but   128 is 40 C2, 300 is 6C C4,
//                 the last have the high bits 01, the last 11      4096 is 40 40 C1
//
// Token: a string is split at the seven separators space ( ) , . [ ]; each separator is a token of
// one byte, and each non-empty run of bytes between separators is a token. Tokens are numbered in
// order of first use. The empty string consists of one empty token.
//
// String: one integer per token: its index times two, plus one for the last token of the string.
//
//   "a.b" as the first string of a message:  tokens "a" "." "b", integers 0 2 5, bytes 80 82 85
//
// String dictionary: the number of items, then for each item, in ascending order of the keys, the
// key and the value as strings. An absent dictionary is written like an empty one.
//
// Token table: the number of tokens, then for each, in order, its length and its bytes.
//
// Record message:       token table, scope info bytes (string), type equivalences, domains,
//                       instance type equivalences, instance domains (dictionaries),
//                       does-not-exist (integer)
//
//   a record with nothing in it:  81 80 | 81 | 80 80 80 80 | 80
//                                 one token of length 0, the string, four empty dictionaries,
//                                 flag 0
//
// Scopes-seen message:  token table, number of files, then for each: file id (integer), scope name
//                       (string, always "*"), disk time (integer: the 64 bits of the double)
//
//   file 5 at time 0.0:  81 81 2A | 81 | 85 81 80
//
// To change a form, raise the schema version of the database: the messages have no version.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "pysource/host/bytebuffer.h"
#include "pysource/host/fastaccess.h"
#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

// Writes and reads messages, any number of them, one at a time. Keeps its buffers between messages.
// REQUIRES: one thread at a time uses it; each worker thread has its own.
class CScopeInfoSerializer {
 public:
  CScopeInfoSerializer();
  virtual ~CScopeInfoSerializer();
  CScopeInfoSerializer(const CScopeInfoSerializer&) = delete;
  CScopeInfoSerializer& operator=(const CScopeInfoSerializer&) = delete;

  // The bytes of the record's content, without its key, times, scopes seen and incomplete flag,
  // which are stored beside them. Records with the same content give the same bytes, whatever the
  // order of their dictionaries.
  Bytes WriteScopeInfo(const CScopeInfo& info);

  // The record in the message, with `key` as its key, or null when it cannot be decoded. Ignores
  // bytes after the message. Makes two allocations, whatever the number of names.
  virtual CScopeInfoPtr ReadScopeInfo(const CScopeInfoKey& key, std::optional<DiskTime> disk_mtime,
                                      bool incomplete, BytesView data);

  // The bytes of the scopes seen, reduced to one entry for each file: among several scopes of one
  // file, the entry has the place of the first and the time of the last. Null, which means absent,
  // gives no bytes. `get_file_id_func` returns the database's number of a file.
  // REQUIRES: `get_file_id_func` knows every file.
  Bytes SerializeScopesSeenDict(
      const CScopesSeenDict* scopes_seen_dict,
      const std::function<std::optional<uint64_t>(Loc)>& get_file_id_func);

  // The dictionary of the message, with "*" as every scope; null for no bytes. A file for which
  // `get_location_func` returns a null location is reported on the standard output and left out.
  // Throws CValueError on malformed data, unlike ReadScopeInfo: a record can be scanned again from
  // its key, but a record with unknown dependencies must not look like one without dependencies.
  CScopesSeenPtr DeserializeScopesSeenDict(BytesView serialized,
                                           const std::function<Loc(uint64_t)>& get_location_func);

  // ---- The pieces of messages; these append to fWriteBuffer.

  // The number of the token, which is added to the table if it is new.
  virtual uint32_t GetTokenIndex(BytesView s) { return fTokens.GetTokenIndex(s); }
  virtual void WriteInt(uint64_t value);
  // Throws CTypeError for an absent string, and keeps what was written before.
  // REQUIRES: after an exception in the middle of a message the caller calls Clear.
  virtual void WriteStr(std::optional<BytesView> s);
  // Null stands for an absent dictionary.
  virtual void WriteStrDict(const CStrDict* dict);
  // Empties the write buffer and the token table; does not touch the reader.
  virtual void Clear();
  // Appends the token table.
  void WriteTokens();

  CWritableByteBuffer fWriteBuffer;         // output of the message being written
  CEncodedByteBufferReader fEncodedReader;  // input of the message being read
  CBytesTokenizer fTokens;                  // token table of the message being written

 private:
  // Whether a derived class may override the writing of strings, tokens and integers. If so, every
  // piece goes through the virtual operations; otherwise strings are written in one step, which is
  // several times faster.
  bool OverridesPieces() const;
  void WriteStrByPieces(BytesView s);
  void WriteWholeStr(BytesView s);
  // The message: the token table, which is only known now, before what was written. Clears.
  Bytes FinishMessage();

  std::vector<const CStrDict::Item*> _fSorted;  // scratch space of WriteStrDict
  CStrDictBatch _fBatch;                        // scratch space of ReadScopeInfo
};

}  // namespace pysource::scopeinfo
