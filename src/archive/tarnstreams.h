// The stream classes behind the factories of tarnstream.h: the buffered file reader, the joined
// volumes of a split archive, the buffered file writer with its writer thread and the adapter to a
// host's simple stream. Readers use the interfaces; the classes are here for the factories and
// the tests.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "archive/tarnstream.h"

// The kinds of volume set that MakeInStream recognises.
enum TarnVolumeType : int {
    kTarnVolumeNone = 0,
    kTarnVolumeNumbered = 1,  // name.001, name.002, ...
    kTarnVolumeZip = 2,       // name.z01, name.z02, ..., name.zip last
    kTarnVolumeAlz = 3,       // name.alz, name.a00, name.a01, ...
    kTarnVolumeEgg = 4,       // name.vol1.egg, name.vol2.egg, ...
    kTarnVolumeRarNew = 5,    // name.part1.rar, name.part2.rar, ...
    kTarnVolumeRarOld = 6,    // name.rar, name.r00, name.r01, ...
};

// The volume type of an opened file by its last extension and its first and last bytes. The
// stream's position is left anywhere.
TarnVolumeType TarnClassifyVolumes(const std::string& path, ITarnInStream* stream);

// The name of volume `number` of a set of `type` whose given file is `path`; empty when the rule
// can't apply (a path shorter than 5 characters).
std::string TarnVolumeName(const std::string& path, TarnVolumeType type, int number);

// The output path made safe to create: `*<>?|` and `:` from the fourth character on become `_`,
// and so does white space that ends the path or a component or that directly follows a "/".
std::string TarnCleanOutputPath(std::string_view path);

// The platform error (kTarnPlatform...) of an errno value.
uint32_t TarnPlatformError(int errnoValue);

// A file read through a 64 KB read-ahead buffer.
class CTarnInFileStreamWin final : public CTarnUnknownImp<ITarnInStream> {
public:
    static constexpr uint32_t kBufferSize = 64 * 1024;

    CTarnInFileStreamWin();
    ~CTarnInFileStreamWin() override;

    uint32_t QueryInterface(const TarnIID& iid, void** out) override;
    bool Open(const std::string& path) override;
    bool Read(void* buffer, uint32_t size) override;
    bool Read(void* buffer, uint32_t size, uint32_t* count) override;
    int64_t Seek(int64_t offset, int origin) override;
    int64_t GetPos() override { return nPos; }
    int64_t GetSize() override { return nSize; }
    bool Close() override;
    bool IsEOF() override { return nPos == nSize; }
    const std::string& GetFilePathName() override { return sPath; }
    void SetFilter(ITarnStreamFilter* filter) override { pFilter = filter; }

private:
    void ClearBuffer() { nInBuffer = nReadIndex = 0; }
    // Reads up to `size` bytes from the file, repeating short reads; -1 on failure.
    int64_t ReadFile(uint8_t* to, uint32_t size);

    int fd = -1;
    std::unique_ptr<uint8_t[]> pBuffer;
    uint32_t nCapacity = kBufferSize;
    uint32_t nInBuffer = 0;   // bytes in the buffer
    uint32_t nReadIndex = 0;  // next byte to give out
    int64_t nPos = 0;         // logical position; the file's own pointer is past the buffer
    int64_t nSize = 0;
    std::string sPath;
    ITarnStreamFilter* pFilter = nullptr;
};

// The volumes of a split archive read as one stream. Later volumes may carry a head that is not
// part of the data and every volume a tail (ALZ), which reading skips.
class CTarnMultiInFileStream final : public CTarnUnknownImp<ITarnMultiInStream> {
public:
    struct Volume {
        TarnPtr<ITarnInStream> pStream;
        int64_t nRawSize = 0;
        uint32_t nHeadSkip = 0;
        uint32_t nTailSkip = 0;
    };

    CTarnMultiInFileStream() = default;
    ~CTarnMultiInFileStream() override { Close(); }

    // Takes over the opened given file of a set of `type` and finds its other volumes. False
    // when no volume could be kept.
    bool OpenSet(TarnPtr<ITarnInStream> first, TarnVolumeType type);

    uint32_t QueryInterface(const TarnIID& iid, void** out) override;
    // Opens `path` and the volumes its name and bytes call for (one volume when none).
    bool Open(const std::string& path) override;
    bool Read(void* buffer, uint32_t size) override;
    // A short count at the end of the last volume is no failure; a volume that fails is.
    bool Read(void* buffer, uint32_t size, uint32_t* count) override;
    // Origin 0 and 1; origin 2 returns 0 and moves nothing (ask GetSize instead).
    int64_t Seek(int64_t offset, int origin) override;
    int64_t GetPos() override { return nPos; }
    int64_t GetSize() override { return nSize; }
    bool Close() override;
    bool IsEOF() override { return nPos == nSize; }
    const std::string& GetFilePathName() override { return sPath; }
    void SetFilter(ITarnStreamFilter* filter) override;
    bool IsVolumeChanged() override { return std::exchange(bVolumeChanged, false); }
    const char* GetCurrentVolumePath() override;
    int64_t GetVolumeOffset(uint32_t volume) override;

    uint32_t GetVolumeCount() const { return static_cast<uint32_t>(volumes.size()); }
    TarnVolumeType GetVolumeType() const { return nType; }

private:
    bool AddVolume(TarnPtr<ITarnInStream> stream);
    // Reads up to `size` bytes; *done tells how many. False when the request was not completed.
    bool ReadCore(uint8_t* to, uint32_t size, uint32_t* done, bool* failed);

    std::vector<Volume> volumes;
    int nCurrent = -1;  // -1 before the first or past the last volume
    int64_t nPos = 0;
    int64_t nVolumePos = 0;  // inside the current volume, head included
    int64_t nSize = 0;
    bool bEnd = false;
    bool bVolumeChanged = false;
    std::string sPath;
    ITarnStreamFilter* pFilter = nullptr;
    TarnVolumeType nType = kTarnVolumeNone;
};

// A file written through a growing ring by a writer thread of its own, so that decoding and disk
// writing overlap. The stream owns the thread: Open starts it, Close stops and joins it.
class CTarnBufOutFileStream final : public CTarnUnknownImp<ITarnOutStream> {
public:
    static constexpr size_t kBlock = 64 * 1024;          // ring growth step and write block
    static constexpr size_t kPendingCeiling = 0x400000;  // Write waits above this
    static constexpr int kStallLooks = 400;              // 10 ms looks without progress
    static constexpr int kFlushLooks = 500;

    CTarnBufOutFileStream();
    ~CTarnBufOutFileStream() override;

    uint32_t QueryInterface(const TarnIID& iid, void** out) override;
    bool Open(const std::string& path, uint32_t* platformError) override;
    bool Write(const void* buffer, uint32_t size, uint32_t* written = nullptr) override;
    bool Flush() override;
    bool Close() override;
    bool SetSize(int64_t) override { return true; }
    bool SetFileTime(uint32_t time, const uint64_t* fileTimeNT) override;
    bool SetAttribute(uint32_t attributes) override;
    int64_t GetWritten() override;
    const std::string& GetFilePathName() override { return sPath; }
    bool CreateFolder(const std::string& path) override;
    uint32_t GetLastError() override { return nPlatformError.load(); }

    size_t GetRingCapacity();

private:
    // The ring; callers hold `cs`.
    void Append(const uint8_t* data, size_t size);
    bool Take(uint8_t* to, size_t size);
    size_t Pending();
    void WriterLoop();
    void WakeWriter();

    std::thread writer;  // runs between Open and Close
    bool bStop = false;
    bool bFlush = false;
    std::unique_ptr<uint8_t[]> pRing;
    size_t nCapacity = 0;
    size_t nReadIndex = 0;
    size_t nWriteIndex = 0;
    size_t nPending = 0;
    int64_t nWritten = 0;
    std::mutex cs;  // guards the ring, the counts, stop and flush; never held over file I/O
    // The wake-up hint of the writer: an auto-reset event. Every wait on it has a 10 ms limit.
    std::mutex eventLock;
    std::condition_variable event;
    bool bEventSet = false;
    std::atomic<bool> bError{false};  // written by the writer, read by the extracting thread
    std::atomic<uint32_t> nPlatformError{0};
    int fd = -1;
    std::string sPath;
    uint64_t nFileTime = 0;  // 100 ns since 1601; 0 none
};

// Puts a host's simple stream behind the output interface and counts what goes through.
class CTarnOutStream2SimpleStream final : public CTarnUnknownImp<ITarnOutStream> {
public:
    explicit CTarnOutStream2SimpleStream(ITarnSimpleOutStream* target) : pTarget(target) {}
    ~CTarnOutStream2SimpleStream() override;

    uint32_t QueryInterface(const TarnIID& iid, void** out) override;
    bool Open(const std::string& path, uint32_t* platformError) override;
    bool Write(const void* buffer, uint32_t size, uint32_t* written = nullptr) override;
    bool Flush() override { return true; }
    bool Close() override;
    bool SetSize(int64_t size) override;
    bool SetFileTime(uint32_t, const uint64_t*) override { return true; }
    bool SetAttribute(uint32_t) override { return true; }
    int64_t GetWritten() override { return nCount; }
    const std::string& GetFilePathName() override { return sPath; }
    bool CreateFolder(const std::string& path) override;
    uint32_t GetLastError() override { return 0; }

private:
    ITarnSimpleOutStream* pTarget;  // the host's; outlives this adapter
    int64_t nCount = 0;
    std::string sPath;
};
