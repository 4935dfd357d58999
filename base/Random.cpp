#include "base/Random.h"

#include <mutex>
#include <random>

namespace Pendrel::base {

std::uint64_t RandomBits() {
  static std::mutex mutex;
  static std::mt19937_64 generator = [] {
    std::random_device source;
    std::seed_seq seed{source(), source(), source(), source()};
    return std::mt19937_64(seed);
  }();
  const std::lock_guard<std::mutex> lock(mutex);
  return generator();
}

}  // namespace Pendrel::base
