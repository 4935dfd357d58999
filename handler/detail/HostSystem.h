// What the transaction log needs of the system: where the host program lives and the local
// time. One implementation per platform (HostSystem_win.cpp, HostSystem_posix.cpp).
#pragma once

#include <string>

namespace CTolvane::detail {

// The folder of the host program's executable, with a separator at the end; empty when the
// system does not say.
std::wstring HostProgramFolder();

struct LocalTime {
  int day = 0;
  int month = 0;  // 1..12
  int year = 0;   // four digits
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// The current local date and time. Thread-safe.
LocalTime CurrentLocalTime();

}  // namespace CTolvane::detail
