// Keeps a test run away from the machine it runs on. The daemon marks every mount it sees and holds
// every open on them, so it only ever runs in mount and process namespaces made for one test
// process; when that process ends, whatever the reason, everything in them ends with it.
#pragma once

#include <functional>
#include <string>

namespace e2e {

/// Runs `body` in a child process that is the first process of its own pid namespace, in a mount
/// namespace of its own, with a folder of its own (`base_folder()`).
/// Ends the calling process with the result of `body`, or 1 when the child ended otherwise; returns
/// it only where `missing_privilege()` keeps the namespaces from being made.
int run_isolated(const std::function<int()>& body);

/// Why end-to-end tests cannot run here (no root, no permission events); empty when they can.
/// Known inside `run_isolated` only.
const std::string& missing_privilege();

/// An empty folder that only this test process uses.
const std::string& base_folder();

}  // namespace e2e
