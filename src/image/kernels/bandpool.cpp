#include "image/kernels/bandpool.h"

#include <algorithm>
#include <system_error>

namespace kernels {

BandPool& BandPool::Shared() {
    static BandPool pool;
    return pool;
}

BandPool::~BandPool() {
    Stop();
}

void BandPool::Stop() {
    std::lock_guard run(runMutex);
    {
        std::lock_guard lock(mutex);
        bStop = true;
    }
    cvWork.notify_all();
    // Joined without holding `mutex`: the workers take it on their way out.
    for (std::thread& worker : workers) worker.join();
    workers.clear();
    std::lock_guard lock(mutex);
    bStop = false;
}

void BandPool::TakeBands(std::unique_lock<std::mutex>& lock) {
    while (pJob && nNext < nBands) {
        const uint32_t band = nNext++;
        const auto* job = pJob;
        lock.unlock();
        (*job)(band);
        lock.lock();
        if (++nDone == nBands) cvDone.notify_all();
    }
}

void BandPool::WorkerLoop() {
    std::unique_lock lock(mutex);
    uint64_t seen = nGeneration;
    for (;;) {
        cvWork.wait(lock, [&] { return bStop || nGeneration != seen; });
        if (bStop) return;
        seen = nGeneration;
        TakeBands(lock);
    }
}

void BandPool::Run(uint32_t bands, const std::function<void(uint32_t)>& band) {
    std::unique_lock run(runMutex, std::try_to_lock);
    if (bands <= 1 || !run.owns_lock()) {
        for (uint32_t i = 0; i < bands; ++i) band(i);
        return;
    }
    const size_t wanted = std::min<size_t>(bands - 1, kMaxWorkers);
    while (workers.size() < wanted) {
        try {
            workers.emplace_back([this] { WorkerLoop(); });
        } catch (const std::system_error&) {
            break;  // fewer helpers; the caller takes what they leave
        }
    }
    std::unique_lock lock(mutex);
    pJob = &band;
    nBands = bands;
    nNext = 0;
    nDone = 0;
    ++nGeneration;
    cvWork.notify_all();
    TakeBands(lock);
    cvDone.wait(lock, [&] { return nDone == nBands; });
    pJob = nullptr;
}

}  // namespace kernels
