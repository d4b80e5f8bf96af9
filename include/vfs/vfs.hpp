#pragma once

// Every public header of the library.

#include <vfs/absolute_iri.hpp>
#include <vfs/events.hpp>
#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>
#include <vfs/folder.hpp>
#include <vfs/provider_administration.hpp>
#include <vfs/storage_system.hpp>
