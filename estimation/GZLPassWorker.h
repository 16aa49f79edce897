#pragma once
// A second thread kept for the data passes of one model: started at the first pass that wants
// it, parked between passes, stopped and joined with its owner. The owner hands it one task per
// pass (a function and its context: no allocation) and waits for it at the end of the pass.
#include <condition_variable>
#include <mutex>
#include <thread>

class GZLPassWorker {
 public:
  using Task = void (*)(void* context);

  GZLPassWorker() = default;
  ~GZLPassWorker();
  GZLPassWorker(const GZLPassWorker&) = delete;
  GZLPassWorker& operator=(const GZLPassWorker&) = delete;

  // Starts the thread when it is not running; false when the system refuses one.
  bool Start() noexcept;
  bool IsRunning() const noexcept { return fThread.joinable(); }

  // Runs task(context) on the worker thread; returns at once. One task at a time: the previous
  // one must have been waited for.
  void Post(Task task, void* context);
  // Returns when the posted task has finished; everything it wrote is then visible here.
  void Wait();

 private:
  void Loop();

  std::thread fThread;
  std::mutex fMutex;
  std::condition_variable fWake;
  std::condition_variable fDone;
  Task fTask = nullptr;
  void* fContext = nullptr;
  bool fbBusy = false;
  bool fbStop = false;
};
