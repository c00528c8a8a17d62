// Which mounts are served by another process or over a network.
//
// Opening a file there makes the kernel wait for the server, which may be any process of this
// machine and may itself open what we watch. Such a mount must not share a notification group, or a
// thread, with the files that its server needs.
#pragma once

#include <list>
#include <string>

#include "mountpt.h"

/// Whether looking up this directory, or opening a file of the mount that it leads to, may wait for
/// a server. That is so if a mount on the directory or above it has a type that the kernel is not
/// known to serve by itself, or is an overlay with a layer on such a mount or with unknown layers.
/// @param table the whole mount table
bool is_served(const std::string& directory, const std::list<mntinfo>& table);
