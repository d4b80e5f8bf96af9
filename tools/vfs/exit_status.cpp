#include "exit_status.hpp"

#include <vfs/exceptions.hpp>

#include <foundation/storage/provider/error_code_table.hpp>

#include <fl/i18n/i18n.hpp>

#include <cstdio>
#include <exception>
#include <new>

namespace vfs_tool {

namespace vfs = foundation::storage::vfs;

namespace {

ExitStatus statusOf(vfs::ErrorCode code) {
  switch (code) {
#define VFS_TOOL_EXIT_STATUS(name, providerValue, libraryValue, failureClass, ...)                                     \
  case vfs::ErrorCode::name: return failureClass;
    FOUNDATION_STORAGE_ERROR_CODES(VFS_TOOL_EXIT_STATUS)
#undef VFS_TOOL_EXIT_STATUS
  }
  return OtherFailure;
}

/// "ErrorCode::ResourceNotFound" without its prefix.
std::string nameOf(vfs::ErrorCode code) {
  std::string text = vfs::toString(code);
  auto const colons = text.rfind("::");
  return colons == std::string::npos ? text : text.substr(colons + 2);
}

int report(std::string const& code, std::string const& location, int status) {
  std::fprintf(stderr, "vfs: %s: %s\n", code.c_str(), location.c_str());
  return status;
}

} // namespace

std::string exitStatusHelp() {
  return "Exit status:\n"
         "  0    success\n"
         "  1    internal or unknown failure\n"
         "  2    bad arguments\n"
         "  3    not found (ResourceNotFound)\n"
         "  4    already exists (ResourceAlreadyExists, FolderNotEmpty)\n"
         "  5    not permitted (PermissionDenied, ReadOnlyProvider, ResourceInUse)\n"
         "  6    bad location (InvalidLocation, UnsupportedOperation, InvalidIRI, UnsupportedScheme)\n"
         "  7    no space (NoSpaceLeft, FileTooLarge)\n"
         "  8    input/output failure (IOError)\n"
         "  141  standard output closed by its reader\n"
         "Failures are reported on standard error as one line: vfs: <code>: <location>\n";
}

int reportCurrentFailure(std::string const& location) {
  try {
    throw;
  } catch (ToolFailure const& e) {
    return report(e.code, e.location, e.status);
  } catch (vfs::Exception const& e) {
    return report(nameOf(e.getErrorCode()), fl::i18n::to_utf8(e.getLocation().toString()), statusOf(e.getErrorCode()));
  } catch (vfs::IOException const& e) {
    return report(nameOf(e.getErrorCode()), location, statusOf(e.getErrorCode()));
  } catch (foundation::storage::provider::ByteStreamFailure const& e) {
    // The streams of File::open* are the provider's own: their failures arrive untranslated,
    // with the reason, which is worth showing.
    auto const code = vfs::getConvertedCode(e.getErrorCode());
    return report(nameOf(code) + " (" + e.what() + ")", location, statusOf(code));
  } catch (foundation::storage::provider::Exception const&) {
    try {
      vfs::handleException();
    } catch (...) {
      return reportCurrentFailure(location);
    }
  } catch (vfs::InvalidIRIException const& e) {
    return report("InvalidIRI", fl::i18n::to_utf8(e.getInvalidIRIString()), BadLocation);
  } catch (vfs::UnsupportedIRISchemeException const& e) {
    return report("UnsupportedScheme", fl::i18n::to_utf8(e.getScheme()) + ": " + location, BadLocation);
  } catch (vfs::ChangeEventsNotSupportedException const& e) {
    return report("ChangeEventsNotSupported", fl::i18n::to_utf8(e.getLocation().toString()), BadLocation);
  } catch (vfs::ChangeEventsSubscriptionException const& e) {
    return report("ChangeEventsSubscriptionFailed", fl::i18n::to_utf8(e.getLocation().toString()), OtherFailure);
  } catch (std::bad_alloc const&) {
    return report("OutOfMemory", location, OtherFailure);
  } catch (std::exception const& e) {
    return report(std::string("InternalError (") + e.what() + ")", location, OtherFailure);
  } catch (...) {
    return report("Unknown", location, OtherFailure);
  }
}

} // namespace vfs_tool
