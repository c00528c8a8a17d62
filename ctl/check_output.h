// What a check has to say, for people and for machines.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "commands_check.h"
#include "config_check.h"
#include "findings.h"

struct CheckResult {
  std::string config_file;
  std::string commands_file;
  bool has_commands_file = true;
  LoadTime loaded;
  ConfigCheck config;
  CommandsCheck commands;
};

/// Of both files.
Findings all_findings(const CheckResult& result);

/// Text with names made printable and cut.
void write_for_people(const CheckResult& result, std::ostream& out);

/// One JSON object. Values are as the files have them; bytes that are no UTF-8 are replaced.
void write_json(const CheckResult& result, std::ostream& out);
