// SPDX-License-Identifier: GPL-2.0-only
// libclamav's start, and its engines.
#pragma once

#include <memory>
#include <string>

struct cl_engine;

namespace clamav_engine {

/// One engine of libclamav, loaded and compiled: immutable, so that any number of threads scan with
/// it at once. A full set of databases takes over a gigabyte and many seconds.
using Engine = std::shared_ptr<const cl_engine>;

/// Initialises libclamav, once for the life of the process however often it is called.
/// The first call comes before any other thread uses libclamav.
/// @return whether libclamav is usable.
bool start_libclamav();

/// Loads all databases in `folder` that libclamav reads, and compiles them. What has the name of a
/// database must be a regular file or a link to one: libclamav never comes back from others.
/// @return null when the folder cannot be read, holds no signature, or one of its databases does
///         not load.
Engine load_databases(const std::string& folder);

}  // namespace clamav_engine
