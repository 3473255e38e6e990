// The compact byte form of records and of scopes-seen dictionaries, as the database stores it.
//
// Both forms have no NUL byte of their own, so a database can keep them as plain strings, and are
// made to be small: a message begins with a table of the distinct pieces of its strings, and every
// string is a sequence of references into that table. Every byte is a promise: what was written by
// any version is read by every later one.
//
// Integer, unsigned, up to 64 bits:
//
//   below 128     one byte, 0x80 + value                          0 is 80, 127 is FF
//   128 and more  six bits a byte, lowest first; all bytes but    128 is 40 C2, 300 is 6C C4,
//                 the last have the high bits 01, the last 11     4096 is 40 40 C1
//
// Token. A string is cut at the seven separators space ( ) , . [ ]; each separator is a token of
// one byte, and so is each run of bytes between them that is not empty. Tokens are numbered in
// order of first use. The empty string is the one empty token.
//
// String: one integer a token, its index times two, plus one for the last token of the string.
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
// To change a form, raise the schema version of the database: there is no version in the messages.
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

// Writes and reads messages, any number of them, one at a time; buffers are kept between messages.
// Not for use from two threads at once; a worker thread has one of its own.
class CScopeInfoSerializer {
 public:
  CScopeInfoSerializer();
  virtual ~CScopeInfoSerializer();
  CScopeInfoSerializer(const CScopeInfoSerializer&) = delete;
  CScopeInfoSerializer& operator=(const CScopeInfoSerializer&) = delete;

  // The bytes of the record's content. Its key, times, scopes seen and incomplete flag travel
  // beside them. Records of the same content give the same bytes, whatever the order of their
  // dictionaries.
  Bytes WriteScopeInfo(const CScopeInfo& info);

  // The record of the message, or null when it cannot be decoded; bytes behind the message are not
  // looked at. Makes two allocations, whatever the number of names. The key is that of the new
  // record.
  virtual CScopeInfoPtr ReadScopeInfo(const CScopeInfoKey& key, std::optional<DiskTime> disk_mtime,
                                      bool incomplete, BytesView data);

  // The scopes seen, reduced to one entry a file: of several scopes of one file the last time wins,
  // at the place of the first. Null, which is absent, gives no bytes at all. `get_file_id_func`
  // gives the database's number of a file and must know every one.
  Bytes SerializeScopesSeenDict(
      const CScopesSeenDict* scopes_seen_dict,
      const std::function<std::optional<uint64_t>(Loc)>& get_file_id_func);

  // The dictionary back, with "*" for every scope; null for no bytes. A file that
  // `get_location_func` does not know (it gives an absent location) is reported on the standard
  // output and left out. Throws CValueError on broken data, unlike ReadScopeInfo: a record can be
  // scanned again from its key, but one whose dependencies are unknown must not pass for one
  // without any.
  CScopesSeenPtr DeserializeScopesSeenDict(BytesView serialized,
                                           const std::function<Loc(uint64_t)>& get_location_func);

  // ---- The pieces that messages are made of; they append to fWriteBuffer.

  // The number of the token, entered if it is new.
  virtual uint32_t GetTokenIndex(BytesView s) { return fTokens.GetTokenIndex(s); }
  virtual void WriteInt(uint64_t value);
  // Throws CTypeError for an absent string. What was written stays: a message that fails half-way
  // leaves its tokens and content behind, and the caller clears the serializer before it goes on.
  virtual void WriteStr(std::optional<BytesView> s);
  // Null is absent.
  virtual void WriteStrDict(const CStrDict* dict);
  // Empties the write buffer and the token table; the reader keeps what it had.
  virtual void Clear();
  // Appends the token table.
  void WriteTokens();

  CWritableByteBuffer fWriteBuffer;         // output of the message being written
  CEncodedByteBufferReader fEncodedReader;  // input of the message being read
  CBytesTokenizer fTokens;                  // token table of the message being written

 private:
  // Whether a derived class may want to see every string, token and integer: it is asked then for
  // each. Otherwise strings are written in one go, which is several times quicker.
  bool OverridesPieces() const;
  void WriteStrByPieces(BytesView s);
  void WriteWholeStr(BytesView s);
  // Puts the token table, which is known only now, in front of what was written, and clears.
  Bytes FinishMessage();

  std::vector<const CStrDict::Item*> _fSorted;  // scratch of WriteStrDict
  CStrDictBatch _fBatch;                        // scratch of ReadScopeInfo
};

}  // namespace pysource::scopeinfo
