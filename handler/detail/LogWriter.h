// The transaction log's files: when a handler runs with a mode of 1 to 3, exchanges that
// fail on the pipe are written to files named by the session and the moment (e.g.
// Listing017.txt and 017-00342-2.txt) in "HarnockLogs" beside the host program. The files
// are opened in text mode: on Windows every line end is written as CR LF. CHandler
// (handler/TransactionLog.cpp) fills the record; this part only writes it.
#pragma once

#include <cstdint>
#include <string>

namespace CTolvane::detail {

// The session's part of the file names: the leading unsigned decimal of `sessionText` (as a
// stream reads it; 0 when there is none), at least three digits.
std::wstring SessionTag(const std::wstring& sessionText);

// The moment's part: the tenths of a second in `elapsedMs`, at least five digits (the low
// 32 bits of the count).
std::wstring MomentTag(std::uint64_t elapsedMs);

struct TransactionRecord {
  int mode = 0;             // 2 or 3 write the listing, 1 or 3 the full record; others nothing
  std::wstring sessionTag;  // SessionTag
  std::wstring momentTag;   // MomentTag
  std::wstring folder;      // with a separator at the end; empty: "HarnockLogs" beside the host
};

// Appends one exchange to the files `record` names: a line to "Listing<session>.txt" and the
// texts, zero bytes included, to "<session>-<moment>-2.txt", each after the local date and
// time. Creates the folder when needed. Files that cannot be opened are skipped; nothing is
// reported. Any thread.
void WriteTransactionLog(const TransactionRecord& record, const std::string& request,
                         const std::string& response);

}  // namespace CTolvane::detail
