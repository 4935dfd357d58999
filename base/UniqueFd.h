// The owner of one POSIX file descriptor: closes it when the owner goes, moves but does not
// copy. -1 means empty. Used by the POSIX files of every folder (UniqueFd_posix.cpp).
//
// Thread rules: like an int; one owner at a time, no locking.
#pragma once

namespace Pendrel::base {

class UniqueFd {
 public:
  UniqueFd() = default;
  // Takes ownership of `fd` (-1: stays empty).
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  // The descriptor, still owned; -1 when empty.
  int Get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

  // Gives the descriptor up without closing it; the owner is empty afterwards.
  int Release() noexcept {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
  }

  // Closes the descriptor held, if any, and takes `fd`. Closing is not retried on EINTR: on
  // Linux the descriptor is gone either way.
  void Reset(int fd = -1) noexcept;

 private:
  int m_fd = -1;
};

}  // namespace Pendrel::base
