// What a check has to say, for people and for machines.
#pragma once

#include <iosfwd>
#include <string>

#include "commands_check.h"
#include "config_check.h"

struct CheckResult {
  std::string config_file;
  std::string commands_file;
  bool has_commands_file = true;
  ConfigCheck config;
  CommandsCheck commands;

  bool clean() const { return config.findings.empty() && commands.findings.empty(); }
};

/// Text with names made printable and cut, or one JSON object: there values are as the files have
/// them, but for bytes that are no UTF-8, which are replaced.
void write_result(const CheckResult& result, bool json, std::ostream& out);
