#include "json/detail/JsonEscapes.h"

namespace Pendrel::detail {
namespace {

char LetterOf(char raw) { return kJsonEscapeLookup.letterOf[static_cast<unsigned char>(raw)]; }

char* CopyEscaped(const char* first, const char* last, char* out) {
  for (; first != last; ++first) {
    const char letter = LetterOf(*first);
    if (letter != '\0') {
      *out++ = '\\';
      *out++ = letter;
    } else {
      *out++ = *first;
    }
  }
  return out;
}

char* CopyUnescaped(const char* first, const char* last, char* out) {
  while (first != last) {
    if (*first != '\\') {
      *out++ = *first++;
      continue;
    }
    // The byte after the backslash, or zero at the end, which no escape uses.
    const auto next = static_cast<unsigned char>(first + 1 != last ? first[1] : '\0');
    const char raw = kJsonEscapeLookup.rawOf[next];
    if (raw != '\0') {
      *out++ = raw;
      first += 2;
    } else {
      *out++ = '\\';  // an unknown escape keeps its backslash; the next byte follows as is
      ++first;
    }
  }
  return out;
}

const char* FindStringEnd(const char* first, const char* last, bool& hasBackslash) {
  while (first != last) {
    if (*first == '"') return first;
    if (*first == '\\') {
      hasBackslash = true;
      if (last - first <= 2) return last;  // the escaped byte, if any, is the last one
      first += 2;
    } else {
      ++first;
    }
  }
  return last;
}

char* CopyStringUnescaped(const char* first, const char* last, char* out, const char*& stop) {
  bool hasBackslash = false;
  stop = FindStringEnd(first, last, hasBackslash);
  return CopyUnescaped(first, stop, out);
}

constexpr JsonTextKernels kPortable{CopyEscaped, CopyUnescaped, FindStringEnd, CopyStringUnescaped};

}  // namespace

const JsonTextKernels& PortableJsonTextKernels() { return kPortable; }

const JsonTextKernels& JsonText() {
  static const JsonTextKernels* const kernels = [] {
    if (const JsonTextKernels* wide = WideVectorJsonTextKernels()) return wide;
    const JsonTextKernels* vector = VectorJsonTextKernels();
    return vector != nullptr ? vector : &kPortable;
  }();
  return *kernels;
}

}  // namespace Pendrel::detail
