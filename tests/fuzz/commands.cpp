// The commands file, and whether its commands are due.
#include "commandparser.h"
#include "fuzz_input.h"
#include "job_schedule.h"
#include "logger.h"

namespace {

// Whatever a file says, a job that comes back is not due again in the minute in which it ran.
void require_rest(const Command& command, std::time_t moment) {
  std::tm now{};
  require(gmtime_r(&moment, &now) != nullptr);
  (void)is_due(command, now, ConfParser::time_T(), nullptr);
  require(command.repeat == ConfParser::NO || !is_due(command, now, ConfParser::time_T(), &now));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Logger::disable_for_good();
  const InputFile input(data, size);
  CommandParser parser;
  parser.parse(input.path());
  require(parser.getCommands().size() <= size);
  for (const Command& command : parser.getCommands()) {
    require(!command.ToString().empty());
    for (const std::time_t moment :
         {0L, 951868799L, 1709251199L}) {  // the last two end a 29 February
      require_rest(command, moment);
    }
  }
  return 0;
}
