// The status for programs.
#include "json_text.h"
#include "status_output.h"

namespace {

using Json = nlohmann::ordered_json;

Json job_json(const ListedJob& job) {
  Json json = {{"job", job.text}};
  if (job.command) {
    add_command(json, *job.command);
  }
  json["next_due"] = job.next.at ? Json(utc_time(*job.next.at)) : Json(nullptr);
  json["next_due_text"] = job.next.words;
  return json;
}

Json jobs_array(const DaemonStatus& status) {
  Json jobs = Json::array();
  for (const ListedJob& job : status.jobs) {
    jobs.push_back(job_json(job));
  }
  return jobs;
}

void add_area(Json& json, const DaemonStatus& status, const Rates& rates) {
  Json trusted = Json::array();
  for (const TrustedProcess& process : status.trusted) {
    trusted.push_back({{"pid", process.pid},
                       {"name", process.name.empty() ? Json(nullptr) : Json(process.name)}});
  }
  json["answered"] = status.counters.answered;
  json["denied"] = status.counters.denied;
  json["answered_per_second"] = rates.answered;
  json["denied_per_second"] = rates.denied;
  json["rates_over_seconds"] = rates.seconds;
  json["trusted"] = std::move(trusted);
  json["mounts"] = status.mounts;
  json["inclusions"] = status.inclusions;
  json["exclusions"] = status.exclusions;
  json["jobs"] = jobs_array(status);
}

}  // namespace

std::string status_json(const DaemonStatus& status, const Rates& rates, int indent) {
  Json json = {{"running", status.running()}};
  if (status.running()) {
    json["pid"] = status.pid;
    json["since"] = utc_time(status.process->started);
    json["uptime_seconds"] = status.now - status.process->started;
    if (status.has_area) {
      add_area(json, status, rates);
    }
    json["log"] =
        status.log ? Json{{"file", status.log->path}, {"bytes", status.log->bytes}} : Json(nullptr);
    json["log_texts_dropped"] = status.dropped_texts;
  }
  json["problems"] = status.problems;
  return json_text(json, indent);
}

std::string jobs_json(const DaemonStatus& status) {
  return json_text(jobs_array(status), 2);
}

std::string mounts_json(const DaemonStatus& status) {
  return json_text(Json(status.mounts), 2);
}
