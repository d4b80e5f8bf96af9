#pragma once

// Every public header of the library.

#include <vfs/absolute_iri.hpp>
#include <vfs/buffered_io_device.hpp>
#include <vfs/entries.hpp>
#include <vfs/events.hpp>
#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>
#include <vfs/folder.hpp>
#include <vfs/fstream.hpp>
#include <vfs/generic_transactional_stream.hpp>
#include <vfs/io_device.hpp>
#include <vfs/listing.hpp>
#include <vfs/open_mode.hpp>
#include <vfs/posix_file.hpp>
#include <vfs/provider_administration.hpp>
#include <vfs/storage_system.hpp>
#include <vfs/walk.hpp>
