#include "app_control/internal/pause_gate.h"

namespace tov::app_control {

void PauseGate::RequestPause() {
  pauseRequested.store(true);
  std::unique_lock lock(mutex);
  arrived.wait(lock, [this] { return waiters != 0; });
}

void PauseGate::CheckPoint() {
  if (!pauseRequested.load()) return;
  std::unique_lock lock(mutex);
  ++waiters;
  arrived.notify_all();
  resumed.wait(lock, [this] { return !pauseRequested.load(); });
  --waiters;
  arrived.notify_all();
}

void PauseGate::ReleasePause() {
  std::unique_lock lock(mutex);
  pauseRequested.store(false);
  if (waiters != 0) {
    resumed.notify_all();
    arrived.wait(lock, [this] { return waiters == 0; });
  }
}

}  // namespace tov::app_control
