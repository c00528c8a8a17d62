// The configuration file: every file is accepted, and read twice it says the same.
#include <variant>

#include "daemon_config.h"
#include "fuzz_input.h"
#include "logger.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Logger::disable_for_good();
  const InputFile input(data, size);
  GlobalConfig config;
  GlobalConfig again;
  require(config.parseFile(input.path().c_str()) == 0);
  require(again.parseFile(input.path().c_str()) == 0);
  for (const GlobalConfig::Key& key : GlobalConfig::keys()) {
    std::visit([&](auto field) { require(config.*field == again.*field); }, key.field);
  }
  return 0;
}
