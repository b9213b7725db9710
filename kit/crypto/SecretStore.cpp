#include "kit/crypto/SecretStore.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "kit/wire/Hex.hpp"

namespace kelvaron {

namespace fs = std::filesystem;

namespace {
[[noreturn]] void fail(const std::string& what, const fs::path& path) {
  const int code = errno;
  throw SecretStoreError(code, what + " " + path.string() + ": " + std::strerror(code));
}

// The folders that are missing are made for the owner alone; those that exist are left as
// their owner set them.
void makeOwnerOnlyDirectories(const fs::path& directory) {
  if (directory.empty() || fs::exists(directory)) return;
  makeOwnerOnlyDirectories(directory.parent_path());
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot make", directory);
}
}  // namespace

void writeFileAtomically(const fs::path& path, const Data& bytes) {
  makeOwnerOnlyDirectories(path.parent_path());
  // A name of its own for each writer, so that two writers never write into one file.
  std::string name = path.string() + ".tmpXXXXXX";
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);  // made with mode 0600
  const fs::path temporary = name;
  if (fd < 0) fail("cannot write", temporary);
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      ::unlink(temporary.c_str());
      fail("cannot write", temporary);
    }
    written += static_cast<std::size_t>(n);
  }
  const bool synced = ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (!synced || !closed) {
    ::unlink(temporary.c_str());
    fail("cannot write", temporary);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    fail("cannot replace", path);
  }
}

fs::path userDataDirectory(const std::string& name) {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) return fs::path(xdg) / name;
  const char* home = std::getenv("HOME");
  return fs::path(home && *home ? home : "/tmp") / ".local" / "share" / name;
}

std::optional<Data> FileSecretStore::read() const {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    fail("cannot read", path_);
  }
  Data bytes;
  std::uint8_t chunk[4096];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      fail("cannot read", path_);
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  ::close(fd);
  return bytes;
}

void FileSecretStore::write(const Data& bytes) { writeFileAtomically(path_, bytes); }

void FileSecretStore::remove() {
  std::error_code ignored;
  fs::remove(path_, ignored);
}

std::optional<Data> MemorySecretStore::read() const {
  std::lock_guard guard(lock_);
  return data_;
}

void MemorySecretStore::write(const Data& bytes) {
  std::lock_guard guard(lock_);
  data_ = bytes;
}

void MemorySecretStore::remove() {
  std::lock_guard guard(lock_);
  data_.reset();
}

P256PrivateKey keyInFile(const fs::path& file) {
  std::string text;
  std::ifstream(file) >> text;
  if (const auto bytes = hexBytes(text)) {
    if (auto key = P256PrivateKey::fromRaw(*bytes)) return *key;
  }
  if (fs::exists(file)) throw std::runtime_error(file.string() + " holds no key");
  P256PrivateKey key = P256PrivateKey::generate();
  const std::string written = hexText(key.rawRepresentation()) + "\n";
  writeFileAtomically(file, Data(written.begin(), written.end()));
  return key;
}

}  // namespace kelvaron
