// Detaching from the console, and the pid file. For the main thread, before the others start and
// after they have ended, unless said otherwise.
#pragma once

/// Turns the process into a background daemon unless `attached`: forks, ends the parent with
/// status 0, and gives the child a session of its own, "/" as its directory and /dev/null as its
/// standard streams. The file mode mask becomes 0 in both cases.
/// @return 0, or -1 when the fork failed and the process goes on as it was. A child that cannot
///         leave its session or directory exits with status -1.
int daemonize(int attached);

/// Creates every missing directory of a path, mode 0755. @return 0 or -1
int mkdirp(const char* path);

/// Makes the directory, in which pid files are kept from now on; before that it is "/var/run".
/// @return 0, or -1 with the directory unchanged
int set_pidfile_dir(const char* dir);

/// Writes this process's pid to NAME.pid. Fails if the file exists already, whoever wrote it.
/// @return its path, in a buffer of this module; null with errno on failure
const char* create_pidfile(const char* name);

/// Any thread, once the directory is set. @return unlink's result
int remove_pidfile(const char* name);

/// The pid in a file; 0 if there is none.
int get_pid(const char* path);
