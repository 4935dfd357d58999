// Test data that shows a lost, repeated or reordered piece: bytes that differ along the data
// (all 256 values appear) and from seed to seed.
#pragma once

#include <cstddef>
#include <string>

namespace pendrel_test {

// `size` bytes drawn from a linear congruential sequence started by `seed`; the same
// arguments give the same bytes, in every program that links this library.
std::string PatternBytes(std::size_t size, unsigned seed = 0);

}  // namespace pendrel_test
