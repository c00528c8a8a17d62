// pelowatchd: holds every open of a file on the watched mounts until a scan has allowed it.
#include "command_line.h"
#include "daemonize.h"
#include "filter_service.h"
#include "lifecycle.h"
#include "logger.h"
#include "process_setup.h"
#include "signals.h"

int main(int argc, char** argv) {
  prepare_process();
  parse_arguments(argc, argv);
  Logger::open();  // before the standard streams are gone
  hold_signals();
  (void)daemonize(notdetach);
  setsignals();
  end_at_foreign_exit();
  (void)initialize();
  end_at_foreign_exit();  // again, to run before objects built since are destroyed
  fsfilter::get()->loop();
  (void)uninitialize();
  return 0;
}
