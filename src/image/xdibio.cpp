#include "image/xdibio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

// ---- CXDibMemIO ---------------------------------------------------------------------------

CXDibMemIO::CXDibMemIO(const void* data, int64_t size)
    : pData(static_cast<uint8_t*>(const_cast<void*>(data))), nSize(data ? size : 0) {}

XDibIOPtr CXDibMemIO::MakeCopy(const void* data, int64_t size) {
    if (size < 0) return {};
    void* copy = std::malloc(size > 0 ? static_cast<size_t>(size) : 1);
    if (!copy) return {};
    if (size > 0) std::memcpy(copy, data, static_cast<size_t>(size));
    auto* io = new CXDibMemIO(copy, size);  // released through the reference count
    io->bOwnsData = true;
    return XDibIOPtr(io);
}

CXDibMemIO::~CXDibMemIO() {
    if (bOwnsData) std::free(pData);
}

bool CXDibMemIO::Read(void* buffer, uint32_t count) {
    // A negative position (a Seek may leave one) reads nothing rather than memory before the
    // block.
    if (nPos < 0 || nPos + int64_t(count) > nSize) return false;
    std::memcpy(buffer, pData + nPos, count);
    nPos += count;
    return true;
}

bool CXDibMemIO::Write(const void* buffer, uint32_t count) {
    if (nPos < 0 || nSize - nPos < int64_t(count)) return false;
    std::memcpy(pData + nPos, buffer, count);
    nPos += count;
    return true;
}

int64_t CXDibMemIO::Seek(int64_t offset, int origin) {
    if (nSize == 0) return 0;
    switch (origin) {
        case 0:
            nPos = offset;
            break;
        case 1:
            nPos += offset;
            break;
        case 2:
            nPos = nSize - offset;
            break;
        default:
            return nPos;
    }
    // Only the upper end is clamped; a negative position is reported as it stands.
    if (nPos > nSize) nPos = nSize;
    return nPos;
}

// ---- CXDibBuffFileIO ----------------------------------------------------------------------

CXDibBuffFileIO::CXDibBuffFileIO(int fd, bool ownsHandle) : hFile(fd), bOwnsHandle(ownsHandle) {
    struct stat st {};
    if (hFile >= 0 && fstat(hFile, &st) == 0) nFileSize = st.st_size;
    if (hFile >= 0) {
        const off_t pos = lseek(hFile, 0, SEEK_CUR);
        nPos = pos >= 0 ? pos : 0;
    }
}

XDibIOPtr CXDibBuffFileIO::Open(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    return XDibIOPtr(new CXDibBuffFileIO(fd, true));  // released through the reference count
}

CXDibBuffFileIO::~CXDibBuffFileIO() {
    if (bOwnsHandle && hFile >= 0) ::close(hFile);
}

namespace {

// read() until `count` bytes arrived, end of file, or an error.
int64_t ReadFully(int fd, uint8_t* out, uint64_t count) {
    uint64_t done = 0;
    while (done < count) {
        const ssize_t n = ::read(fd, out + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<uint64_t>(n);
    }
    return static_cast<int64_t>(done);
}

}  // namespace

bool CXDibBuffFileIO::Read(void* out, uint32_t count) {
    if (hFile < 0) return false;
    auto* dst = static_cast<uint8_t*>(out);
    uint32_t have = nBufFill - nBufPos;
    if (count <= have) {
        std::memcpy(dst, buffer + nBufPos, count);
        nBufPos += count;
        nPos += count;
        return true;
    }
    // Serve what the buffer holds, then empty it.
    std::memcpy(dst, buffer + nBufPos, have);
    dst += have;
    nPos += have;
    uint32_t rest = count - have;
    nBufFill = nBufPos = 0;

    if (rest >= kBufferSize) {
        // Large reads (whole rows) bypass the buffer.
        ReadFully(hFile, dst, rest);
        const off_t pos = lseek(hFile, 0, SEEK_CUR);
        const int64_t before = nPos;
        if (pos >= 0) nPos = pos;
        return nPos - before == int64_t(rest);
    }
    const int64_t got = ReadFully(hFile, buffer, kBufferSize);
    nBufFill = static_cast<uint32_t>(got);
    if (got < int64_t(rest)) {
        // Not enough left in the file: deliver nothing more and keep what was buffered.
        return false;
    }
    std::memcpy(dst, buffer, rest);
    nBufPos = rest;
    nPos += rest;
    return true;
}

bool CXDibBuffFileIO::Write(const void*, uint32_t) {
    return false;
}

int64_t CXDibBuffFileIO::Seek(int64_t offset, int origin) {
    if (hFile < 0) return 0;
    nBufFill = nBufPos = 0;
    off_t pos = -1;
    switch (origin) {
        case 0:
            pos = lseek(hFile, offset, SEEK_SET);
            break;
        case 1:
            pos = lseek(hFile, nPos + offset, SEEK_SET);
            break;
        case 2:
            pos = lseek(hFile, -offset, SEEK_END);
            break;
        default:
            break;
    }
    if (pos >= 0)
        nPos = pos;
    else
        lseek(hFile, nPos, SEEK_SET);
    return nPos;
}
