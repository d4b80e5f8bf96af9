#include "harness.hpp"

#include <stdexcept>
#include <vector>

using namespace harness;
using vfs::ErrorCode;
using Policy = p::StreamClosePolicy;

namespace {

p::ByteStreamOpenOptions const readWriteKeep{p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist,
                                             p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition};

std::string readSome(vfs::IODevice const& device, std::streamsize n) {
  std::string bytes(static_cast<std::size_t>(n), '\0');
  std::streamsize got = device.read(bytes.data(), n);
  bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return bytes;
}

template <class Device>
void expectClosedDevice(Device& device, std::string const& text, auto&& close) {
  char c = 0;
  for (auto const& operation : std::vector<std::function<void()>>{
           [&] { device.read(&c, 1); }, [&] { device.write(&c, 1); }, [&] { device.seek(0, std::ios_base::beg); },
           [&] { device.tell(); }, [&] { close(device); }}) {
    try {
      operation();
      ADD_FAILURE() << "a closed device operated";
    } catch (std::logic_error const& misuse) {
      EXPECT_EQ(misuse.what(), text);
    }
  }
  EXPECT_FALSE(device.is_open());
}

} // namespace

class IODevices : public OnEveryProvider {};

TEST_P(IODevices, ReadWriteAndSeekThroughTheProviderStream) {
  vfs::File const file = h.file(u"f");
  write(file, "0123456789");
  vfs::IODevice device(file, readWriteKeep);
  EXPECT_EQ(device.tell(), 0);
  EXPECT_EQ(readSome(device, 4), "0123");
  EXPECT_EQ(device.seek(-2, std::ios_base::cur), 2);
  EXPECT_EQ(device.write("ab", 2), 2);
  EXPECT_EQ(device.seek(-1, std::ios_base::end), 9);
  EXPECT_EQ(readSome(device, 5), "9");
  char c = 0;
  EXPECT_EQ(device.read(&c, 1), -1); // end of data
  vfs::IODevice const copy = device; // shares the provider stream
  device.close();
  EXPECT_TRUE(copy.is_open());
  expectClosedDevice(device, "Cannot operate on a closed IODevice.", [](vfs::IODevice& d) { d.close(); });
  EXPECT_EQ(read(file), "01ab456789");

  EXPECT_EQ(readSome(vfs::IODevice(file), 3), "01a");
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, vfs::IODevice(h.file(u"missing")));
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, vfs::IODevice(h.file(u"missing"), readWriteKeep));
}

TEST_P(IODevices, ProviderFailuresArriveAsIOExceptionsAndAFailedCloseKeepsTheDeviceOpen) {
  vfs::File const file = h.file(u"f");
  write(file, "contents");
  auto const location = file.getLocation().toStorageIRI();
  struct Case {
    wrappers::StreamOperation op;
    p::ErrorCode code;
    ErrorCode expected;
  };
  for (Case const& c :
       {Case{wrappers::StreamOperation::Read, p::ErrorCode::IOError, ErrorCode::IOError},
        Case{wrappers::StreamOperation::Write, p::ErrorCode::FileTooLarge, ErrorCode::FileTooLarge},
        Case{wrappers::StreamOperation::Seek, p::ErrorCode::InvalidLocation, ErrorCode::InvalidLocation},
        Case{wrappers::StreamOperation::Close, p::ErrorCode::ReadOnlyProvider, ErrorCode::ReadOnlyProvider}}) {
    h.faults->clear();
    h.faults->failStream(location, c.op, c.code, "injected " + std::to_string(static_cast<int>(c.op)));
    vfs::IODevice device(file, readWriteKeep);
    char buffer[4];
    try {
      switch (c.op) {
      case wrappers::StreamOperation::Read: device.read(buffer, 4); break;
      case wrappers::StreamOperation::Write: device.write("x", 1); break;
      case wrappers::StreamOperation::Seek: device.seek(1, std::ios_base::beg); break;
      case wrappers::StreamOperation::Close: device.close(); break;
      }
      ADD_FAILURE() << "no failure";
    } catch (vfs::IOException const& failure) {
      EXPECT_EQ(failure.getErrorCode(), c.expected);
      EXPECT_NE(std::string(failure.what()).find("injected " + std::to_string(static_cast<int>(c.op))),
                std::string::npos);
      bool const rightType =
          c.op == wrappers::StreamOperation::Read    ? !!dynamic_cast<vfs::IOReadException const*>(&failure)
          : c.op == wrappers::StreamOperation::Write ? !!dynamic_cast<vfs::IOWriteException const*>(&failure)
          : c.op == wrappers::StreamOperation::Seek  ? !!dynamic_cast<vfs::IOSeekException const*>(&failure)
                                                     : !!dynamic_cast<vfs::IOCloseException const*>(&failure);
      EXPECT_TRUE(rightType);
    }
    EXPECT_TRUE(device.is_open()); // a failed operation, close included, changes nothing
  }
}

TEST_P(IODevices, TransactionalDevicesReplaceTheContentsOnlyOnCommit) {
  vfs::File const file = h.file(u"t");
  write(file, "old");
  {
    vfs::TransactionalIODevice device(file, p::ByteStreamAccess::ReadWrite);
    EXPECT_EQ(device.seek(0, std::ios_base::end), 0); // starts empty
    device.write("new", 3);
    EXPECT_EQ(device.tell(), 3);
    EXPECT_EQ(read(file), "old");
    device.close(Policy::Discard);
    expectClosedDevice(device, "Cannot operate on a closed TransactionalIODevice.",
                       [](vfs::TransactionalIODevice& d) { d.close(Policy::Commit); });
  }
  EXPECT_EQ(read(file), "old");
  {
    vfs::TransactionalIODevice unclosed(file, p::ByteStreamAccess::WriteOnly);
    unclosed.write("half", 4);
  }
  EXPECT_EQ(read(file), "old");

  vfs::TransactionalIODevice device(file, p::ByteStreamAccess::WriteOnly);
  device.write("new", 3);
  device.close(Policy::Commit);
  EXPECT_EQ(read(file), "new");

  vfs::TransactionalIODevice created(h.file(u"created"), p::ByteStreamAccess::WriteOnly);
  vfs::TransactionalIODevice moved = std::move(created);
  moved.write("c", 1);
  moved.close(Policy::Commit);
  EXPECT_EQ(read(h.file(u"created")), "c");
}

TEST_P(IODevices, AFailedCommitKeepsTheOldContentsAndCanBeRetried) {
  // A write that fails half-way never reaches the file.
  vfs::File const written = h.file(u"w");
  write(written, "data");
  h.faults->failStream(written.getLocation().toStorageIRI(), wrappers::StreamOperation::Write,
                       p::ErrorCode::NoSpaceLeft, "full", 2);
  {
    vfs::TransactionalIODevice failing(written, p::ByteStreamAccess::WriteOnly);
    EXPECT_THROW(failing.write("abcd", 4), vfs::IOWriteException);
  }
  EXPECT_EQ(read(written), "data");

  SKIP_WITHOUT(ExclusiveNames);
  vfs::File const file = h.file(u"t");
  vfs::TransactionalIODevice device(file, p::ByteStreamAccess::WriteOnly);
  device.write("data", 4);
  h.folder(u"t").createFolder(); // in the way of the commit
  EXPECT_THROW(device.close(Policy::Commit), vfs::IOCloseException);
  EXPECT_TRUE(device.is_open());
  h.folder(u"t").removeFolder(vfs::FolderRemovalPolicy::NonRecursive);
  device.close(Policy::Commit);
  EXPECT_EQ(read(file), "data");
}

INSTANTIATE_ON_EVERY_SCHEME(IODevices);

TEST(GenericTransactionalStreams, CloseOnceRetryAfterAFailureAndDiscardWhenDropped) {
  Harness h = make("mem");
  auto const location = h.at(u"g").toStorageIRI();
  std::vector<Policy> calls;
  bool failNext = false;
  auto const callback = [&](Policy const& policy) {
    calls.push_back(policy);
    if (std::exchange(failNext, false)) throw std::runtime_error("callback failed");
  };
  auto open = [&] {
    return h.counts->openStream(location, {p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing,
                                           p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  };

  std::unique_ptr<p::ByteStream> plain = open();
  p::ByteStream* raw = plain.get();
  p::GenericTransactionalStream<p::ByteStream> stream(plain, callback);
  EXPECT_EQ(plain, nullptr);
  EXPECT_EQ(stream.getByteStream(), raw);
  stream.write("abc", 3);
  stream.seek(0, std::ios_base::beg);
  char buffer[3];
  EXPECT_EQ(stream.read(buffer, 3), 3);
  failNext = true;
  EXPECT_THROW(stream.close(Policy::Commit), std::runtime_error);
  EXPECT_TRUE(raw->isClosed());
  EXPECT_FALSE(stream.isClosed());
  stream.close(Policy::Commit);  // retried: the callback runs again
  stream.close(Policy::Discard); // and only once more
  EXPECT_EQ(calls, (std::vector<Policy>{Policy::Commit, Policy::Commit}));

  calls.clear();
  {
    std::unique_ptr<p::ByteStream> dropped = open();
    failNext = true; // a failure while discarding on destruction is swallowed
    p::GenericTransactionalStream<p::ByteStream> unclosed(dropped, callback);
  }
  EXPECT_EQ(calls, (std::vector<Policy>{Policy::Discard}));

  std::unique_ptr<p::ByteStream> noCallback = open();
  p::GenericTransactionalStream<p::ByteStream> empty(noCallback, {});
  EXPECT_THROW(empty.close(Policy::Commit), std::bad_function_call);
}
