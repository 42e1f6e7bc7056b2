// A small set of long-lived worker threads that split one piece of work into bands, so that a
// resize on every page turn doesn't start and end threads of its own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kernels {

class BandPool {
public:
    // Worker threads beyond the caller's own; the program uses at most four processors.
    static constexpr uint32_t kMaxWorkers = 3;

    BandPool() = default;
    BandPool(const BandPool&) = delete;
    BandPool& operator=(const BandPool&) = delete;
    // Stops and joins the workers.
    ~BandPool();

    // The pool the kernels share; it lives until the end of the process, which stops it.
    static BandPool& Shared();

    // Calls band(i) for every i below `bands`, on the caller's thread and up to bands - 1
    // workers, and returns when all have run. When another caller has the pool, or its threads
    // can't be made, the caller runs the remaining bands alone: the result is the same.
    void Run(uint32_t bands, const std::function<void(uint32_t)>& band);

    // Ends the workers; a later Run starts them again as needed.
    void Stop();

private:
    void WorkerLoop();
    // Takes bands of the current job until none is left; `lock` holds `mutex`.
    void TakeBands(std::unique_lock<std::mutex>& lock);

    // One job at a time. Taken with try_lock: a second caller never waits for the first.
    std::mutex runMutex;
    // Guards everything below. Never held while a band runs.
    std::mutex mutex;
    std::condition_variable cvWork;
    std::condition_variable cvDone;
    std::vector<std::thread> workers;
    const std::function<void(uint32_t)>* pJob = nullptr;
    uint32_t nBands = 0;
    uint32_t nNext = 0;
    uint32_t nDone = 0;
    uint64_t nGeneration = 0;
    bool bStop = false;
};

}  // namespace kernels
