// What the process sets up before it may hold other processes' opens.
#pragma once

/// Makes the process fit to answer the kernel, whatever environment it was started in:
///  - every file and directory gets the mode that it is made with, the log before detaching, too;
///  - missing standard streams are opened on /dev/null, so that no file of ours gets their numbers;
///  - output to a pipe, socket or terminal that nobody reads is lost instead of waited for;
///  - writing to a pipe whose reader is gone, or beyond the file size limit, is an error and does
///    not end the process;
///  - a terminal cannot stop it (Ctrl-Z), which would stop everybody who opens a file;
///  - the time zone is read now and never again, since reading it opens a file.
/// For the main thread, before anything else is opened: reading the configuration logs.
void prepare_process();

/// If a thread other than the main one calls exit(), this makes it remove the pid file and end the
/// process at once with status 1. A scan engine may call exit(), and that would destroy static
/// objects that other threads use, or wait for the calling thread itself. Objects built before this
/// call are then not destroyed.
void end_at_foreign_exit();

/// Raises the limit of open descriptors as far as the system allows; every held open needs one.
/// @param workers how many scans may run at a time, besides a folder scan
/// @return how many opens may be held at once: the limit minus 64 descriptors and 32 for each
///         worker, but at least half of the limit, and at most 16,320, which is about 70 MB of
///         event records
int raise_descriptor_limit(int workers);
