// The server's multipart reader on arbitrary bodies: the input's first line is the boundary,
// the rest the body. Reading must never crash; every part's content lies inside the body and
// its fields have lower-case names; a failure says why.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzCheck.h"
#include "tools/server/forms/detail/Multipart.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input = pendrel_fuzz::AsText(data, size);
  const std::size_t lf = input.find('\n');
  const std::string_view boundary = input.substr(0, lf);
  const std::string_view body =
      lf == std::string_view::npos ? std::string_view() : input.substr(lf + 1);

  std::size_t parts = 0;
  std::string problem;
  const bool ok = PendrelServer::detail::ReadMultipart(
      body, boundary,
      [&](PendrelServer::detail::CMultipartPart& part, std::string&) {
        ++parts;
        PENDREL_FUZZ_CHECK(part.Content.empty() || (part.Content.data() >= body.data() &&
                                                    part.Content.data() + part.Content.size() <=
                                                        body.data() + body.size()));
        for (const auto& field : part.Fields) {
          for (const char c : field.first) PENDREL_FUZZ_CHECK(c < 'A' || c > 'Z');
        }
        return true;
      },
      problem);
  PENDREL_FUZZ_CHECK(ok == problem.empty());
  PENDREL_FUZZ_CHECK(parts <= PendrelServer::detail::kMaxMultipartParts);
  return 0;
}
