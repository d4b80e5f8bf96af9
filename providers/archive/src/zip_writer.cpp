// A commit writes the new archive record by record: every entry the change set leaves alone
// is copied as it lies in the old file (local header, data, data descriptor and central
// record byte for byte, only its offset moved), entries the reader skipped included; an
// entry renamed or given new attributes keeps its data and extra fields; new data is
// deflated from the change set's spill file.

#include "zip_format.hpp"
#include "zip_records.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <zlib.h>

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <map>
#include <set>

namespace foundation::storage::providers::archive::detail {

namespace {

using namespace zipfield;

constexpr std::uint32_t Full32 = 0xFFFFFFFF;
/// New data this large gets Zip64 sizes: deflating may grow it a little.
constexpr std::uint64_t WideData = 0xF0000000;
constexpr std::size_t Chunk = 256 * 1024;

p::ByteStreamOpenOptions const replaceWhole{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                            p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};

[[noreturn]] void cannotWrite(std::string const& what) {
  p::raise(p::ByteStreamWriteFailure(what, p::ErrorCode::IOError));
}

/// The new archive's bytes, through one transaction of the archive file.
class ArchiveOutput {
public:
  explicit ArchiveOutput(p::StorageItem const& file) : stream_(file.openTransactionalStream(replaceWhole)) {}

  void write(char const* data, std::size_t n) {
    stream_->write(data, static_cast<std::streamsize>(n));
    position_ += n;
  }
  void write(std::string const& bytes) { write(bytes.data(), bytes.size()); }
  std::uint64_t position() const { return position_; }
  void land(p::StreamClosePolicy landing) { stream_->close(landing); }

private:
  std::unique_ptr<p::TransactionalStream> stream_;
  std::uint64_t position_ = 0;
};

/// A modification time as zip's DOS date and time fields (local time, as readers take them).
std::pair<std::uint16_t, std::uint16_t> dosTimeOf(boost::posix_time::ptime const& time) {
  std::time_t const seconds = time.is_special() ? std::time(nullptr) : boost::posix_time::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  if (local.tm_year < 80) return {0, (0 << 9) | (1 << 5) | 1}; // 1980-01-01, the earliest
  if (local.tm_year > 207) return {(23 << 11) | (59 << 5) | 29, (127 << 9) | (12 << 5) | 31};
  auto const dosTime = static_cast<std::uint16_t>(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2);
  auto const dosDate = static_cast<std::uint16_t>((local.tm_year - 80) << 9 | (local.tm_mon + 1) << 5 | local.tm_mday);
  return {dosTime, dosDate};
}

/// The Unix time of the extended timestamp field, when it holds it.
std::optional<std::uint32_t> unixTimeOf(boost::posix_time::ptime const& time) {
  if (time.is_special()) return std::nullopt;
  std::time_t const seconds = boost::posix_time::to_time_t(time);
  if (seconds < std::numeric_limits<std::int32_t>::min() || seconds > std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return static_cast<std::uint32_t>(static_cast<std::int32_t>(seconds));
}

/// POSIX type and permissions of a node, as zip's external attributes keep them.
std::uint32_t attributesOf(Node const& node) {
  std::uint32_t mode = node.mode != 0 ? node.mode : node.folder ? 0755 : 0644;
  if (node.writable)
    mode |= S_IWUSR;
  else
    mode &= ~std::uint32_t{0222};
  mode |= node.folder ? S_IFDIR : node.symlink ? S_IFLNK : S_IFREG;
  return mode << 16;
}

/// A kept entry's external attributes with the read-only state `writable` asks for.
std::uint32_t withWritable(std::uint32_t attributes, std::uint8_t system, bool writable) {
  if (system == ZIP_OPSYS_UNIX && (attributes >> 16) != 0) {
    std::uint32_t mode = attributes >> 16;
    mode = writable ? mode | S_IWUSR : mode & ~std::uint32_t{0222};
    return (mode << 16) | (attributes & 0xFFFF);
  }
  return writable ? attributes & ~std::uint32_t{1} : attributes | 1; // the DOS read-only attribute
}

bool ascii(std::string const& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

/// The path a raw entry name stands for, compared loosely ("./a//b" is "a/b"); none when the
/// name cannot be read as a path.
std::optional<Segments> looseSegments(std::string const& raw) {
  try {
    Segments segments;
    for (auto& segment : common::namesOf(fl::i18n::strict::utf8_to_utf16(raw)))
      if (segment != u".") segments.push_back(std::move(segment));
    return segments;
  } catch (std::exception const&) {
    return std::nullopt;
  }
}

std::string nameOf(Segments const& path, bool folder) {
  return fl::i18n::to_utf8(pathOf(path).substr(1)) + (folder ? "/" : "");
}

/// A node of the tree and where it lies.
struct Placement {
  Node const* node;
  Segments path;
  bool moved; ///< the node or a folder above it moved since it was read
};

class ZipRewrite {
public:
  ZipRewrite(Tree const& tree, ZipReader* previous, StoredDirectory old, ArchiveOutput& out)
      : tree_(tree), previous_(previous), old_(std::move(old)), out_(out) {}

  void run() {
    plan();
    copyLeadingBytes();
    for (std::uint64_t index = 0; index < old_.entries.size(); ++index) {
      if (auto const found = byIndex_.find(index); found != byIndex_.end()) {
        Node const& node = *found->second.node;
        if (!node.folder && node.content)
          writeNew(node, found->second.path);
        else
          writeKept(index, &found->second);
      } else if (!placed_.count(index) && !givesWay(old_.entries[index])) {
        writeKept(index, nullptr); // an entry the reader skipped: carried as it is
      }
    }
    for (auto const& placement : added_) writeNew(*placement.node, placement.path);
    writeDirectoryEnd();
  }

private:
  /// Sorts the tree's nodes into those read from an entry and those new to the archive.
  void plan() {
    placed_.insert(tree_.placed().begin(), tree_.placed().end());
    std::vector<Placement> pending;
    auto const pushChildren = [&](Node const& folder, Segments const& path, bool moved) {
      for (auto it = folder.children.rbegin(); it != folder.children.rend(); ++it) {
        Segments child = path;
        child.push_back(it->first);
        pending.push_back({it->second.get(), std::move(child), moved || it->second->moved});
      }
    };
    pushChildren(tree_.root(), {}, false);
    while (!pending.empty()) {
      Placement placement = std::move(pending.back());
      pending.pop_back();
      Node const& node = *placement.node;
      if (node.folder) pushChildren(node, placement.path, placement.moved);
      if (node.index && *node.index < old_.entries.size()) {
        if (placement.moved) newNames_.insert(placement.path);
        byIndex_.emplace(*node.index, std::move(placement));
      } else if (!node.folder || node.explicitEntry || node.children.empty()) {
        // A folder only implied by its contents needs no entry, unless it is empty now.
        newNames_.insert(placement.path);
        added_.push_back(std::move(placement));
      }
    }
    for (std::uint64_t const index : placed_)
      if (!byIndex_.count(index) && index < old_.entries.size())
        if (auto const path = looseSegments(old_.entries[index].name()))
          (previous_->entry(index).folder ? removedFolders_ : removedNames_).insert(*path);
  }

  /// A skipped entry gives way to a new entry of the same name, which would otherwise hide
  /// behind it (the first of equal names is the one read), and goes with a removed entry of
  /// its name or a removed folder above it, which it would otherwise bring back.
  bool givesWay(StoredEntry const& entry) const {
    auto const path = looseSegments(entry.name());
    if (!path) return false;
    if (newNames_.count(*path) || removedNames_.count(*path)) return true;
    for (Segments above = *path; !above.empty(); above.pop_back())
      if (removedFolders_.count(above)) return true;
    return false;
  }

  void writeKept(std::uint64_t index, Placement const* placement) {
    StoredEntry const& entry = old_.entries[index];
    std::string local(LocalFixed, '\0');
    previous_->readBytes(entry.localOffset, local.data(), local.size());
    if (get32(local, 0) != LocalSignature)
      cannotWrite("the local header of \"" + entry.name() + "\" is not where the archive's directory puts it");
    std::size_t const variable = get16(local, LocalNameLength) + get16(local, LocalExtraLength);
    local.resize(LocalFixed + variable);
    previous_->readBytes(entry.localOffset + LocalFixed, local.data() + LocalFixed, variable);
    std::uint64_t const dataStart = entry.localOffset + local.size();
    std::uint64_t const dataLength = entry.compressedSize + descriptorLength(local, dataStart + entry.compressedSize);

    std::string central = entry.central;
    if (placement) changeKept(index, *placement, local, central);
    std::uint64_t const offset = out_.position();
    out_.write(local);
    copyOld(dataStart, dataLength);
    directory_.push_back(withLocalOffset(central, offset));
  }

  /// What lies before the first entry (the program of a self-extracting archive) stays.
  void copyLeadingBytes() {
    if (old_.entries.empty()) return;
    auto const first = std::min_element(old_.entries.begin(), old_.entries.end(),
                                        [](auto const& a, auto const& b) { return a.localOffset < b.localOffset; });
    copyOld(0, first->localOffset);
  }

  void copyOld(std::uint64_t from, std::uint64_t length) {
    std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(length, Chunk)));
    for (std::uint64_t done = 0; done < length;) {
      std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), length - done));
      previous_->readBytes(from + done, buffer.data(), n);
      out_.write(buffer.data(), n);
      done += n;
    }
  }

  /// The length of the data descriptor after an entry's data, when its header announces one.
  std::uint64_t descriptorLength(std::string const& local, std::uint64_t at) const {
    if (!(get16(local, LocalFlags) & DescriptorFlag)) return 0;
    bool wide = false;
    std::string const extra = local.substr(LocalFixed + get16(local, LocalNameLength));
    rewriteExtra(extra, Zip64Extra, [&](std::string&, bool&) { wide = true; });
    std::uint64_t length = wide ? 20 : 12;
    if (at + 4 <= previous_->fileSize()) {
      std::string signature(4, '\0');
      previous_->readBytes(at, signature.data(), signature.size());
      if (get32(signature, 0) == DescriptorSignature) length += 4;
    }
    return length;
  }

  /// Renames a kept entry or gives it the tree's time and read-only state, in both its
  /// local header and its central record; everything else stays.
  void changeKept(std::uint64_t index, Placement const& placement, std::string& local, std::string& central) {
    Node const& node = *placement.node;
    RawEntry const original = previous_->entry(index);
    if (placement.moved) {
      std::string const name = nameOf(placement.path, node.folder);
      if (name.size() > 0xFFFF) cannotWrite("the new name of \"" + original.name + "\" is too long");
      local = withNameAndExtra(local, LocalFixed, LocalNameLength, name,
                               local.substr(LocalFixed + get16(local, LocalNameLength)));
      central = withNameAndExtra(central, CentralFixed, CentralNameLength, name, StoredEntry{central, 0, 0}.extra());
      if (!ascii(name)) {
        put16(local, LocalFlags, get16(local, LocalFlags) | Utf8Flag);
        put16(central, CentralFlags, get16(central, CentralFlags) | Utf8Flag);
      }
    }
    if (node.modified != original.modified) {
      auto const [dosTime, dosDate] = dosTimeOf(node.modified);
      put16(local, LocalTime, dosTime);
      put16(local, LocalTime + 2, dosDate);
      put16(central, CentralTime, dosTime);
      put16(central, CentralTime + 2, dosDate);
      // The extended timestamp, which other tools prefer, says the same or goes.
      auto const unixTime = unixTimeOf(node.modified);
      auto const retime = [&](std::string& data, bool& keep) {
        if (data.size() < 5 || !(data[0] & 1)) return;
        if (unixTime)
          put32(data, 1, *unixTime);
        else
          keep = false;
      };
      std::size_t const localName = get16(local, LocalNameLength);
      local = withNameAndExtra(local, LocalFixed, LocalNameLength, local.substr(LocalFixed, localName),
                               rewriteExtra(local.substr(LocalFixed + localName), TimestampExtra, retime));
      StoredEntry const record{central, 0, 0};
      central = withNameAndExtra(central, CentralFixed, CentralNameLength, record.name(),
                                 rewriteExtra(record.extra(), TimestampExtra, retime));
    }
    if (node.writable != original.writable) {
      auto const system = static_cast<std::uint8_t>(get16(central, 4) >> 8);
      put32(central, CentralAttributes, withWritable(get32(central, CentralAttributes), system, node.writable));
    }
  }

  void writeNew(Node const& node, Segments const& path) {
    std::string const name = nameOf(path, node.folder);
    std::shared_ptr<Content> const content = node.folder ? nullptr : node.content;
    std::uint64_t const size = content ? content->size() : 0;
    bool const deflated = size > 0;
    bool const wide = size >= WideData;
    std::uint16_t const needed = wide ? 45 : 20;
    std::uint16_t const flags = (deflated ? DescriptorFlag : 0) | (ascii(name) ? 0 : Utf8Flag);
    auto const [dosTime, dosDate] = dosTimeOf(node.modified);
    std::string timestamp;
    if (auto const unixTime = unixTimeOf(node.modified)) {
      append16(timestamp, TimestampExtra);
      append16(timestamp, 5);
      timestamp.push_back(1); // the modification time only
      append32(timestamp, *unixTime);
    }

    std::uint64_t const offset = out_.position();
    std::string local;
    append32(local, LocalSignature);
    append16(local, needed);
    append16(local, flags);
    append16(local, deflated ? 8 : 0);
    append16(local, dosTime);
    append16(local, dosDate);
    append32(local, 0); // the checksum and sizes follow the data
    append32(local, wide ? Full32 : 0);
    append32(local, wide ? Full32 : 0);
    append16(local, static_cast<std::uint16_t>(name.size()));
    std::string localExtra;
    if (wide) {
      append16(localExtra, Zip64Extra);
      append16(localExtra, 16);
      append64(localExtra, 0);
      append64(localExtra, 0);
    }
    localExtra += timestamp;
    append16(local, static_cast<std::uint16_t>(localExtra.size()));
    out_.write(local + name + localExtra);

    std::uint32_t crc = 0;
    std::uint64_t compressed = 0;
    if (deflated) {
      std::tie(crc, compressed) = deflate(*content);
      std::string descriptor;
      append32(descriptor, DescriptorSignature);
      append32(descriptor, crc);
      if (wide) {
        append64(descriptor, compressed);
        append64(descriptor, size);
      } else {
        append32(descriptor, static_cast<std::uint32_t>(compressed));
        append32(descriptor, static_cast<std::uint32_t>(size));
      }
      out_.write(descriptor);
    }

    std::string field;
    if (size >= Full32) append64(field, size);
    if (compressed >= Full32) append64(field, compressed);
    if (offset >= Full32) append64(field, offset);
    std::string centralExtra;
    if (!field.empty()) {
      append16(centralExtra, Zip64Extra);
      append16(centralExtra, static_cast<std::uint16_t>(field.size()));
      centralExtra += field;
    }
    centralExtra += timestamp;
    std::string central;
    append32(central, CentralSignature);
    append16(central, ZIP_OPSYS_UNIX << 8 | 63);
    append16(central, needed);
    append16(central, flags);
    append16(central, deflated ? 8 : 0);
    append16(central, dosTime);
    append16(central, dosDate);
    append32(central, crc);
    append32(central, static_cast<std::uint32_t>(std::min<std::uint64_t>(compressed, Full32)));
    append32(central, static_cast<std::uint32_t>(std::min<std::uint64_t>(size, Full32)));
    append16(central, static_cast<std::uint16_t>(name.size()));
    append16(central, static_cast<std::uint16_t>(centralExtra.size()));
    append16(central, 0); // comment
    append16(central, 0); // disk
    append16(central, 0); // internal attributes
    append32(central, attributesOf(node));
    append32(central, static_cast<std::uint32_t>(std::min<std::uint64_t>(offset, Full32)));
    directory_.push_back(central + name + centralExtra);
  }

  /// Deflates `content` into the archive; its checksum and compressed size.
  std::pair<std::uint32_t, std::uint64_t> deflate(Content const& content) {
    z_stream z{};
    if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
      cannotWrite("cannot start compressing");
    struct End {
      z_stream& z;
      ~End() { deflateEnd(&z); }
    } end{z};
    std::vector<char> input(Chunk), output(Chunk);
    std::uint32_t crc = static_cast<std::uint32_t>(crc32(0, nullptr, 0));
    std::uint64_t compressed = 0;
    std::uint64_t at = 0;
    int flush = Z_NO_FLUSH;
    do {
      std::size_t const n = content.read(at, input.data(), input.size());
      at += n;
      crc = static_cast<std::uint32_t>(crc32(crc, reinterpret_cast<Bytef const*>(input.data()), static_cast<uInt>(n)));
      flush = at >= content.size() ? Z_FINISH : Z_NO_FLUSH;
      z.next_in = reinterpret_cast<Bytef*>(input.data());
      z.avail_in = static_cast<uInt>(n);
      do {
        z.next_out = reinterpret_cast<Bytef*>(output.data());
        z.avail_out = static_cast<uInt>(output.size());
        if (::deflate(&z, flush) == Z_STREAM_ERROR) cannotWrite("compressing failed");
        std::size_t const produced = output.size() - z.avail_out;
        out_.write(output.data(), produced);
        compressed += produced;
      } while (z.avail_out == 0);
    } while (flush != Z_FINISH);
    return {crc, compressed};
  }

  void writeDirectoryEnd() {
    std::uint64_t const start = out_.position();
    for (auto const& record : directory_) out_.write(record);
    std::uint64_t const count = directory_.size();
    std::uint64_t const length = out_.position() - start;
    std::string end;
    if (count >= 0xFFFF || start >= Full32 || length >= Full32) {
      std::uint64_t const end64 = out_.position();
      append32(end, End64Signature);
      append64(end, 44); // the size of the rest of this record
      append16(end, ZIP_OPSYS_UNIX << 8 | 63);
      append16(end, 45);
      append32(end, 0); // this disk
      append32(end, 0); // the directory's disk
      append64(end, count);
      append64(end, count);
      append64(end, length);
      append64(end, start);
      append32(end, End64LocatorSignature);
      append32(end, 0);
      append64(end, end64);
      append32(end, 1); // disks
    }
    append32(end, EndSignature);
    append16(end, 0);
    append16(end, 0);
    append16(end, static_cast<std::uint16_t>(std::min<std::uint64_t>(count, 0xFFFF)));
    append16(end, static_cast<std::uint16_t>(std::min<std::uint64_t>(count, 0xFFFF)));
    append32(end, static_cast<std::uint32_t>(std::min<std::uint64_t>(length, Full32)));
    append32(end, static_cast<std::uint32_t>(std::min<std::uint64_t>(start, Full32)));
    append16(end, static_cast<std::uint16_t>(old_.comment.size()));
    out_.write(end + old_.comment);
  }

  Tree const& tree_;
  ZipReader* previous_;
  StoredDirectory const old_;
  ArchiveOutput& out_;
  std::set<std::uint64_t> placed_;
  std::map<std::uint64_t, Placement> byIndex_;
  std::vector<Placement> added_;
  std::set<Segments> newNames_;
  std::set<Segments> removedNames_;
  std::set<Segments> removedFolders_;
  std::vector<std::string> directory_;
};

} // namespace

void writeZip(p::StorageItem const& file, Tree const& tree, ZipReader* previous, p::StreamClosePolicy landing) {
  // Kept entries are read from the previous archive while the new one is written.
  std::unique_lock<std::mutex> reading;
  if (previous) reading = std::unique_lock(previous->mutex);
  try {
    StoredDirectory old;
    if (previous && previous->archive) {
      old = readStoredDirectory(
          [previous](std::uint64_t offset, char* data, std::size_t n) { previous->readBytes(offset, data, n); },
          previous->fileSize());
      if (static_cast<zip_int64_t>(old.entries.size()) != zip_get_num_entries(previous->archive, ZIP_FL_UNCHANGED))
        cannotWrite("the archive's directory lists other entries than were read");
    }
    ArchiveOutput out(file);
    ZipRewrite(tree, previous, std::move(old), out).run();
    out.land(landing);
  } catch (p::ByteStreamFailure const& failure) {
    p::fail(failure.getErrorCode(), file.getLocation(), u"zip.commit", failure.what());
  }
}

} // namespace foundation::storage::providers::archive::detail
