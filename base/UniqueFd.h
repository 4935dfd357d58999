// The owner of one POSIX file descriptor: UniqueFd closes it when the owner goes, moves but
// does not copy, and holds -1 when empty. Used by the POSIX files of every folder; the
// closing is in UniqueFd_posix.cpp.
//
// Thread rules: like an int; one owner at a time, no locking.
#pragma once

#include "base/ScopedHandle.h"

namespace Pendrel::base {

struct FdTraits {
  using Handle = int;
  static Handle Empty() { return -1; }
  static bool IsValid(Handle fd) { return fd >= 0; }
  // Not retried on EINTR: on Linux the descriptor is gone either way.
  static void Close(Handle fd) noexcept;
};

using UniqueFd = ScopedHandle<FdTraits>;

}  // namespace Pendrel::base
