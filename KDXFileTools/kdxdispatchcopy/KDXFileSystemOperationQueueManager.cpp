#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"

#include <utility>

KDXFileSystemOperationQueueManager& KDXFileSystemOperationQueueManager::sharedOperationQueueManager() {
  // Never destroyed: operations may still run while the process ends.
  static auto* const manager = new KDXFileSystemOperationQueueManager;
  return *manager;
}

std::shared_ptr<platform::OperationQueue> KDXFileSystemOperationQueueManager::operationQueueForURL(
    const platform::FileURL& file) {
  const platform::MutexLock lock(_lock);
  std::shared_ptr<platform::OperationQueue>& queue = _operationQueues[file];
  if (!queue) {
    queue = std::make_shared<platform::OperationQueue>("read-back");
    queue->setMaxConcurrentOperationCount(1);
  }
  return queue;
}

void KDXFileSystemOperationQueueManager::addOperationForURL(const platform::FileURL& file, platform::Task operation) {
  operationQueueForURL(file)->addOperationWithBlock(std::move(operation));
}

void KDXFileSystemOperationQueueManager::waitUntilAllOperationQueuesAreFinished() {
  const platform::MutexLock lock(_lock);
  for (const auto& [file, queue] : _operationQueues) queue->waitUntilAllOperationsAreFinished();
}
