// What the process needs of the system before it may hold other processes' opens.
#pragma once

/// Opens what is missing of the standard streams on /dev/null, so that no file of the daemon's own
/// gets their numbers. Before anything else is opened.
void open_standard_streams();

/// Makes the process fit to answer the kernel, whatever it was started with:
///  - output to a pipe, socket or terminal that nobody reads is lost instead of waited for;
///  - writing to a pipe whose reader is gone is an error, not the end;
///  - the time zone is read now and never again, since reading it opens a file.
/// For the main thread, before there are others.
void prepare_process();

/// Raises the limit of open descriptors as far as the system allows; every held open takes one.
/// @return how many opens may be held at once: 64 below the limit, and at most 16,320, which is
///         about 70 MB of event records
int raise_descriptor_limit();
