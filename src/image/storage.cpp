#include "image/storage.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "image/xdib_testing.h"

#if defined(__SANITIZE_ADDRESS__)
#define ORLIMO_RECYCLE_STORAGE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORLIMO_RECYCLE_STORAGE 0
#endif
#endif
#ifndef ORLIMO_RECYCLE_STORAGE
// Under AddressSanitizer every block is really freed, so that a use after free stays visible.
#define ORLIMO_RECYCLE_STORAGE 1
#endif

namespace {

// Blocks below this are cheap to get from the allocator and aren't kept.
constexpr size_t kMinKept = size_t(256) << 10;
constexpr size_t kMaxKeptBlocks = 3;
constexpr size_t kMaxKeptBytes = size_t(128) << 20;

std::atomic<uint64_t> gAllocationLimit{0};

struct Spare {
    uint8_t* block;
    size_t bytes;
};

// Guards the kept blocks; never held while memory is cleared or freed to the system.
std::mutex gLock;
std::vector<Spare> gSpare;  // oldest first
size_t gSpareBytes = 0;

// The smallest kept block that holds `bytes` without wasting more than half again as much.
uint8_t* TakeSpare(size_t bytes, size_t& blockBytes) {
    std::lock_guard hold(gLock);
    size_t best = gSpare.size();
    for (size_t i = 0; i < gSpare.size(); ++i) {
        const size_t n = gSpare[i].bytes;
        if (n >= bytes && n - bytes <= bytes / 2 &&
            (best == gSpare.size() || n < gSpare[best].bytes))
            best = i;
    }
    if (best == gSpare.size()) return nullptr;
    uint8_t* block = gSpare[best].block;
    blockBytes = gSpare[best].bytes;
    gSpareBytes -= blockBytes;
    gSpare.erase(gSpare.begin() + std::ptrdiff_t(best));
    return block;
}

}  // namespace

namespace xdib_testing {
void SetAllocationLimit(uint64_t bytes) {
    gAllocationLimit.store(bytes);
}
}  // namespace xdib_testing

namespace xdib_storage {

uint8_t* Acquire(size_t bytes, bool zeroed, size_t& blockBytes) {
    const uint64_t limit = gAllocationLimit.load(std::memory_order_relaxed);
    if (limit != 0 && bytes > limit) return nullptr;
    const size_t total = bytes + kSlack;
    if (ORLIMO_RECYCLE_STORAGE && total >= kMinKept) {
        if (uint8_t* block = TakeSpare(total, blockBytes)) {
            if (zeroed) std::memset(block, 0, bytes);
            return block;
        }
    }
    blockBytes = total;
    // A fresh large block comes zeroed from the system at no cost; calloc knows when.
    return static_cast<uint8_t*>(zeroed ? std::calloc(1, total) : std::malloc(total));
}

void Release(uint8_t* block, size_t blockBytes) {
    if (!block) return;
    if (!ORLIMO_RECYCLE_STORAGE || blockBytes < kMinKept || blockBytes > kMaxKeptBytes) {
        std::free(block);
        return;
    }
    std::vector<uint8_t*> evicted;
    {
        std::lock_guard hold(gLock);
        gSpare.push_back({block, blockBytes});
        gSpareBytes += blockBytes;
        while (gSpare.size() > kMaxKeptBlocks || gSpareBytes > kMaxKeptBytes) {
            evicted.push_back(gSpare.front().block);
            gSpareBytes -= gSpare.front().bytes;
            gSpare.erase(gSpare.begin());
        }
    }
    for (uint8_t* old : evicted) std::free(old);
}

void TrimSpare() {
    std::vector<Spare> spare;
    {
        std::lock_guard hold(gLock);
        spare.swap(gSpare);
        gSpareBytes = 0;
    }
    for (const Spare& s : spare) std::free(s.block);
}

}  // namespace xdib_storage
