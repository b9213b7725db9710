#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "kit/crypto/P256.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// A store's failure: the system's error number and a text for a person.
struct SecretStoreError : std::runtime_error {
  SecretStoreError(int errorNumber, const std::string& text)
      : std::runtime_error(text), code(errorNumber) {}
  int code;
};

// One secret, kept across restarts. Absent means nothing stored.
class SecretStore {
 public:
  virtual ~SecretStore() = default;
  virtual std::optional<Data> read() const = 0;  // throws SecretStoreError
  virtual void write(const Data& bytes) = 0;     // throws SecretStoreError
  virtual void remove() = 0;                     // never fails
};

// A file readable by its owner only (0600, in a 0700 folder), replaced atomically on write.
class FileSecretStore final : public SecretStore {
 public:
  explicit FileSecretStore(std::filesystem::path path) : path_(std::move(path)) {}
  std::optional<Data> read() const override;
  void write(const Data& bytes) override;
  void remove() override;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

class MemorySecretStore final : public SecretStore {
 public:
  std::optional<Data> read() const override;
  void write(const Data& bytes) override;
  void remove() override;

 private:
  mutable std::mutex lock_;
  std::optional<Data> data_;
};

// Writes `bytes` to `path` through a temporary file and a rename, with mode 0600, creating the
// folder (0700) if needed. Throws SecretStoreError.
void writeFileAtomically(const std::filesystem::path& path, const Data& bytes);

// The per-user data folder of an application: $XDG_DATA_HOME/<name>, else ~/.local/share/<name>.
std::filesystem::path userDataDirectory(const std::string& name);

// The P-256 key kept in `file` as the hex of its scalar, or a new one written there (readable by
// the owner alone). Throws when the file holds something else, rather than replace it.
P256PrivateKey keyInFile(const std::filesystem::path& file);

}  // namespace kelvaron
