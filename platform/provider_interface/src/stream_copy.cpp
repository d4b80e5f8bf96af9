#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/stream_copy.hpp>

#include <vector>

namespace foundation::storage::provider {

namespace {
constexpr std::size_t copyBufferSize = 128 * 1024;
}

CopyResult copyFileThroughStreams(IProvider& sourceProvider, StorageIRI const& source, StorageItem const& destination,
                                  CopyFileOptions const& options) {
  auto const policy = options.policy;
  if (!isValid(policy))
    fail(ErrorCode::InvalidLocation, destination.getLocation(), u"copy", "unknown replacement policy");
  std::uint64_t const total = sourceProvider.getFileAttributes(source).getSize();

  switch (destination.exists()) {
  case ExistsResult::Folder:
    if (policy == ReplacementPolicy::KeepExisting) return CopyResult::Skipped;
    fail(ErrorCode::ResourceAlreadyExists, destination.getLocation(), u"copy", "a folder is in the way");
  case ExistsResult::File:
    if (policy == ReplacementPolicy::KeepExisting) return CopyResult::Skipped;
    if (policy == ReplacementPolicy::FailIfExists)
      fail(ErrorCode::ResourceAlreadyExists, destination.getLocation(), u"copy", "the destination exists");
    break;
  case ExistsResult::NotFound: break;
  }

  // The check above spares a useless copy; the commit below decides, atomically, since the
  // destination may appear meanwhile.
  bool const replace = replaces(policy);
  auto in = sourceProvider.openReadOnlyStream(source);
  auto out = destination.openTransactionalStream({ByteStreamAccess::WriteOnly, ByteStreamCreate::CreateIfMissing,
                                                  ByteStreamTruncate::Truncate, ByteStreamAppend::AtPosition});
  std::vector<char> buffer(copyBufferSize);
  std::uint64_t done = 0;
  try {
    for (;;) {
      std::streamsize got = 0;
      try {
        got = in->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      } catch (ByteStreamFailure const& e) {
        fail(e.getErrorCode(), source, u"copy.read", e.what());
      }
      if (got == 0) break;
      out->write(buffer.data(), got);
      done += static_cast<std::uint64_t>(got);
      if (options.progress) options.progress(done, total);
    }
    in->close();
    out->close(replace ? StreamClosePolicy::Commit : StreamClosePolicy::CommitWithoutReplacing);
  } catch (ByteStreamCloseFailure const& e) {
    if (replace || e.getErrorCode() != ErrorCode::ResourceAlreadyExists)
      fail(e.getErrorCode(), destination.getLocation(), u"copy.write", e.what());
    if (policy == ReplacementPolicy::KeepExisting) return CopyResult::Skipped;
    fail(ErrorCode::ResourceAlreadyExists, destination.getLocation(), u"copy", "the destination appeared meanwhile");
  } catch (ByteStreamFailure const& e) {
    // `out` is discarded when destroyed: the destination keeps its old contents.
    fail(e.getErrorCode(), destination.getLocation(), u"copy.write", e.what());
  }
  if (done == 0 && options.progress) options.progress(0, total);
  return CopyResult::Copied;
}

} // namespace foundation::storage::provider
