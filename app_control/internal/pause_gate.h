// PauseGate: the handshake that lets a host thread park the scan worker
// between two entries and let it go again. Pause returns only once the worker
// stands at a check point, Resume only once it has left it, so the host's
// idea of the task state is never ahead of the worker.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tov::app_control {

struct PauseGate {
  // Asks the worker to stop at its next CheckPoint and waits, without a
  // time-out, until it is there.
  void RequestPause();
  // The worker's side: returns at once unless a pause was asked for; then
  // waits until ReleasePause.
  void CheckPoint();
  // Opens the gate and waits until every parked worker has left it. Also
  // used on teardown, where nobody may be parked.
  void ReleasePause();

  std::atomic<bool> pauseRequested{false};
  std::mutex mutex;
  std::condition_variable resumed;
  std::condition_variable arrived;
  std::uint32_t waiters = 0;
};

}  // namespace tov::app_control
