#include "command_line.h"

#include <cstdio>
#include <cstdlib>

#include "command_options.h"
#include "daemon_config.h"

int notdetach = 0;

namespace {

void print_help() {
  (void)std::fputs(
      "usage: pelowatchd <options>\n"
      "options:\n"
      "\t-h, --help \t Print help information and exit\n"
      "\t-v, --version \t Print version number and exit.\n"
      "\t-c, --config-file FILE \t Read configuration options from FILE\n"
      "\t-k, --cloudaccess-key \t Use KEY when doing cloud-based scanning\n"
      "\t-n, --attach \t Do not detach from console\n"
      "\t-l, --log-level \t Log level: 1 - error; 2 - debug; 3- trace\n",
      stdout);
}

void print_version() {
  (void)std::printf("Version: %s\n", "3.0");
}

}  // namespace

void parse_arguments(int argc, char** argv) {
  GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  int option = 0;
  while ((option = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
    switch (option) {
      case 'v':
        print_version();
        std::exit(0);
      case 'c':
        if (config.parseFile(optarg) != 0) {
          (void)std::fputs("ERROR: Unrecognized option in config file\n", stderr);
          std::exit(-1);
        }
        break;
      case 'k':
        config.CloudAccessKey = optarg;
        break;
      case 'n':
        notdetach = 1;
        break;
      case 'l':
        config.Loglevel = std::atoi(optarg);  // 0 if it is no number
        config.configure_logger();
        break;
      default:
        print_help();
        std::exit(0);
    }
  }
}
