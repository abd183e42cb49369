#include "KDXFileTools/kdxoffload/WorkerPool.h"

#include <asio.hpp>

namespace kdxoffload {

struct WorkerPool::State {};

WorkerPool::WorkerPool(asio::io_context& /*context*/, Settings /*settings*/, Moved /*moved*/) {}
WorkerPool::~WorkerPool() = default;
void WorkerPool::give(const JobOrder& /*order*/, Done /*done*/) {}
std::size_t WorkerPool::running() const {
  return 0;
}
void WorkerPool::stop() {}
void WorkerPool::close() {}

}  // namespace kdxoffload
