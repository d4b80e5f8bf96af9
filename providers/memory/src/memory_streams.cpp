#include "memory_streams.hpp"

#include <algorithm>
#include <cstring>

namespace foundation::storage::providers::memory::detail {

namespace {

std::streamsize copyOut(std::vector<char> const& content, std::uint64_t position, char* s, std::streamsize n) {
  if (position >= content.size()) return 0;
  auto count = static_cast<std::streamsize>(std::min<std::uint64_t>(content.size() - position, n));
  std::memcpy(s, content.data() + position, static_cast<std::size_t>(count));
  return count;
}

} // namespace

MemoryByteStream::MemoryByteStream(std::shared_ptr<Tree> tree, NodePtr file, p::StorageIRI location, StreamMode mode,
                                   bool modified)
    : tree_(std::move(tree)), file_(std::move(file)), location_(std::move(location)), mode_(mode), modified_(modified) {
  std::shared_lock lock(tree_->mutex);
  data_ = file_->content;
}

std::streamsize MemoryByteStream::doRead(char* s, std::streamsize n) {
  if (!mode_.read)
    p::raise(p::ByteStreamReadFailure("the stream is not open for reading", p::ErrorCode::PermissionDenied));
  std::shared_lock lock(tree_->mutex);
  std::streamsize count = copyOut(*data_, position_, s, n);
  position_ += static_cast<std::uint64_t>(count);
  return count;
}

std::streamsize MemoryByteStream::doWrite(char const* s, std::streamsize n) {
  if (!mode_.write)
    p::raise(p::ByteStreamWriteFailure("the stream is not open for writing", p::ErrorCode::PermissionDenied));
  std::unique_lock lock(tree_->mutex);
  std::uint64_t const at = mode_.append ? data_->size() : position_;
  std::uint64_t const end = at + static_cast<std::uint64_t>(n);
  bool const current = isCurrent();
  if (end > data_->size()) {
    try {
      if (current) tree_->account(*file_, data_->size(), end, location_);
    } catch (p::Exception const& e) {
      p::raise(p::ByteStreamWriteFailure(e.what(), e.getErrorCode()));
    }
    data_->resize(end);
  }
  std::memcpy(data_->data() + at, s, static_cast<std::size_t>(n));
  if (current) file_->modified = Tree::now();
  position_ = end;
  modified_ = true;
  return n;
}

std::streampos MemoryByteStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  std::uint64_t size = 0;
  if (way == std::ios_base::end) {
    std::shared_lock lock(tree_->mutex);
    size = data_->size();
  }
  position_ = p::seekTarget(position_, size, off, way);
  return static_cast<std::streamoff>(position_);
}

void MemoryByteStream::doClose() {
  if (!modified_) return;
  WriteScope scope(*tree_); // reported in the order of the tree's other changes
  if (isCurrent()) scope.changes.push_back({events::Kind::Modified, location_, events::EntryType::File, {}});
}

MemoryTransactionalStream::MemoryTransactionalStream(std::shared_ptr<Tree> tree, p::StorageIRI location,
                                                     std::vector<char> initial, StreamMode mode, bool mustExist)
    : tree_(std::move(tree)), location_(std::move(location)), buffer_(std::move(initial)), mode_(mode),
      mustExist_(mustExist) {}

// Destroyed unclosed: the buffer is dropped and the file keeps its contents.
MemoryTransactionalStream::~MemoryTransactionalStream() = default;

std::streamsize MemoryTransactionalStream::doRead(char* s, std::streamsize n) {
  if (!mode_.read)
    p::raise(p::ByteStreamReadFailure("the stream is not open for reading", p::ErrorCode::PermissionDenied));
  std::streamsize count = copyOut(buffer_, position_, s, n);
  position_ += static_cast<std::uint64_t>(count);
  return count;
}

std::streamsize MemoryTransactionalStream::doWrite(char const* s, std::streamsize n) {
  std::uint64_t const at = mode_.append ? buffer_.size() : position_;
  std::uint64_t const end = at + static_cast<std::uint64_t>(n);
  std::uint64_t maxFileSize = 0;
  {
    std::shared_lock lock(tree_->mutex); // the limit may be reconfigured meanwhile
    maxFileSize = tree_->maxFileSize;
  }
  if (end > maxFileSize)
    p::raise(p::ByteStreamWriteFailure("beyond the largest file size", p::ErrorCode::FileTooLarge));
  if (end > buffer_.size()) buffer_.resize(end);
  std::memcpy(buffer_.data() + at, s, static_cast<std::size_t>(n));
  position_ = end;
  return n;
}

std::streampos MemoryTransactionalStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  position_ = p::seekTarget(position_, buffer_.size(), off, way);
  return static_cast<std::streamoff>(position_);
}

void MemoryTransactionalStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy == p::StreamClosePolicy::Discard) {
    std::vector<char>().swap(buffer_);
    return;
  }
  try {
    commit(policy == p::StreamClosePolicy::Commit);
  } catch (p::Exception const& e) {
    p::raise(p::ByteStreamCloseFailure(e.what(), e.getErrorCode()));
  }
}

void MemoryTransactionalStream::commit(bool replace) {
  {
    WriteScope scope(*tree_);
    auto& changes = scope.changes;
    Names names = common::namesOf(location_.getResolvedPath());
    NodePtr file = tree_->find(names);
    if (file && file->folder)
      refuse(p::ErrorCode::ResourceAlreadyExists, location_, u"commit", "a folder is in the way");
    if (file && !replace) refuse(p::ErrorCode::ResourceAlreadyExists, location_, u"commit", "the file exists");
    if (!file) {
      if (mustExist_) refuse(p::ErrorCode::ResourceNotFound, location_, u"commit", "the file was removed meanwhile");
      NodePtr parent = tree_->findParent(names);
      if (!parent) refuse(p::ErrorCode::ResourceNotFound, location_, u"commit", "the parent folder is missing");
      if (!parent->writable) refuse(p::ErrorCode::PermissionDenied, location_, u"commit", "the folder is read-only");
      auto created = std::make_shared<Node>(false, names.back());
      tree_->account(*created, 0, buffer_.size(), location_);
      created->content = std::make_shared<std::vector<char>>(std::move(buffer_));
      parent->children.emplace(tree_->key(names.back()), created);
      parent->modified = Tree::now();
      changes.push_back({events::Kind::Created, tree_->canonical(names), events::EntryType::File, {}});
    } else {
      if (!file->writable) refuse(p::ErrorCode::PermissionDenied, location_, u"commit", "the file is read-only");
      tree_->account(*file, file->content->size(), buffer_.size(), location_);
      file->content = std::make_shared<std::vector<char>>(std::move(buffer_));
      file->modified = Tree::now();
      changes.push_back({events::Kind::Modified, tree_->canonical(names), events::EntryType::File, {}});
    }
  }
}

} // namespace foundation::storage::providers::memory::detail
