#pragma once

#include <map>
#include <memory>

#include "platform/FileURL.h"
#include "platform/Mutex.h"
#include "platform/OperationQueue.h"

// Hands out one serial operation queue per file, so that what is read back of one file comes one after the other while
// other files are read back at the same time. The key is the URL exactly as given: no volume or directory is derived
// from it. One for the process, with its queues, and never destroyed. Any thread may call it.
class KDXFileSystemOperationQueueManager {
 public:
  static KDXFileSystemOperationQueueManager& sharedOperationQueueManager();

  // Every way of obtaining a manager gives the shared one.
  static KDXFileSystemOperationQueueManager& init() { return sharedOperationQueueManager(); }

  KDXFileSystemOperationQueueManager(const KDXFileSystemOperationQueueManager&) = delete;
  KDXFileSystemOperationQueueManager& operator=(const KDXFileSystemOperationQueueManager&) = delete;

  // The queue for the URL, made at the first request. It lives as long as the process.
  std::shared_ptr<platform::OperationQueue> operationQueueForURL(const platform::FileURL& file);

  // Queues the operation on the queue for the URL and returns; see OperationQueue.
  void addOperationForURL(const platform::FileURL& file, platform::Task operation);

  // Returns when no queue has an operation left.
  void waitUntilAllOperationQueuesAreFinished();

 private:
  KDXFileSystemOperationQueueManager() = default;

  // Guards _operationQueues and, the exception to the rule, is held while waiting: an operation must not ask for a
  // queue.
  platform::RecursiveMutex _lock;
  std::map<platform::FileURL, std::shared_ptr<platform::OperationQueue>> _operationQueues KDX_GUARDED_BY(_lock);
};
