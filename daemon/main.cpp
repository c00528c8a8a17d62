// pelowatchd: holds every open of a file on the watched mounts until a scan has allowed it.
#include "command_line.h"
#include "daemonize.h"
#include "filter_service.h"
#include "lifecycle.h"
#include "process_setup.h"
#include "signals.h"

int main(int argc, char** argv) {
  open_standard_streams();
  hold_signals();
  parse_arguments(argc, argv);
  (void)daemonize(notdetach);
  prepare_process();
  setsignals();
  (void)initialize();
  fsfilter::get()->loop();
  (void)uninitialize();
  return 0;
}
