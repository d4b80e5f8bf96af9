#include "io/filtering_stream_buffer.hpp"

namespace foundation::storage::vfs::detail {

char const LineEndings::CR = '\r';
char const LineEndings::LF = '\n';
char const CRLF::Bytes[2] = {'\r', '\n'};

void StreamBufferDeleter::operator()(StreamBuffer* buffer) const noexcept { delete buffer; }

OwnedStreamBuffer makeStreamBuffer() { return OwnedStreamBuffer(new StreamBuffer()); }

std::streambuf* standardBuffer(StreamBuffer& buffer) noexcept { return &buffer; }

} // namespace foundation::storage::vfs::detail
