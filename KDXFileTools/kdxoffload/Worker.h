#pragma once

namespace kdxoffload {

// The first argument of the program when it is started as a worker.
inline constexpr const char* workerArgument = "--worker";

// The descriptors that are open in a worker, apart from the standard ones.
inline constexpr int ordersDescriptor = 3;   // reads: WorkerSetup, then JobOrders one after the other
inline constexpr int resultsDescriptor = 4;  // writes: one JobResult for each

// Runs a worker: does one order after the other and answers each, until the pipe with the orders is closed (status 0). A job
// that ends its process ends the worker, with the job's status and without an answer.
[[noreturn]] void runWorker();

}  // namespace kdxoffload
