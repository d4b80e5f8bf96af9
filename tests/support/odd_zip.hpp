#pragma once

// A zip holding every kind of entry other tools write and our reader skips or does not
// understand, made with Info-ZIP's zip and python's zipfile; and a look at a zip's raw
// records, independent of the code under test.

#include "archive_tools.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

/// Names of the odd zip: "streamed.txt" (written to a pipe: data descriptor, Zip64 local
/// field), "secret.txt" (encrypted, password "pw"), "plain.txt" (extended timestamp, uid/gid
/// field, entry comment, mode 0640), "dos.txt" (DOS read-only and archive attributes),
/// "arc\test", "\x95\x5c.txt" (Shift-JIS with a 0x5C byte), "dosdir" (a folder by the DOS
/// flag only) and "dosdir/child.txt", "dup.txt" twice ("first", "second"), an empty name,
/// "damaged.txt" (stored, its checksum wrong), and "gone.txt", "renamed.txt",
/// "retimed.txt" for a change set to work on. The archive has a comment.
inline void makeOddZip(std::filesystem::path const& zip) {
  auto const work = zip.parent_path() / (zip.filename().string() + ".parts");
  std::filesystem::create_directories(work);
  writeLocal(work / "streamed.txt", "streamed through a pipe\n");
  writeLocal(work / "secret.txt", "encrypted contents\n");
  run("cd " + quoted(work) + " && zip -q - streamed.txt | cat > " + quoted(zip) + " && zip -q -P pw " + quoted(zip) +
      " secret.txt");
  run("python3 - " + quoted(zip) + R"( <<'EOF'
import struct, sys, warnings, zipfile
warnings.simplefilter('ignore')
path = sys.argv[1]
z = zipfile.ZipFile(path, 'a')
def add(name, data, method=zipfile.ZIP_STORED, **fields):
    info = zipfile.ZipInfo(name, (2020, 5, 17, 13, 45, 30))
    for key, value in fields.items():
        setattr(info, key, value)
    z.writestr(info, data, method)
ut = struct.pack('<HHBI', 0x5455, 5, 1, 1589723130)
ux = struct.pack('<HHBBIBI', 0x7875, 11, 1, 4, 1000, 4, 1000)
add('plain.txt', b'plain\n' * 100, zipfile.ZIP_DEFLATED, extra=ut + ux, comment=b'entry comment',
    external_attr=0o100640 << 16, create_system=3)
add('dos.txt', b'dos\n', external_attr=0x21, create_system=0)
add('arc\\test', b'backslash\n')
add('QQ.txt', b'shift-jis\n')
add('dosdir', b'', external_attr=0x10, create_system=0)
add('dosdir/child.txt', b'child\n')
add('dup.txt', b'first\n')
add('dup.txt', b'second\n')
add('', b'empty name\n')
add('damaged.txt', b'damaged-data\n')
add('gone.txt', b'gone\n')
add('renamed.txt', b'renamed\n' * 50, zipfile.ZIP_DEFLATED, extra=ut)
add('retimed.txt', b'retimed\n', extra=ut + ux)
z.comment = b'archive comment'
z.close()
data = open(path, 'rb').read()
data = data.replace(b'QQ.txt', b'\x95\x5c.txt').replace(b'damaged-data', b'Damaged-data')
open(path, 'wb').write(data)
EOF
)");
  std::filesystem::remove_all(work);
}

/// A zip whose entry "broken.txt" has no local header where its directory record puts it:
/// listed, but its data cannot be found, so no rewrite can carry it. "kept.txt" is sound.
inline void makeZipWithALostEntry(std::filesystem::path const& zip) {
  run("python3 - " + quoted(zip) + R"( <<'EOF'
import sys, zipfile
path = sys.argv[1]
with zipfile.ZipFile(path, 'w') as z:
    z.writestr('kept.txt', b'kept\n')
    z.writestr('broken.txt', b'broken\n')
    offset = z.getinfo('broken.txt').header_offset
data = bytearray(open(path, 'rb').read())
data[offset:offset + 2] = b'XX'
open(path, 'wb').write(bytes(data))
EOF
)");
}

/// One entry of a zip as it lies in the file.
struct RawZipEntry {
  std::string name;
  std::string central; ///< its central directory record, the local header offset zeroed
  std::string local;   ///< its local header, data and data descriptor

  bool operator==(RawZipEntry const&) const = default;
};

/// The entries of a small zip (no Zip64 directory), in directory order, keyed by name and
/// the how-many-th entry of that name it is.
inline std::map<std::pair<std::string, int>, RawZipEntry> rawZipEntries(std::string const& bytes) {
  auto get16 = [&](std::size_t at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes.at(at)) |
                                    static_cast<unsigned char>(bytes.at(at + 1)) << 8);
  };
  auto get32 = [&](std::size_t at) { return get16(at) | get16(at + 2) << 16; };
  std::size_t const end = bytes.rfind(std::string("PK\5\6", 4));
  std::size_t const count = get16(end + 10), directory = get32(end + 16);
  std::vector<std::pair<std::size_t, RawZipEntry>> found;
  for (std::size_t at = directory, i = 0; i < count; ++i) {
    std::size_t const length = 46 + get16(at + 28) + get16(at + 30) + get16(at + 32);
    RawZipEntry entry{bytes.substr(at + 46, get16(at + 28)), bytes.substr(at, length), {}};
    entry.central.replace(42, 4, 4, '\0');
    found.emplace_back(get32(at + 42), std::move(entry));
    at += length;
  }
  // An entry's bytes reach up to the next entry's local header, or the directory.
  std::vector<std::size_t> starts{directory};
  for (auto const& [offset, entry] : found) starts.push_back(offset);
  std::sort(starts.begin(), starts.end());
  std::map<std::pair<std::string, int>, RawZipEntry> entries;
  std::map<std::string, int> seen;
  for (auto& [offset, entry] : found) {
    std::size_t const next = *std::upper_bound(starts.begin(), starts.end(), offset);
    entry.local = bytes.substr(offset, next - offset);
    std::string const name = entry.name;
    entries.emplace(std::make_pair(name, seen[name]++), std::move(entry));
  }
  return entries;
}

/// `zipinfo -v` of a zip, one block per entry keyed as rawZipEntries keys them, without
/// the lines that name the entry's number, its offset and the bytes before it.
inline std::map<std::pair<std::string, int>, std::string> zipinfoBlocks(std::filesystem::path const& zip) {
  std::string const text = run("zipinfo -v " + quoted(zip));
  std::map<std::pair<std::string, int>, std::string> blocks;
  std::map<std::string, int> seen;
  std::string const marker = "Central directory entry #";
  for (std::size_t at = text.find(marker); at != std::string::npos;) {
    std::size_t const next = text.find(marker, at + 1);
    std::string block = text.substr(at, next == std::string::npos ? std::string::npos : next - at);
    block = block.substr(block.find('\n') + 1); // the entry's number
    std::size_t const offset = block.find("offset of local header");
    if (offset != std::string::npos) {
      std::size_t const afterTwoLines = block.find('\n', block.find('\n', offset) + 1);
      block.erase(offset, afterTwoLines - offset);
    }
    // Bytes between entries (a data descriptor) are the layout's, not the entry's.
    if (std::size_t const gap = block.find("  There are an extra "); gap != std::string::npos)
      block.erase(gap, block.find('\n', gap) + 1 - gap);
    // The name stands alone on the block's first non-empty line.
    std::size_t const nameStart = block.find_first_not_of("-\n ");
    std::string const name = block.substr(nameStart, block.find('\n', nameStart) - nameStart);
    blocks.emplace(std::make_pair(name, seen[name]++), block);
    at = next;
  }
  return blocks;
}

} // namespace testsupport
