// Which vector instructions this processor, and the operating system that saves their
// registers, let the library use. The vector kernels ask once before they are chosen; on
// processors other than x86 the answer is always no.
#pragma once

namespace Pendrel::base {

bool ProcessorHasSsse3();

// AVX-512 F, BW, VBMI and VBMI2 with BMI2 and POPCNT, and the AVX-512 state saved by the
// operating system.
bool ProcessorHasAvx512Vbmi2();

}  // namespace Pendrel::base
