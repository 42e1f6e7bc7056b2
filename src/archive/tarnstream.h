// The byte streams of the archive library. Every reader takes its bytes from an ITarnInStream and
// writes entries to an ITarnOutStream; hosts that want entries in memory implement the plain
// ITarnSimpleOutStream. Streams are reference counted: a stream made with new starts with a count
// of 1 for its maker and deletes itself when the last Release brings the count to 0.
//
// Paths are UTF-8 (file names as the bytes the file system uses). Platform errors reported by
// output streams use the numbers below, so that the extract loop can tell a full disk and an
// overlong path from other failures.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

// An interface id: four 32-bit words.
struct TarnIID {
    uint32_t w[4];
    friend bool operator==(const TarnIID&, const TarnIID&) = default;
};
inline constexpr TarnIID IID_ITarnInStream{{0x065959FD, 0x466740AC, 0x95088DA3, 0x00B0155E}};
inline constexpr TarnIID IID_ITarnMultiInStream{{0x065959FD, 0x466740AC, 0x95088DA3, 0x01B0155E}};
inline constexpr TarnIID IID_ITarnOutStream{{0x065959FD, 0x466740AC, 0x95088DA3, 0x02B0155E}};
inline constexpr uint32_t kTarnNoInterface = 0x80004002;

// Platform errors that output streams report through GetLastError.
inline constexpr uint32_t kTarnPlatformDiskFull = 112;     // no space left on the device
inline constexpr uint32_t kTarnPlatformPathTooLong = 206;  // a name or path too long
// Any other failure reports the errno value plus this, so that it never equals the two above.
inline constexpr uint32_t kTarnPlatformErrnoBase = 0x20000000;

class ITarnUnknown {
public:
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;
    // Gives this object as the interface `iid` (with a reference taken) or kTarnNoInterface.
    virtual uint32_t QueryInterface(const TarnIID& iid, void** out) = 0;

protected:
    virtual ~ITarnUnknown() = default;
};

// The plain reference counter every stream class derives from, over its interface `Base`.
template <class Base>
class CTarnUnknownImp : public Base {
public:
    uint32_t AddRef() override { return nRef_.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t Release() override {
        const uint32_t left = nRef_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;  // the object owns itself: the last release ends it
        return left;
    }

private:
    std::atomic<uint32_t> nRef_{1};
};

// A counted reference held by its owner; the counterpart of AddRef/Release.
template <class T>
class TarnPtr {
public:
    TarnPtr() = default;
    // Takes over a reference the caller already holds (a fresh object, or one from
    // QueryInterface).
    static TarnPtr Adopt(T* p) {
        TarnPtr r;
        r.p_ = p;
        return r;
    }
    // Takes a new reference.
    static TarnPtr Share(T* p) {
        if (p) p->AddRef();
        return Adopt(p);
    }
    TarnPtr(const TarnPtr& o) : p_(o.p_) {
        if (p_) p_->AddRef();
    }
    TarnPtr(TarnPtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    TarnPtr& operator=(TarnPtr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }
    ~TarnPtr() { Reset(); }
    void Reset() {
        if (T* p = std::exchange(p_, nullptr)) p->Release();
    }
    T* Get() const { return p_; }
    T* operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    // Gives up the reference without releasing it.
    T* Detach() { return std::exchange(p_, nullptr); }

private:
    T* p_ = nullptr;
};

// Transforms bytes in place as they are read (decryption of a whole stream).
class ITarnStreamFilter {
public:
    virtual void Filter(uint8_t* buffer, uint32_t size) = 0;

protected:
    virtual ~ITarnStreamFilter() = default;
};

class ITarnInStream : public ITarnUnknown {
public:
    virtual bool Open(const std::string& path) = 0;
    // True only when exactly `size` bytes were read.
    virtual bool Read(void* buffer, uint32_t size) = 0;
    // True when the read didn't fail; a short *count (end of data) is no failure.
    virtual bool Read(void* buffer, uint32_t size, uint32_t* count) = 0;
    // origin 0 begin, 1 current, 2 end (offset counted back from the end). The new position.
    virtual int64_t Seek(int64_t offset, int origin) = 0;
    virtual int64_t GetPos() = 0;
    virtual int64_t GetSize() = 0;
    virtual bool Close() = 0;
    virtual bool IsEOF() = 0;
    virtual const std::string& GetFilePathName() = 0;
    // Every later Read passes its bytes through `filter` (null: none). Not owned.
    virtual void SetFilter(ITarnStreamFilter* filter) = 0;
};

// The volumes of a split archive as one stream.
class ITarnMultiInStream : public ITarnInStream {
public:
    // Whether a read stepped into another volume since the last call; clears the flag.
    virtual bool IsVolumeChanged() = 0;
    // The path of the volume being read; null past the end.
    virtual const char* GetCurrentVolumePath() = 0;
    // The sum of the raw sizes of the volumes before `volume`; 0 for 0 and out of range.
    virtual int64_t GetVolumeOffset(uint32_t volume) = 0;
};

class ITarnOutStream : public ITarnUnknown {
public:
    // Creates the file; on failure *platformError tells why.
    virtual bool Open(const std::string& path, uint32_t* platformError) = 0;
    virtual bool Write(const void* buffer, uint32_t size, uint32_t* written = nullptr) = 0;
    virtual bool Flush() = 0;
    // False when any write failed.
    virtual bool Close() = 0;
    // The size the entry will have; a stream may refuse it (a memory stream that can't hold it).
    virtual bool SetSize(int64_t size) = 0;
    // `time` seconds since 1970; `fileTimeNT` 100 ns units since 1601, may be null.
    virtual bool SetFileTime(uint32_t time, const uint64_t* fileTimeNT) = 0;
    // Bit 0 read-only, bit 1 hidden.
    virtual bool SetAttribute(uint32_t attributes) = 0;
    virtual int64_t GetWritten() = 0;
    virtual const std::string& GetFilePathName() = 0;
    virtual bool CreateFolder(const std::string& path) = 0;
    // The platform error of the failed write or open (kTarnPlatform...).
    virtual uint32_t GetLastError() = 0;
};

// What a host implements to receive entries, e.g. in memory. Not reference counted: the host
// owns it and it outlives the extract call it is given to.
class ITarnSimpleOutStream {
public:
    virtual bool Open(const char* path) = 0;  // path may be null
    virtual bool SetSize(int64_t size) = 0;
    virtual bool Write(const void* buffer, uint32_t size) = 0;
    virtual bool Close() = 0;
    virtual bool CreateFolder(const char* path) = 0;

protected:
    virtual ~ITarnSimpleOutStream() = default;
};

// Makes the input stream of an archive file: a plain buffered reader, or the joined volumes of a
// split set when the name and the first and last bytes say it is one. Null when the file can't be
// opened. The stream is positioned at 0.
TarnPtr<ITarnInStream> MakeInStream(const std::string& path);

// The output-stream factory of the extract loop: `path` is the output path (cleaned by the
// stream), `context` the factory's own, `isFolder` asks only for the folder to be made. Returns
// a stream with one reference for the caller, or null with *platformError set.
using TarnOutStreamFactory = ITarnOutStream* (*)(const std::string& path, void* context,
                                                 bool isFolder, uint32_t* platformError);

// The default factory: a buffered file writer with its own writer thread.
ITarnOutStream* MakeOutStream(const std::string& path, void* context, bool isFolder,
                              uint32_t* platformError);

// The adapter that puts a host's simple stream behind the output interface.
ITarnOutStream* MakeSimpleOutStreamAdapter(ITarnSimpleOutStream* target);
