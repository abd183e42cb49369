#pragma once

namespace kdxoffload {

// What a worker is started as: the first argument of the program.
inline constexpr const char* workerArgument = "--worker";

// The descriptors that a worker finds open beside the standard ones.
inline constexpr int ordersDescriptor = 3;   // reads: WorkerSetup, then JobOrders one after the other
inline constexpr int resultsDescriptor = 4;  // writes: one JobResult for each

// The life of a worker: does one order after the other and answers, until the pipe with the orders is closed (status 0). A
// job that ends its process ends the worker, with the job's status and without an answer.
[[noreturn]] void runWorker();

}  // namespace kdxoffload
