#include "estimation/GZLPassWorker.h"

GZLPassWorker::~GZLPassWorker() {
  if (!fThread.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fbStop = true;
  }
  fWake.notify_one();
  fThread.join();
}

bool GZLPassWorker::Start() noexcept {
  if (fThread.joinable()) return true;
  try {
    fThread = std::thread([this] { Loop(); });
  } catch (...) {
    return false;
  }
  return true;
}

void GZLPassWorker::Post(Task task, void* context) {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fTask = task;
    fContext = context;
    fbBusy = true;
  }
  fWake.notify_one();
}

void GZLPassWorker::Wait() {
  std::unique_lock<std::mutex> lock(fMutex);
  fDone.wait(lock, [this] { return !fbBusy; });
}

void GZLPassWorker::Loop() {
  std::unique_lock<std::mutex> lock(fMutex);
  for (;;) {
    fWake.wait(lock, [this] { return fbStop || fTask != nullptr; });
    if (fTask == nullptr) return;  // stopping, nothing left to run
    const Task task = fTask;
    void* context = fContext;
    fTask = nullptr;
    lock.unlock();
    task(context);
    lock.lock();
    fbBusy = false;
    fDone.notify_one();
  }
}
