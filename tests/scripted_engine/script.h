// What the scripted engine is told to do: by a script file for its calls, by the first lines of a
// scanned file for that scan. tests/README.md describes both languages.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace scripted {

/// What one scan reports through the event callback.
struct Detection {
  std::string name = "Test.Scripted";
  std::string archive;
  int type = 1;
  int accuracy = 1;
  int result = 6;
  int code = 1;
};

/// One thing to do, for a line of the script before the call's own work; for `fail`, instead of it.
struct Action {
  enum class Kind { fail, sleep, wait, open, exit, throw_it, detect, code };
  Kind kind = Kind::fail;
  int number = 0;            // sleep: milliseconds; exit: the status; throw: what; code: the result
  std::string path = "";     // wait, open
  Detection detection = {};  // detect
};

/// A line of the script file: an action for some of the calls of one name.
struct Rule {
  std::string call;            // "vseInit", "vseSet", ...
  std::optional<unsigned> id;  // property of vseSet and vseGet, operation of vseExec
  uint64_t first = 1;          // the calls meant, counted from 1 since vseGlobalInit
  uint64_t last = UINT64_MAX;
  Action action;
};

struct Script {
  std::vector<Rule> rules;
  std::map<unsigned, std::string> values;  // property: what vseGet gives in place of the real value
  uintptr_t handle_base = 0x1000;          // handle number N has the value handle_base + N
};

/// Reads the file named by PELO_TEST_ENGINE_SCRIPT; no variable or no file gives an empty script.
/// Lines that are not understood are recorded as "script-error".
Script read_script();

/// The directives at the head of a scanned file, in file order: its leading lines that begin with
/// '!'. Lines that are not understood are recorded as "directive-error".
std::vector<Action> read_directives(std::string_view head);

}  // namespace scripted
