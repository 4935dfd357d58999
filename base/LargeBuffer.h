// Large message buffers: room for a string of megabytes, made so that its first touch is
// cheap. Fresh memory is faulted in page by page on first write; for blocks of
// kLargeBufferThreshold and more the pages are asked to be huge ones where the system offers
// them (Linux: transparent huge pages on request), which turns hundreds of faults into one
// and makes the first write run at close to copying speed. Smaller blocks are left alone.
//
// Pure functions on the caller's string; any thread.
#pragma once

#include <cstddef>  // std::size_t
#include <string>

namespace Pendrel::base {

// Blocks from this size on are worth advising: one huge page.
inline constexpr std::size_t kLargeBufferThreshold = std::size_t{2} << 20;

// Makes room for `capacity` bytes in `text` (std::string::reserve) and, when that made a
// new large block, advises its part beyond the current contents before anything touches
// it. Throws like reserve when memory runs out.
void ReserveLarge(std::string& text, std::size_t capacity);

// Advises the whole pages of [data, data + size) that nothing has touched yet to be backed by
// huge pages. Does nothing below kLargeBufferThreshold or where the system has no such
// advice. Never fails: advice is only advice.
void AdviseLargeBuffer(void* data, std::size_t size) noexcept;

}  // namespace Pendrel::base
