// The order in which the daemon comes up and goes down.
#pragma once

/// Brings everything up: logger, filter, pid file, engine with its definitions, marks, path lists,
/// workers, service thread, first alarm. Exits the process with status -1 when the filter cannot be
/// registered; every other failure is logged and lived with. From its first mark on, the main
/// thread opens no file. A stop that comes while the definitions are being loaded, which may take
/// half a minute, ends the process with status 0 without waiting for that.
/// @return 0
int initialize();

/// Tears down in reverse, after the event loop has returned; held opens are let go early, by
/// closing the filter. Ends the process with status 0 on the spot when a thread is still busy in
/// the engine, which static objects must not vanish under.
/// @return 0
int uninitialize();
