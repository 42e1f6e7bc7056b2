// Byte sources that every decoder reads from.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

// A reference-counted byte source. A source made on the heap is destroyed by the Release that
// brings its count to zero; the image cache holds a reference while a decode is pending, so a
// caller whose wait timed out can go away safely. A source on the stack is never released.
class IXDibIO {
public:
    virtual ~IXDibIO() = default;
    // All or nothing: true only when `count` bytes were delivered.
    virtual bool Read(void* buffer, uint32_t count) = 0;
    virtual bool Write(const void* buffer, uint32_t count) = 0;
    // origin 0: from the start; 1: from the current position; 2: the position becomes the size
    // minus `offset` (the offset counts backwards and is positive). Returns the new position.
    virtual int64_t Seek(int64_t offset, int origin) = 0;
    virtual int64_t Tell() = 0;
    virtual int64_t GetSize() = 0;

    void AddRef() { nRefCount.fetch_add(1, std::memory_order_relaxed); }
    void Release() {
        if (nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

protected:
    IXDibIO() = default;
    IXDibIO(const IXDibIO&) = delete;
    IXDibIO& operator=(const IXDibIO&) = delete;

private:
    std::atomic<uint32_t> nRefCount{1};
};

// Owning handle to a heap source: one reference, released on destruction.
class XDibIOPtr {
public:
    XDibIOPtr() = default;
    explicit XDibIOPtr(IXDibIO* adopted) : p(adopted) {}  // takes over the creator's reference
    XDibIOPtr(const XDibIOPtr& o) : p(o.p) {
        if (p) p->AddRef();
    }
    XDibIOPtr(XDibIOPtr&& o) noexcept : p(std::exchange(o.p, nullptr)) {}
    XDibIOPtr& operator=(XDibIOPtr o) noexcept {
        std::swap(p, o.p);
        return *this;
    }
    ~XDibIOPtr() {
        if (p) p->Release();
    }
    IXDibIO* get() const { return p; }
    IXDibIO* operator->() const { return p; }
    IXDibIO& operator*() const { return *p; }
    explicit operator bool() const { return p != nullptr; }

private:
    IXDibIO* p = nullptr;
};

// A source over a block of memory, owned or borrowed.
class CXDibMemIO final : public IXDibIO {
public:
    // Borrows `data`; it must outlive the source.
    CXDibMemIO(const void* data, int64_t size);
    // Takes a copy of `data` that the source owns.
    static XDibIOPtr MakeCopy(const void* data, int64_t size);
    ~CXDibMemIO() override;

    bool Read(void* buffer, uint32_t count) override;
    bool Write(const void* buffer, uint32_t count) override;
    int64_t Seek(int64_t offset, int origin) override;
    int64_t Tell() override { return nPos; }
    int64_t GetSize() override { return nSize; }
    // The block itself, for decoders whose library reads best from memory it can see whole.
    const uint8_t* Data() const { return pData; }

private:
    uint8_t* pData;
    int64_t nSize;
    int64_t nPos = 0;
    bool bOwnsData = false;
};

// A buffered source over a file descriptor. Decoders mix many one-byte reads (markers, blocks)
// with reads of whole rows, so small reads are served from a 4096-byte buffer and reads of
// 4096 bytes and more bypass it.
class CXDibBuffFileIO final : public IXDibIO {
public:
    static constexpr uint32_t kBufferSize = 4096;

    CXDibBuffFileIO(int fd, bool ownsHandle);
    // Opens `path` for reading; null when it can't be opened.
    static XDibIOPtr Open(const char* path);
    ~CXDibBuffFileIO() override;

    bool Read(void* buffer, uint32_t count) override;
    bool Write(const void* buffer, uint32_t count) override;
    int64_t Seek(int64_t offset, int origin) override;
    int64_t Tell() override { return nPos; }
    int64_t GetSize() override { return nFileSize; }

    bool IsOpen() const { return hFile >= 0; }
    // The descriptor, for asking the file system about the file being read.
    int Handle() const { return hFile; }

private:
    int hFile;
    uint8_t buffer[kBufferSize];
    uint32_t nBufFill = 0;
    uint32_t nBufPos = 0;
    int64_t nPos = 0;
    int64_t nFileSize = 0;
    bool bOwnsHandle;
};
