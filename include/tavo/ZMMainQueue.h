#pragma once

/// @file
/// ZMMainQueue, the queue that most callbacks arrive on.

#include <chrono>
#include <cstddef>
#include <functional>

#include "tavo/ZMExport.h"

/// ZMMainQueue is the process's one serial "main" queue, which the host drains on its main thread.
/// Guarantee: blocks run one at a time, in FIFO order, on the thread that drains the queue.
/// Every listener callback that libtavo posts (task results, download progress, record-store
/// work) runs here, so a host that never drains the queue never hears back.
///
/// The main thread is the thread that loaded libtavo (the thread running static initialisation,
/// normally main()); a host whose user-interface thread is another one calls bindToCurrentThread()
/// from it before initRuntime. All functions are safe to call from any thread.
///
/// A host drains the queue in one of three ways: run()/stop() when libtavo owns the loop;
/// poll() from its own loop, scheduled by the wake-up hook (GLib, Qt, SDL); or
/// runUntil(predicate, timeout), which tests and command-line tools use.
class TAVO_EXPORT ZMMainQueue {
 public:
  /// A unit of work on the queue.
  using Block = std::function<void()>;

  /// Appends a block; returns at once.
  static void post(Block block);
  /// Runs the block on the main thread and waits for it: inline when called on the main thread,
  /// else posted and waited for. An exception thrown by the block is rethrown to the caller.
  /// A background caller blocks until the main thread drains the queue; a main thread that waits
  /// on that background caller deadlocks.
  static void sync(const Block& block);
  /// Whether the calling thread is the main thread.
  static bool isMainThread();
  /// Makes the calling thread the main thread.
  static void bindToCurrentThread();

  /// Runs every block queued at the time of the call (and nothing posted meanwhile); returns how
  /// many ran. Call it on the main thread.
  static std::size_t poll();
  /// Drains the queue until `done` returns true or the timeout passes; returns the last value of
  /// `done`. `done` is tested before each block and at least every 5 ms while the queue is idle,
  /// so it sees state that another thread sets (the exit callbacks arrive on the engine's
  /// thread) without a post; runUntil adds no synchronisation, so such state must be atomic or
  /// guarded by a lock.
  static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  /// Drains the queue until stop() is called.
  static void run();
  /// Makes run() return after its current block; safe from any thread.
  static void stop();

  /// Called on the posting thread after each post(), so that a host loop can schedule poll().
  /// Pass nullptr to remove it.
  static void setWakeupHook(std::function<void()> hook);
};
