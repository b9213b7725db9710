#pragma once

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cstddef>
#include <cstdint>

namespace kelvaron::host {

// A SysV shared-memory segment that the X server writes pictures into (MIT-SHM), so a picture
// needs no copy through the socket. The segment is marked for removal as soon as both sides hold
// it: it cannot outlive this process and the server.
class X11SharedMemory {
 public:
  explicit X11SharedMemory(xcb_connection_t* connection) : connection_(connection) {}
  ~X11SharedMemory() { release(); }
  X11SharedMemory(const X11SharedMemory&) = delete;
  X11SharedMemory& operator=(const X11SharedMemory&) = delete;

  // Room for at least `bytes`: a segment only grows, and is made anew when it must. Throws
  // std::system_error when the system gives no memory, std::runtime_error when the server refuses
  // to share it (a server on another machine); the old segment stays in use then.
  void reserve(std::size_t bytes);

  const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(address_); }
  std::size_t capacity() const { return capacity_; }
  xcb_shm_seg_t segment() const { return segment_; }

  void release();

 private:
  xcb_connection_t* const connection_;
  xcb_shm_seg_t segment_ = 0;
  void* address_ = nullptr;
  std::size_t capacity_ = 0;
};

}  // namespace kelvaron::host
