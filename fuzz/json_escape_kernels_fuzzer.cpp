// The JSON layer's vector kernels (every one the processor runs) against the portable byte loops,
// on arbitrary bytes: both must give the same bytes, stop at the same place, and stay inside their
// buffers (the input exactly as long as it is, the output as long as the result plus the documented
// slack).
#include <algorithm>  // std::copy
#include <memory>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "json/detail/JsonEscapes.h"

namespace {

using Pendrel::detail::JsonTextKernels;
using Pendrel::detail::kCopySlack;

// A heap buffer of exactly `size` bytes, so that the address sanitizer sees every overrun.
std::unique_ptr<char[]> Buffer(std::size_t size) { return std::make_unique<char[]>(size); }

std::string Escaped(const JsonTextKernels& kernels, const char* first, const char* last) {
  const auto size = static_cast<std::size_t>(last - first);
  const auto out = Buffer(2 * size + kCopySlack);
  const char* end = kernels.copyEscaped(first, last, out.get());
  return std::string(out.get(), static_cast<std::size_t>(end - out.get()));
}

std::string Unescaped(const JsonTextKernels& kernels, const char* first, const char* last) {
  const auto size = static_cast<std::size_t>(last - first);
  const auto out = Buffer(size + kCopySlack);
  const char* end = kernels.copyUnescaped(first, last, out.get());
  PENDREL_FUZZ_CHECK(static_cast<std::size_t>(end - out.get()) <= size);
  return std::string(out.get(), static_cast<std::size_t>(end - out.get()));
}

struct StringEnd {
  const char* stop;
  bool hasBackslash;
  std::string text;
};

StringEnd ReadString(const JsonTextKernels& kernels, const char* first, const char* last) {
  StringEnd result{};
  result.stop = kernels.findStringEnd(first, last, result.hasBackslash);
  const auto out = Buffer(static_cast<std::size_t>(last - first) + kCopySlack);
  const char* stop = nullptr;
  const char* end = kernels.copyStringUnescaped(first, last, out.get(), stop);
  PENDREL_FUZZ_CHECK(stop == result.stop);
  result.text.assign(out.get(), static_cast<std::size_t>(end - out.get()));
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const JsonTextKernels& portable = Pendrel::detail::PortableJsonTextKernels();
  const auto input = Buffer(size);
  std::copy(data, data + size, input.get());
  const char* first = input.get();
  const char* last = first + size;

  const std::string escaped = Escaped(portable, first, last);
  // Unescaping undoes escaping.
  PENDREL_FUZZ_CHECK(Unescaped(portable, escaped.data(), escaped.data() + escaped.size()) ==
                     std::string(first, last));
  const StringEnd portableEnd = ReadString(portable, first, last);

  // Every vector kernel this processor can run (SSSE3, and the AVX-512 ones where present).
  for (const JsonTextKernels* vector :
       {Pendrel::detail::VectorJsonTextKernels(), Pendrel::detail::WideVectorJsonTextKernels()}) {
    if (vector == nullptr) continue;
    PENDREL_FUZZ_CHECK(Escaped(*vector, first, last) == escaped);
    PENDREL_FUZZ_CHECK(Unescaped(*vector, first, last) == Unescaped(portable, first, last));
    const StringEnd vectorEnd = ReadString(*vector, first, last);
    PENDREL_FUZZ_CHECK(vectorEnd.stop == portableEnd.stop);
    PENDREL_FUZZ_CHECK(vectorEnd.hasBackslash == portableEnd.hasBackslash);
    PENDREL_FUZZ_CHECK(vectorEnd.text == portableEnd.text);
  }
  return 0;
}
