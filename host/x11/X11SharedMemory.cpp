#include "host/x11/X11SharedMemory.hpp"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "host/x11/X11Connection.hpp"

namespace kelvaron::host {

void X11SharedMemory::reserve(std::size_t bytes) {
  if (bytes <= capacity_) return;
  const int id = ::shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
  if (id < 0) {
    throw std::system_error(errno, std::generic_category(),
                            "Cannot make shared memory for pictures of the screen");
  }
  void* address = ::shmat(id, nullptr, SHM_RDONLY);
  const int attachError = address == reinterpret_cast<void*>(-1) ? errno : 0;
  const xcb_shm_seg_t segment = xcb_generate_id(connection_);
  const XcbReply<xcb_generic_error_t> refused(
      attachError
          ? nullptr
          : xcb_request_check(connection_, xcb_shm_attach_checked(connection_, segment, id, 0)));
  // Removed once both sides have let go of it, even if this process dies first.
  ::shmctl(id, IPC_RMID, nullptr);
  if (attachError) {
    throw std::system_error(attachError, std::generic_category(),
                            "Cannot map shared memory for pictures of the screen");
  }
  if (refused || xcb_connection_has_error(connection_)) {
    ::shmdt(address);
    throw std::runtime_error(
        "The X server cannot share memory with this process (does it run on another "
        "machine?), and screen capture needs that.");
  }
  release();
  segment_ = segment;
  address_ = address;
  capacity_ = bytes;
}

void X11SharedMemory::release() {
  if (!address_) return;
  xcb_shm_detach(connection_, segment_);  // a no-op on a broken connection
  ::shmdt(address_);
  address_ = nullptr;
  capacity_ = 0;
}

}  // namespace kelvaron::host
