// What the fuzz targets share: a check that stops the run with a message libFuzzer keeps
// beside the input that broke it, and the input as a string view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// A property that must hold for every input. abort() makes libFuzzer save the input as a
// crash, so CI fails and the input can be replayed (./fuzz_<target> crash-<hash>).
#define PENDREL_FUZZ_CHECK(condition)                                                       \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (false)

namespace pendrel_fuzz {

inline std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

}  // namespace pendrel_fuzz
