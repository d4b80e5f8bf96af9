#include "zip_records.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <algorithm>
#include <optional>

namespace foundation::storage::providers::archive::detail {

namespace p = foundation::storage::provider;
using namespace zipfield;

namespace {

[[noreturn]] void unreadable(std::string const& what) {
  p::raise(p::ByteStreamReadFailure("the archive's central directory cannot be read as it lies: " + what,
                                    p::ErrorCode::IOError));
}

constexpr std::size_t EndFixed = 22, End64Fixed = 56, End64LocatorSize = 20;
constexpr std::uint32_t Full32 = 0xFFFFFFFF;

/// The values of a record's Zip64 extra field, each present when its fixed field is full.
struct Zip64Values {
  std::optional<std::uint64_t> size, compressedSize, offset;
  std::optional<std::uint32_t> disk;
};

Zip64Values zip64ValuesOf(std::string const& central) {
  Zip64Values values;
  bool const hasSize = get32(central, CentralSize) == Full32;
  bool const hasCompressed = get32(central, CentralCompressedSize) == Full32;
  bool const hasOffset = get32(central, CentralOffset) == Full32;
  bool const hasDisk = get16(central, CentralDisk) == 0xFFFF;
  StoredEntry const entry{central, 0, 0};
  rewriteExtra(entry.extra(), Zip64Extra, [&](std::string& data, bool&) {
    std::size_t at = 0;
    auto next64 = [&](bool present, std::optional<std::uint64_t>& value) {
      if (!present) return;
      if (at + 8 > data.size()) unreadable("a Zip64 field is too short");
      value = get64(data, at);
      at += 8;
    };
    next64(hasSize, values.size);
    next64(hasCompressed, values.compressedSize);
    next64(hasOffset, values.offset);
    if (hasDisk && at + 4 <= data.size()) values.disk = get32(data, at);
  });
  if ((hasSize && !values.size) || (hasCompressed && !values.compressedSize) || (hasOffset && !values.offset))
    unreadable("a record's sizes or offset are missing from its Zip64 field");
  return values;
}

} // namespace

std::uint16_t get16(std::string const& bytes, std::size_t at) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) | static_cast<unsigned char>(bytes[at + 1])
                                                                                << 8);
}
std::uint32_t get32(std::string const& bytes, std::size_t at) {
  return get16(bytes, at) | static_cast<std::uint32_t>(get16(bytes, at + 2)) << 16;
}
std::uint64_t get64(std::string const& bytes, std::size_t at) {
  return get32(bytes, at) | static_cast<std::uint64_t>(get32(bytes, at + 4)) << 32;
}
void put16(std::string& bytes, std::size_t at, std::uint16_t value) {
  bytes[at] = static_cast<char>(value & 0xFF);
  bytes[at + 1] = static_cast<char>(value >> 8);
}
void put32(std::string& bytes, std::size_t at, std::uint32_t value) {
  put16(bytes, at, static_cast<std::uint16_t>(value & 0xFFFF));
  put16(bytes, at + 2, static_cast<std::uint16_t>(value >> 16));
}
void append16(std::string& bytes, std::uint16_t value) {
  bytes.push_back(static_cast<char>(value & 0xFF));
  bytes.push_back(static_cast<char>(value >> 8));
}
void append32(std::string& bytes, std::uint32_t value) {
  append16(bytes, static_cast<std::uint16_t>(value & 0xFFFF));
  append16(bytes, static_cast<std::uint16_t>(value >> 16));
}
void append64(std::string& bytes, std::uint64_t value) {
  append32(bytes, static_cast<std::uint32_t>(value & Full32));
  append32(bytes, static_cast<std::uint32_t>(value >> 32));
}

std::string StoredEntry::name() const { return central.substr(CentralFixed, get16(central, CentralNameLength)); }

std::string StoredEntry::extra() const {
  return central.substr(CentralFixed + get16(central, CentralNameLength), get16(central, CentralExtraLength));
}

StoredDirectory readStoredDirectory(ReadBytes const& read, std::uint64_t size) {
  // The end record lies in the last 64 KiB + 22 bytes; the last signature whose comment
  // reaches the end of the file is taken, as libzip takes it.
  std::size_t const tailSize = static_cast<std::size_t>(std::min<std::uint64_t>(size, 0xFFFF + EndFixed));
  std::uint64_t const tailStart = size - tailSize;
  std::string tail(tailSize, '\0');
  read(tailStart, tail.data(), tail.size());
  std::optional<std::size_t> end;
  for (std::size_t at = tailSize >= EndFixed ? tailSize - EndFixed + 1 : 0; at-- > 0;) {
    if (get32(tail, at) != EndSignature) continue;
    if (!end) end = at; // the last one, should none fit exactly
    if (at + EndFixed + get16(tail, at + 20) == tailSize) {
      end = at;
      break;
    }
  }
  if (!end) unreadable("no end record");
  StoredDirectory directory;
  directory.comment =
      tail.substr(*end + EndFixed, std::min<std::size_t>(get16(tail, *end + 20), tailSize - *end - EndFixed));
  std::uint64_t count = get16(tail, *end + 10);
  std::uint64_t cdSize = get32(tail, *end + 12);
  std::uint64_t cdOffset = get32(tail, *end + 16);
  std::uint64_t const endOffset = tailStart + *end;
  if (endOffset >= End64LocatorSize) {
    std::string locator(End64LocatorSize, '\0');
    read(endOffset - End64LocatorSize, locator.data(), locator.size());
    if (get32(locator, 0) == End64LocatorSignature) {
      std::uint64_t const end64 = get64(locator, 8);
      if (end64 > size || size - end64 < End64Fixed) unreadable("the Zip64 end record lies outside the file");
      std::string record(End64Fixed, '\0');
      read(end64, record.data(), record.size());
      if (get32(record, 0) != End64Signature) unreadable("the Zip64 end record is missing");
      count = get64(record, 32);
      cdSize = get64(record, 40);
      cdOffset = get64(record, 48);
    }
  }
  if (cdOffset > size || cdSize > size - cdOffset) unreadable("the directory lies outside the file");
  if (count > cdSize / CentralFixed) unreadable("more entries than the directory holds");
  std::string bytes(static_cast<std::size_t>(cdSize), '\0');
  read(cdOffset, bytes.data(), bytes.size());
  directory.entries.reserve(static_cast<std::size_t>(count));
  std::size_t at = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (at + CentralFixed > bytes.size() || get32(bytes, at) != CentralSignature) unreadable("a record is missing");
    std::size_t const length = CentralFixed + get16(bytes, at + CentralNameLength) +
                               get16(bytes, at + CentralExtraLength) + get16(bytes, at + CentralCommentLength);
    if (at + length > bytes.size()) unreadable("a record runs past the directory");
    StoredEntry entry{bytes.substr(at, length), 0, 0};
    Zip64Values const wide = zip64ValuesOf(entry.central);
    entry.localOffset = wide.offset.value_or(get32(entry.central, CentralOffset));
    entry.compressedSize = wide.compressedSize.value_or(get32(entry.central, CentralCompressedSize));
    directory.entries.push_back(std::move(entry));
    at += length;
  }
  return directory;
}

std::string rewriteExtra(std::string const& extra, std::uint16_t id,
                         std::function<void(std::string& data, bool& keep)> const& change) {
  std::string out;
  std::size_t at = 0;
  while (at + 4 <= extra.size()) {
    std::uint16_t const fieldId = get16(extra, at);
    std::size_t const length = std::min<std::size_t>(get16(extra, at + 2), extra.size() - at - 4);
    std::string data = extra.substr(at + 4, length);
    bool keep = true;
    if (fieldId == id) change(data, keep);
    if (keep) {
      append16(out, fieldId);
      append16(out, static_cast<std::uint16_t>(data.size()));
      out += data;
    }
    at += 4 + length;
  }
  out += extra.substr(std::min(at, extra.size())); // trailing bytes that form no field stay
  return out;
}

std::string withNameAndExtra(std::string const& record, std::size_t fixed, std::size_t nameLength,
                             std::string const& name, std::string const& extra) {
  std::size_t const rest = fixed + get16(record, nameLength) + get16(record, nameLength + 2);
  std::string out = record.substr(0, fixed);
  put16(out, nameLength, static_cast<std::uint16_t>(name.size()));
  put16(out, nameLength + 2, static_cast<std::uint16_t>(extra.size()));
  return out + name + extra + record.substr(std::min(rest, record.size()));
}

std::string withLocalOffset(std::string const& central, std::uint64_t offset) {
  bool const wasWide = get32(central, CentralOffset) == Full32;
  bool const wide = offset >= Full32;
  if (!wasWide && !wide) {
    std::string out = central;
    put32(out, CentralOffset, static_cast<std::uint32_t>(offset));
    return out;
  }
  Zip64Values values = zip64ValuesOf(central);
  values.offset = wide ? std::optional<std::uint64_t>(offset) : std::nullopt;
  std::string field;
  for (auto const& value : {values.size, values.compressedSize, values.offset})
    if (value) append64(field, *value);
  if (values.disk) append32(field, *values.disk);
  std::string out = central;
  put32(out, CentralOffset, wide ? Full32 : static_cast<std::uint32_t>(offset));
  StoredEntry const entry{central, 0, 0};
  bool found = false;
  std::string extra = rewriteExtra(entry.extra(), Zip64Extra, [&](std::string& data, bool& keep) {
    found = true;
    data = field;
    keep = !field.empty();
  });
  if (!found && !field.empty()) {
    append16(extra, Zip64Extra);
    append16(extra, static_cast<std::uint16_t>(field.size()));
    extra += field;
  }
  if (extra.size() > 0xFFFF)
    p::raise(
        p::ByteStreamWriteFailure("an entry's extra fields cannot grow to hold its offset", p::ErrorCode::IOError));
  return withNameAndExtra(out, CentralFixed, CentralNameLength, entry.name(), extra);
}

} // namespace foundation::storage::providers::archive::detail
