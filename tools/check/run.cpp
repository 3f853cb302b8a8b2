#include "run.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

#include "descriptors.h"
#include "joined.h"
#include "net/resolver.h"
#include "wake_up.h"

namespace velprobe::check {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostLookUps = 64;

double seconds_of(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

Clock::duration duration_of(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds));
}

std::string scan_remark(std::string_view interface, std::string_view what) {
  return joined({"scan on ", interface, ": ", what});
}

}  // namespace

Run::Run(Plan plan, const Settings& settings)
    : plan_(std::move(plan)), settings_(settings) {}

// --- From servers to jobs -------------------------------------------------

void Run::start() {
  const auto self = shared_from_this();
  const std::lock_guard lock(mutex_);
  const AtOnce at_once =
      fit_descriptors({settings_.jobs, std::min(settings_.jobs, kMostLookUps)});
  pool_ = std::make_shared<Pool>(
      at_once.jobs, settings_.per_server,
      [self](std::size_t job) { self->ask(job); }, settings_.interval);
  look_ups_ =
      std::make_shared<LookUps>(at_once.look_ups, settings_.each,
                                [self](std::size_t name, const Found& found) {
                                  self->take_found(name, found);
                                });
  for (std::size_t i = 0; i < plan_.servers.size(); ++i) add_jobs(i);
  if (!settings_.scan) return;
  std::set<std::string> unscanned;
  scans_ = start_scans(
      plan_.port,
      [self](const Scanned& scanned) { self->take_scanned(scanned); },
      unscanned);
  for (const std::string& interface : unscanned) {
    remarks_.push_back(scan_remark(interface, kNoThread));
  }
}

void Run::add_jobs(std::size_t server) {
  first_job_.push_back(jobs_.size());
  for (std::size_t i = 0; i < plan_.agents.size(); ++i) add_job(server, i, 0);
  find_address(server);
}

Run::Job& Run::add_job(std::size_t server, std::size_t agent,
                       std::size_t position) {
  Job& job = jobs_.emplace_back();
  job.server = server;
  job.agent = agent;
  job.position = position;
  job.row.agent = plan_.agents[agent].name;
  job.row.is_named = !job.row.agent.empty();
  job.row.domain = plan_.agents[agent].domain;
  job.row.host = settings_.host;
  job.row.server = plan_.servers[server].name;
  job.row.port = plan_.servers[server].port;
  job.row.source = plan_.servers[server].source;
  return job;
}

// find_address looks a name up once, however many servers go by it.
void Run::find_address(std::size_t server) {
  const std::string& name = plan_.servers[server].name;
  Ipv4Address address{};
  if (is_dotted(name, address)) {
    take_addresses(server, {.addresses = {address}});
    return;
  }
  const auto [known, is_new] =
      number_of_name_.emplace(name, servers_of_name_.size());
  if (!is_new) {
    servers_of_name_[known->second].push_back(server);
    return;
  }
  servers_of_name_.push_back({server});
  if (!look_ups_->add(known->second, name)) {
    take_addresses(server, {.failure = kNoThread});
  }
}

void Run::take_found(std::size_t name, const Found& found) {
  const std::lock_guard lock(mutex_);
  if (closed_) return;
  for (const std::size_t server : servers_of_name_[name]) {
    take_addresses(server, found);
  }
}

void Run::take_addresses(std::size_t server, const Found& found) {
  const std::size_t num_agents = plan_.agents.size();
  for (std::size_t agent = 0; agent < num_agents; ++agent) {
    const std::size_t job = first_job_[server] + agent;
    if (found.addresses.empty()) {
      jobs_[job].spent = duration_of(found.seconds);
      settle(jobs_[job],
             found.timed_out ? Result::kTimeout : Result::kUnresolved,
             found.failure.c_str());
      continue;
    }
    queue(job, found.addresses.front(), found.seconds);
  }
  if (!settings_.all_addresses) return;
  for (std::size_t i = 1; i < found.addresses.size(); ++i) {
    for (std::size_t agent = 0; agent < num_agents; ++agent) {
      add_job(server, agent, i);
      queue(jobs_.size() - 1, found.addresses[i], found.seconds);
    }
  }
}

void Run::take_scanned(const Scanned& scanned) {
  const std::lock_guard lock(mutex_);
  if (closed_) return;
  scans_.erase(scanned.interface);
  if (!scanned.failure.empty()) {
    remarks_.push_back(scan_remark(scanned.interface, scanned.failure));
  }
  for (const std::string& address : scanned.servers) {
    const auto is_asked = [&](const Job& job) {
      return job.row.address == address && job.row.port == plan_.port;
    };
    if (std::any_of(jobs_.begin(), jobs_.end(), is_asked)) continue;
    if (add_server(plan_, {address, plan_.port, Source::kScan})) {
      add_jobs(plan_.servers.size() - 1);
    }
  }
  wake_up();
}

// --- From jobs to rows ----------------------------------------------------

void Run::queue(std::size_t number, const Ipv4Address& address,
                double seconds) {
  Job& job = jobs_[number];
  job.address = address;
  job.row.address = address_text(address);
  job.spent = duration_of(seconds);
  job.state = State::kQueued;
  if (!pool_->add(number, address)) {
    settle(job, Result::kUnreachable, kNoThread);
  }
}

void Run::ask(std::size_t number) {
  std::unique_lock lock(mutex_);
  Job& job = jobs_[number];
  if (closed_ || job.state != State::kQueued) return;
  job.asked = Clock::now();
  if (job.asked >= settings_.deadline) {
    settle(job, Result::kTimeout, kNotAsked);
    return;
  }
  job.state = State::kAsking;
  ++num_asked_;
  ++num_asking_;
  // The time of the look-up counts.
  const Deadline own = job.asked + (settings_.each - job.spent);
  lock.unlock();

  ProbeResult probed;
  const ErrorText error =
      probe_server(job.row.server.c_str(), job.row.port,
                   {.agent_name = job.row.agent.c_str(),
                    .agent_domain = job.row.domain.c_str(),
                    .address = &job.address,
                    .deadline = std::min(own, settings_.deadline)},
                   probed);

  lock.lock();
  if (closed_) return;
  --num_asking_;
  if (probed.agent_address_text) {
    job.row.agent = probed.agent_address_text.get();
  }
  if (probed.has_offer) job.row.offered_version = probed.offered_version;
  settle(job, result_of(probed.failure), error.c_str());
}

void Run::settle(Job& job, Result result, const char* text) {
  Clock::duration spent = job.spent;
  if (job.state == State::kAsking) spent += Clock::now() - job.asked;
  job.state = State::kDone;
  job.row.result = result;
  if (text != nullptr) job.row.text = text;
  job.row.seconds = seconds_of(spent);
  job.row.time = std::chrono::system_clock::now();
  fresh_.push_back(&job);
  ++num_done_;
  wake_up();
}

const char* Run::text_of_unknown(const Job& job) const {
  if (stop_wanted()) return kInterrupted;
  switch (job.state) {
    case State::kLookingUp:
      return kLookUpTimedOut;
    case State::kQueued:
      return kNotAsked;
    default:
      return kNoAnswerInTime;
  }
}

// --- The run as the main thread sees it -----------------------------------

bool Run::is_over() {
  const std::lock_guard lock(mutex_);
  return num_done_ == jobs_.size() && scans_.empty();
}

bool Run::is_asking() {
  const std::lock_guard lock(mutex_);
  return num_asking_ > 0;
}

Standing Run::standing() {
  const std::lock_guard lock(mutex_);
  return {jobs_.size(), num_asked_, num_done_};
}

std::vector<Row> Run::take_fresh() {
  const std::lock_guard lock(mutex_);
  std::vector<Row> rows;
  for (const Job* job : fresh_) rows.push_back(job->row);
  fresh_.clear();
  return rows;
}

void Run::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  for (Job& job : jobs_) {
    if (job.state != State::kDone) {
      settle(job, Result::kTimeout, text_of_unknown(job));
    }
  }
  for (const std::string& interface : scans_) {
    remarks_.push_back(scan_remark(interface, "not finished in time"));
  }
}

std::vector<Row> Run::rows() {
  const std::lock_guard lock(mutex_);
  std::vector<const Job*> order;
  for (const Job& job : jobs_) order.push_back(&job);
  std::sort(order.begin(), order.end(), [](const Job* one, const Job* other) {
    return std::tie(one->server, one->position, one->agent) <
           std::tie(other->server, other->position, other->agent);
  });
  std::vector<Row> rows;
  rows.reserve(order.size());
  for (const Job* job : order) rows.push_back(job->row);
  return rows;
}

std::vector<std::string> Run::remarks() {
  const std::lock_guard lock(mutex_);
  return remarks_;
}

}  // namespace velprobe::check
