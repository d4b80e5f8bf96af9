#pragma once

// Every public header of the library.

#include <vfs/absolute_iri.hpp>
#include <vfs/entries.hpp>
#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>
#include <vfs/folder.hpp>
#include <vfs/listing.hpp>
#include <vfs/storage_system.hpp>
