#pragma once

// Zip's records as bytes: the central directory of an existing archive as it lies in the
// file, and the fields a rewrite changes in records it otherwise keeps.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace foundation::storage::providers::archive::detail {

namespace zipfield {
// Offsets of fields in a central directory record and a local header.
inline constexpr std::size_t CentralFlags = 8, CentralTime = 12, CentralCompressedSize = 20, CentralSize = 24,
                             CentralNameLength = 28, CentralExtraLength = 30, CentralCommentLength = 32,
                             CentralDisk = 34, CentralAttributes = 38, CentralOffset = 42, CentralFixed = 46;
inline constexpr std::size_t LocalFlags = 6, LocalTime = 10, LocalNameLength = 26, LocalExtraLength = 28,
                             LocalFixed = 30;
inline constexpr std::uint32_t CentralSignature = 0x02014b50, LocalSignature = 0x04034b50,
                               DescriptorSignature = 0x08074b50, EndSignature = 0x06054b50, End64Signature = 0x06064b50,
                               End64LocatorSignature = 0x07064b50;
inline constexpr std::uint16_t Zip64Extra = 0x0001, TimestampExtra = 0x5455;
inline constexpr std::uint16_t DescriptorFlag = 0x0008, Utf8Flag = 0x0800;
} // namespace zipfield

std::uint16_t get16(std::string const& bytes, std::size_t at);
std::uint32_t get32(std::string const& bytes, std::size_t at);
std::uint64_t get64(std::string const& bytes, std::size_t at);
void put16(std::string& bytes, std::size_t at, std::uint16_t value);
void put32(std::string& bytes, std::size_t at, std::uint32_t value);
void append16(std::string& bytes, std::uint16_t value);
void append32(std::string& bytes, std::uint32_t value);
void append64(std::string& bytes, std::uint64_t value);

/// One entry of an existing archive: its central directory record as it stands, and where
/// its local header and data lie.
struct StoredEntry {
  std::string central;
  std::uint64_t localOffset = 0;
  std::uint64_t compressedSize = 0;

  std::uint16_t flags() const { return get16(central, zipfield::CentralFlags); }
  std::string name() const;
  /// The extra fields of the record.
  std::string extra() const;
};

/// The central directory of an existing archive, record by record in file order, and the
/// archive's comment.
struct StoredDirectory {
  std::vector<StoredEntry> entries;
  std::string comment;
};

/// Reads the bytes `[offset, offset + n)` of the archive file.
using ReadBytes = std::function<void(std::uint64_t offset, char* data, std::size_t n)>;

/// Reads the central directory of the archive of `size` bytes. Failures are
/// ByteStreamReadFailure (IOError) naming what does not fit.
StoredDirectory readStoredDirectory(ReadBytes const& read, std::uint64_t size);

/// The extra fields `extra` with each field of `id` given to `change`, which may rewrite its
/// data or empty the optional to drop it.
std::string rewriteExtra(std::string const& extra, std::uint16_t id,
                         std::function<void(std::string& data, bool& keep)> const& change);

/// The central record `central` with its local header at `offset`, in its fixed field or,
/// when that cannot hold it, in its Zip64 extra field.
std::string withLocalOffset(std::string const& central, std::uint64_t offset);

/// A record (local header or central record) whose name and extra fields, starting at
/// `fixed` with their lengths at `nameLength` and `nameLength + 2`, are replaced.
std::string withNameAndExtra(std::string const& record, std::size_t fixed, std::size_t nameLength,
                             std::string const& name, std::string const& extra);

} // namespace foundation::storage::providers::archive::detail
