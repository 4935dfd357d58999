// The HTTP side of `pendrel serve`: reading one HTTP request under a mount into a
// Pendrel::CRequest, and turning a Pendrel::CResponse into the fields and body of an HTTP
// answer.
//
// The request forms read are those the library writes (CRequest::ToHttpURL under the mount,
// CRequest::ToHttpRequestData) and those browsers and curl write:
//   path   "/{Command}/{second}/{k1}/{v1}/…": `second` is the CommandAtribute for REF, SREF,
//          DOC, SDOC, SIMPLEX and DUPLEX, else the session key (empty: no session); the pairs
//          are the CommandParams, keys kept as written.
//   query  "k=v&…": the RequestParams, keys folded to upper case (towupper), as the record's
//          lookups expect them. A "+" is a plus sign, not a blank (the library writes values
//          unescaped, so a blank arrives as %20).
//   body   by Content-Type (type and subtype case-insensitive):
//          - absent or application/json, with an empty body and no file name: no file;
//          - application/vnd.pendrel.request+json: the request's JSON document, which is the
//            whole request (see ReadRequest);
//          - multipart/mixed: one file per part, in order; parts base64, 7bit, 8bit or
//            binary;
//          - multipart/form-data: parts with a `filename` become files, the other fields
//            request parameters (after those of the query; the first of a key wins);
//          - anything else: the body is one file.
// Path and query are percent-decoded and then read as UTF-8; so are the names in header
// fields. Quoted names are taken as written, without backslash escapes: the library writes
// them that way, and so do browsers and curl for form data (which send `"`, CR and LF as %22,
// %0D and %0A; those three are decoded in form-data names).
//
// All functions are pure and may be called from any thread at once.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "message/CRequest.h"
#include "message/CResponse.h"

namespace PendrelServer {

// What the server hands over from one HTTP request under a mount.
struct CHttpRequestParts {
  std::string Method;       // "GET", "POST", ...
  std::string Path;         // the target's path after the mount, percent-encoded:
                            // "/STATS/key/k1/v1" or "" (leading "/" when present)
  std::string Query;        // the target's query without "?", percent-encoded
  std::string ContentType;  // the Content-Type field; empty when absent
  std::string Body;
  // The Content-Disposition field; empty when absent. It names the file of a one-file body
  // (its `filename`).
  std::string ContentDisposition;
};

struct CReadRequest {
  Pendrel::CRequest Request;
  std::wstring SessionKey;  // the session key segment; empty: no session
  std::string Problem;      // English, why the form could not be read (-> 400)
};

// Reads one request; false, with Problem set, when the form cannot be read. `out` is reset
// first; after false its Request and SessionKey are unspecified. The method is not looked
// at (the server decides which methods it takes).
//
// Fails for: an empty path or command; a path with a key and no value (an odd number of
// segments after the second); a bad percent-escape; text that is not UTF-8 after decoding, or
// that holds a zero character; characters a target cannot hold (controls, "#"); a multipart
// body without a boundary parameter, without a closing boundary line, with a part header
// that cannot be read, an unknown transfer encoding or bad base64; header fields whose
// parameters cannot be read.
//
// A request JSON document (application/vnd.pendrel.request+json) is the whole request:
// Command, CommandAtribute, both parameter maps and the files all come from it, and its
// Command must not be empty. The path then gives only the session key: it may be empty, or
// name the same command with its second segment and nothing after it; a path naming another
// command, a path with parameters, or a query beside the document fails.
//
// Bodies are moved, never copied: a one-file body becomes the file's Data as it stands.
bool ReadRequest(CHttpRequestParts&& parts, CReadRequest& out);

struct CHttpAnswer {
  std::vector<std::pair<std::string, std::string>> Fields;  // in order
  std::string Body;
};

// The response's HTTP form (CResponse::ToHttpRequestData) as fields and body: each header
// line "Name: value" becomes one field. Never fails but by running out of memory.
CHttpAnswer AnswerOf(const Pendrel::CResponse& response);

// As above, but a response with one file gives its data to the body without copying it;
// `response` is left valid with its files' data unspecified.
CHttpAnswer AnswerOf(Pendrel::CResponse&& response);

}  // namespace PendrelServer
