#pragma once

#include <map>
#include <memory>

#include "platform/FileURL.h"
#include "platform/Mutex.h"
#include "platform/OperationQueue.h"

// Gives each file a serial operation queue of its own: the read-backs of one file run one after the other, those of
// different files at the same time. The key is the URL exactly as given, not its volume or directory. There is one manager
// for the process; it and its queues are never destroyed. Any thread may call it.
class KDXFileSystemOperationQueueManager {
 public:
  static KDXFileSystemOperationQueueManager& sharedOperationQueueManager();

  // Every way of obtaining a manager gives the shared one.
  static KDXFileSystemOperationQueueManager& init() { return sharedOperationQueueManager(); }

  KDXFileSystemOperationQueueManager(const KDXFileSystemOperationQueueManager&) = delete;
  KDXFileSystemOperationQueueManager& operator=(const KDXFileSystemOperationQueueManager&) = delete;

  // The queue for the URL, made at the first request.
  std::shared_ptr<platform::OperationQueue> operationQueueForURL(const platform::FileURL& file);

  // Queues the operation on the queue for the URL and returns; see OperationQueue.
  void addOperationForURL(const platform::FileURL& file, platform::Task operation);

  // Returns when every queue is empty.
  void waitUntilAllOperationQueuesAreFinished();

 private:
  KDXFileSystemOperationQueueManager() = default;

  // Unlike other locks it is held while waiting, so an operation must not ask for a queue.
  platform::RecursiveMutex _lock;
  std::map<platform::FileURL, std::shared_ptr<platform::OperationQueue>> _operationQueues KDX_GUARDED_BY(_lock);
};
