// pendrel-server-test-request-forms: prints requests in the library's own HTTP forms, for the
// server tests to send. Each line is one JSON object whose members hold hexadecimal bytes:
//   "url"          CRequest::ToHttpURL("", session), UTF-8, not percent-encoded
//   "header"       CRequest::ToHttpRequestData's header lines
//   "body"         its body
//   "expected"     CRequest::ToJsonString of the request: what the echo handler must answer
// The requests are drawn from a seeded generator: `request_forms SEED COUNT`. They use what
// the URL form can carry: no "/", "?", "&", "=" or "#" in names and values, request
// parameter keys in upper case (as the records keep them).
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "message/CMimeFile.h"
#include "message/CRequest.h"
#include "tools/text/Utf8Text.h"

namespace {

std::string Hex(const std::string& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    out.push_back(kHex[static_cast<unsigned char>(c) >> 4]);
    out.push_back(kHex[static_cast<unsigned char>(c) & 15]);
  }
  return out;
}

// The UTF-8 of the library's own text, written as the library writes it.
std::string Utf8(const std::wstring& text) {
  return PendrelTools::Utf8FromWide(text, PendrelTools::ELoneSurrogate::Keep);
}

class CGenerator {
 public:
  explicit CGenerator(unsigned seed) : m_random(seed) {}

  std::size_t Below(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(m_random);
  }

  // Letters, digits, blanks, punctuation the URL form can carry, and characters beyond ASCII
  // (two- and three-byte UTF-8; the records' JSON form writes a character beyond U+FFFF as
  // two three-byte halves, which no UTF-8 reader takes back).
  std::wstring Text(std::size_t least, std::size_t most, bool upper) {
    static const std::wstring kAny = L"abcXYZ019 -_.~+%!$'()*,;:@\u00e9\u0436\u65e5\u672c";
    static const std::wstring kUpper = L"ABCXYZ019_\u0416";
    const std::wstring& alphabet = upper ? kUpper : kAny;
    std::wstring text;
    const std::size_t length = least + Below(most - least + 1);
    for (std::size_t i = 0; i < length; ++i) text.push_back(alphabet[Below(alphabet.size())]);
    return text;
  }

  std::string Bytes(std::size_t most) {
    std::string bytes(Below(most + 1), '\0');
    for (char& c : bytes) c = static_cast<char>(Below(256));
    return bytes;
  }

  Pendrel::CRequest Request(std::wstring& session) {
    static const wchar_t* const kCommands[] = {L"STATS", L"ECHO",    L"REF",
                                               L"SDOC",  L"SIMPLEX", L"Run"};
    Pendrel::CRequest request;
    request.Command = kCommands[Below(6)];
    const bool attribute =
        request.Command == L"REF" || request.Command == L"SDOC" || request.Command == L"SIMPLEX";
    if (attribute) request.CommandAtribute = Text(1, 8, false);
    session = Below(3) == 0 ? Text(1, 6, false) : L"";
    for (std::size_t i = Below(4); i > 0; --i)
      request.CommandParams[Text(1, 6, false)] = Text(1, 8, false);
    for (std::size_t i = Below(4); i > 0; --i)
      request.RequestParams[Text(1, 5, true)] = Text(1, 8, false);
    static const Pendrel::EMimeType kTypes[] = {Pendrel::Binary, Pendrel::Json, Pendrel::Text,
                                                Pendrel::Png,    Pendrel::Pdf,  Pendrel::Csv};
    for (std::size_t i = Below(4); i > 0; --i) {
      Pendrel::CMimeFile file;
      file.Type = kTypes[Below(6)];
      if (Below(2)) file.Name = Text(1, 6, false);
      if (Below(2)) file.FileName = Text(1, 6, false) + L".dat";
      file.Data = Bytes(Below(4) == 0 ? 70000 : 300);
      request.InputData.push_back(std::move(file));
    }
    return request;
  }

 private:
  std::mt19937 m_random;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: request_forms SEED COUNT\n");
    return 64;
  }
  CGenerator generator(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)));
  const unsigned long count = std::strtoul(argv[2], nullptr, 10);
  for (unsigned long i = 0; i < count; ++i) {
    std::wstring session;
    const Pendrel::CRequest request = generator.Request(session);
    std::string header;
    std::string body;
    request.ToHttpRequestData(header, body);
    const std::string line = "{\"url\":\"" + Hex(Utf8(request.ToHttpURL(L"", session))) +
                             "\",\"header\":\"" + Hex(header) + "\",\"body\":\"" + Hex(body) +
                             "\",\"expected\":\"" + Hex(request.ToJsonString()) + "\"}\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
  }
  return 0;
}
