#include "velcheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "json.h"
#include "merge.h"
#include "net/tcp.h"
#include "options.h"
#include "output.h"
#include "page.h"
#include "plan.h"
#include "plugin_text.h"
#include "progress.h"
#include "prometheus.h"
#include "report.h"
#include "run.h"
#include "util/standard_streams.h"
#include "wake_up.h"

namespace velprobe::check {
namespace {

using Clock = std::chrono::steady_clock;

// Conversations that the deadline cut get this long to tell how they stood.
constexpr auto kGrace = std::chrono::milliseconds(50);

constexpr double kLongestPacing = 86400;

Clock::duration duration_of(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds));
}

Clock::duration interval_of(const Options& options) {
  return options.rate == 0 ? Clock::duration()
                           : duration_of(1.0 / options.rate);
}

std::string host_name() {
  char name[HOST_NAME_MAX + 1] = "";
  return ::gethostname(name, sizeof name) == 0 ? name : "";
}

// The text may hold words of a file.
int complain(const std::string& text) {
  std::fprintf(stderr, "velcheck: %s\n", terminal_text(text).c_str());
  return kUnknown;
}

// The program's own bookkeeping cannot go on without memory; what it knows by
// then is lost.
[[noreturn]] void end_without_memory() {
  static_cast<void>(write_all(STDERR_FILENO, "velcheck: Out of memory\n"));
  ::_exit(kUnknown);
}

// --- Output ---------------------------------------------------------------

// Rows of --jsonl go out as they come, unless a file is to hold all of them.
struct Output {
  Format format = Format::kPlugin;
  const char* path = nullptr;
  bool failed = false;

  bool streams() const {
    return format == Format::kJsonLines && path == nullptr;
  }
};

std::string json_lines(const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) text += json_row(row) + "\n";
  return text;
}

void stream_rows(Run& run, Output& output) {
  if (!output.streams() || output.failed) return;
  if (!write_all(STDOUT_FILENO, json_lines(run.take_fresh()))) {
    output.failed = true;
  }
}

std::string text_of(const Report& report, Format format) {
  switch (format) {
    case Format::kPlugin:
      return plugin_text(report);
    case Format::kJson:
      return json_text(report);
    case Format::kJsonLines:
      return json_lines(report.rows);
    case Format::kPrometheus:
      return prometheus_text(report);
  }
  return {};
}

// Rows and metrics have no place for what is said of the whole run.
void tell_besides(const Report& report, Format format) {
  if (format == Format::kPlugin || format == Format::kJson) return;
  if (!report.error.empty()) complain(report.error);
  for (const std::string& remark : report.remarks) complain(remark);
}

int write_report(const Report& report, Output& output) {
  tell_besides(report, output.format);
  if (output.format == Format::kJsonLines && !report.error.empty() &&
      report.rows.empty()) {
    return report.status;
  }
  if (output.path != nullptr) {
    if (ErrorText error =
            replace_file(output.path, text_of(report, output.format))) {
      return complain(error.c_str());
    }
    return report.status;
  }
  if (output.failed ||
      (!output.streams() &&
       !write_all(STDOUT_FILENO, text_of(report, output.format)))) {
    return complain("cannot write the output");
  }
  return report.status;
}

// --- The run --------------------------------------------------------------

void wait_for_end(Run& run, Deadline deadline, Output& output) {
  Progress progress(deadline);
  while (!run.is_over() && !stop_wanted() && !output.failed) {
    if (is_past(deadline)) break;
    wait_for_wake_up(std::min({deadline, run.expire(), progress.due()}));
    stream_rows(run, output);
    progress.show(run.standing());
  }
}

void wait_for_stragglers(Run& run, Deadline deadline) {
  const Deadline end = deadline + kGrace;
  if (!is_past(deadline)) return;
  while (run.is_asking() && !stop_wanted() && !is_past(end)) {
    wait_for_wake_up(end);
  }
}

Report new_report(const Options& options) {
  Report report;
  report.started = std::chrono::system_clock::now();
  report.timeout = options.timeout;
  report.warning = options.warning;
  report.critical = options.critical;
  report.all_addresses = options.all_addresses;
  return report;
}

// Nothing that the run started is waited for: see Run.
void ask_all(const Options& options, Plan plan, Deadline deadline,
             Output& output, Report& report) {
  const auto run = std::make_shared<Run>(
      std::move(plan), Settings{.scan = options.scan,
                                .all_addresses = options.all_addresses,
                                .jobs = options.jobs,
                                .per_server = options.per_server,
                                .interval = interval_of(options),
                                .deadline = deadline,
                                .each = duration_of(options.each),
                                .host = host_name()});
  run->start();
  wait_for_end(*run, deadline, output);
  wait_for_stragglers(*run, deadline);
  run->close();
  stream_rows(*run, output);
  report.rows = run->rows();
  report.remarks = run->remarks();
}

// The rate alone may need this long: servers may share an address. How many a
// scan finds nobody knows yet.
double time_of_pacing(const Options& options, const Plan& plan) {
  if (options.agents_from == nullptr) return 0;
  const std::size_t num_pairs =
      plan.agents.size() * std::max<std::size_t>(plan.servers.size(), 1);
  return std::min(kLongestPacing,
                  static_cast<double>(num_pairs) / options.rate);
}

int finish(const Options& options, Report& report, Output& output) {
  judge(report);
  const int status = write_report(report, output);
  if (options.html == nullptr) return status;
  if (ErrorText error = replace_file(options.html, page_html(report))) {
    return complain(error.c_str());
  }
  return status;
}

int check(const Options& options, Clock::time_point start) {
  const Deadline deadline = start + duration_of(options.timeout);
  Output output{options.format.value_or(Format::kPlugin), options.output};
  Report report = new_report(options);
  Plan plan;
  if (ErrorText error = make_plan(options, deadline, plan)) {
    report.error = error.c_str();
  } else {
    if (plan.agents.size() == 1) {
      report.name = plan.agents.front().name;
      report.domain = plan.agents.front().domain;
    }
    const double pacing =
        options.has_timeout ? 0 : time_of_pacing(options, plan);
    report.timeout += pacing;
    ask_all(options, std::move(plan), deadline + duration_of(pacing), output,
            report);
  }
  report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return finish(options, report, output);
}

int merge(const Options& options, Clock::time_point start) {
  Output output{options.format.value_or(Format::kPlugin), options.output};
  Report report;
  report.warning = options.warning;
  report.critical = options.critical;
  merge_results(options.servers, start + duration_of(options.timeout), report);
  report.timeout = report.seconds;
  return finish(options, report, output);
}

int start(int argc, char** argv) {
  const auto started = Clock::now();
  std::set_new_handler(end_without_memory);
  // Asked before the null device takes the place of a closed stream.
  const bool has_output = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
  if (!prepare_standard_streams()) return kUnknown;
  // To write beyond the limit on file sizes is an error like a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  if (ErrorText error = start_socket_subsystem()) {
    return complain(error.c_str());
  }
  Options options;
  if (const std::optional<int> status = parse_options(argc, argv, options)) {
    return has_output ? *status : kUnknown;
  }
  if (!has_output && options.output == nullptr) {
    return complain("cannot write the output");
  }
  if (ErrorText error = watch_for_wake_ups()) return complain(error.c_str());
  return options.merge ? merge(options, started) : check(options, started);
}

}  // namespace

void run_velcheck(int argc, char** argv) {
  ::_exit(start(argc, argv));
}

}  // namespace velprobe::check
