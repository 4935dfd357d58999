// ScopedHandle<Traits>: the one owner of an operating system handle, whatever its kind. It
// closes its handle when it goes and moves but does not copy. The traits say what the handle
// type is, which value means empty and how a handle is closed; UniqueFd.h (POSIX descriptors)
// and ScopedHandle_win.h (Windows handles) hold the traits and name the owners.
//
// Thread rules: like the handle itself; one owner at a time, no locking.
#pragma once

namespace Pendrel::base {

// A Traits type provides: `Handle` (the handle type), `static Handle Empty()`,
// `static bool IsValid(Handle)` and `static void Close(Handle) noexcept` (called only for
// valid handles).
template <typename Traits>
class ScopedHandle {
 public:
  using Handle = typename Traits::Handle;

  ScopedHandle() = default;
  // Takes ownership of `handle` (an empty value stays empty).
  explicit ScopedHandle(Handle handle) : m_handle(handle) {}
  ScopedHandle(ScopedHandle&& other) noexcept : m_handle(other.Release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  ~ScopedHandle() { Reset(); }

  // The handle, still owned; Traits::Empty() when empty.
  Handle Get() const { return m_handle; }
  explicit operator bool() const { return Traits::IsValid(m_handle); }

  // Gives the handle up without closing it; the owner is empty afterwards.
  Handle Release() noexcept {
    const Handle handle = m_handle;
    m_handle = Traits::Empty();
    return handle;
  }

  // Closes the handle held, if any, and takes `handle`.
  void Reset(Handle handle = Traits::Empty()) noexcept {
    if (Traits::IsValid(m_handle)) Traits::Close(m_handle);
    m_handle = handle;
  }

 private:
  Handle m_handle = Traits::Empty();
};

}  // namespace Pendrel::base
