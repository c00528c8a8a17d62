// The order in which the daemon comes up and goes down.
#pragma once

/// Brings everything up: logger, filter, pid file, engine with its definitions, path lists,
/// workers, marks, service thread, first alarm. Exits the process with status -1 when the filter
/// cannot be registered; any other failure is logged and start-up goes on. From the first mark on,
/// the main thread opens no file. Loading the definitions may take half a minute; a stop during
/// that time ends the process at once with status 0.
/// @return 0
int initialize();

/// Takes everything down after the event loop has returned; held opens are let go early, by closing
/// the filter. If a thread is still busy, for example in the engine, ends the process at once with
/// status 0, so that no static object is destroyed while that thread uses it.
/// @return 0
int uninitialize();
