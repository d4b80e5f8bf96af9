#pragma once

// The bytes of files written in a change set, kept in an unnamed temporary file rather
// than in memory, so that memory stays bounded however much is written before a commit.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace foundation::storage::providers::archive::detail {

/// One unnamed temporary file (in $TMPDIR) cut into fixed-size slots that contents borrow.
/// The file is made on first use and vanishes with the last reference. Thread-safe.
/// Failures are ByteStreamWriteFailure or ByteStreamReadFailure.
class SpillFile {
public:
  static constexpr std::uint64_t SlotSize = 1u << 20;

  SpillFile() = default;
  ~SpillFile();
  SpillFile(SpillFile const&) = delete;
  SpillFile& operator=(SpillFile const&) = delete;

  /// The offset of a slot holding only zeros.
  std::uint64_t take();
  /// Gives a slot back; its disk space is freed where the file system can.
  void give(std::uint64_t slot) noexcept;
  void write(std::uint64_t at, char const* s, std::size_t n);
  /// Reads exactly `n` bytes; bytes beyond what was written read as zeros.
  void read(std::uint64_t at, char* s, std::size_t n);

private:
  int descriptor();

  std::mutex mutex_;
  int fd_ = -1;
  std::uint64_t end_ = 0;
  std::vector<std::uint64_t> free_;
};

/// A file's bytes: a sparse sequence of slots in a SpillFile. Not synchronised: the
/// archive's lock (or the one stream owning it) guards it.
class Content {
public:
  explicit Content(std::shared_ptr<SpillFile> spill) : spill_(std::move(spill)) {}
  ~Content();
  Content(Content const&) = delete;
  Content& operator=(Content const&) = delete;

  std::uint64_t size() const { return size_; }
  /// Up to `n` bytes from `at`; 0 at or beyond the end.
  std::size_t read(std::uint64_t at, char* s, std::size_t n) const;
  /// Writes at `at`, growing the content (with zeros in between) as needed.
  void write(std::uint64_t at, char const* s, std::size_t n);
  /// Cuts the content or extends it with zeros.
  void resize(std::uint64_t size);
  /// An independent copy, in the same spill file.
  std::shared_ptr<Content> copy() const;
  std::shared_ptr<SpillFile> const& spill() const { return spill_; }

private:
  static constexpr std::uint64_t None = ~std::uint64_t{0};

  std::shared_ptr<SpillFile> spill_;
  std::vector<std::uint64_t> slots_; ///< one per SlotSize bytes; None for slots never written
  std::uint64_t size_ = 0;
};

} // namespace foundation::storage::providers::archive::detail
