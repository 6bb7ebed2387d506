// Plays a scenario against the slice manager as the platform would: loads the
// component through its factory export, advises the recording host, serves
// the topic records ("NordaSystemTime", "Security.Info" with its per-product
// children, "PERMISSIONS.General", "TRADE.ORDERSET", "MARZIPAN.REQUEST", a
// quote record per security), ticks the system time every `tick_ms`, runs
// the timed steps on the host's thread and lets the simulated exchange work
// the orders.
//
// On the virtual clock (the default) a run is reproducible: after every host
// action the host waits until the manager's reactions have finished (record
// change events; after a quote change, the volume worker's check), and the
// clock moves only between them. `--real-time` plays the same steps on the
// wall clock.
//
// Threading: `RunScenario` (and a `Player`) is driven from one thread, which
// becomes the driver of the clock; it starts and ends every thread it uses
// (the host loop, the manager's timers and worker) before returning. The
// `on_event` callback runs on that same thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "slicehost/exchange.h"
#include "slicehost/manager_link.h"
#include "slicehost/recording_manager.h"
#include "slicehost/run_result.h"
#include "slicehost/scenario.h"
#include "slicehost/sim_host.h"

namespace tsm::sim {

struct RunOptions {
  bool real_time = false;
  // Through COM where the system has it; the factory export by choice.
  ManagerPath path = DefaultManagerPath();
  // Every event, in order, shortly after it happened (on the caller's thread).
  std::function<void(const HostEvent&)> on_event;
};

// Plays `scenario`; never throws for a well-formed scenario. Steps that
// name something unknown are skipped with a "HostStepIgnored" event.
RunResult RunScenario(const Scenario& scenario, const RunOptions& options);

// One run of a scenario: the clock, the host, its loop, the exchange and
// the manager, set up and torn down together.
class Player {
 public:
  // `settle`: wait for the manager's reactions after every host action (a
  // reproducible run); off for the benchmark.
  Player(const Scenario& scenario, bool real_time, bool settle, ManagerPath path);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // Posts the stages, the steps and (with `ticks`) the system time ticks.
  void Schedule(bool ticks);
  // Moves the virtual clock to `t_ms` since the start.
  void AdvanceTo(int64_t t_ms);
  // On the wall clock: returns when the host has played everything up to
  // the end of the scenario, calling the flush callback meanwhile.
  void WaitForTheEnd();

  SimHost& host();
  SimExchange& exchange();
  RecordingManager& proxy();
  // The parents the steps entered; read once the run has ended.
  const std::vector<ParentInfo>& parents() const;
  void set_on_flush(std::function<void()> flush);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tsm::sim
