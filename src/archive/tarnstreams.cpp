// The archive library's file streams: buffered reading, split volume sets, the threaded writer
// and the adapter to a host's simple stream.
#include "archive/tarnstreams.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace {

constexpr uint32_t kMaxExactRead = 0x7FFFFFFF;

// The input streams answer for ITarnInStream and, when `multi` is given, ITarnMultiInStream.
uint32_t QueryIn(ITarnInStream* self, ITarnMultiInStream* multi, const TarnIID& iid, void** out) {
    if (!out) return kTarnNoInterface;
    *out = nullptr;
    if (iid == IID_ITarnInStream) {
        *out = self;
    } else if (multi && iid == IID_ITarnMultiInStream) {
        *out = multi;
    } else {
        return kTarnNoInterface;
    }
    self->AddRef();
    return 0;
}

bool IsWhiteSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The text after the last '.', or nothing when there is no '.'.
bool LastExtension(const std::string& path, std::string_view* ext) {
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos) return false;
    *ext = std::string_view(path).substr(dot + 1);
    return true;
}

bool ExtensionIs(std::string_view ext, const char* want) {
    return ext.size() == strlen(want) && strncasecmp(ext.data(), want, ext.size()) == 0;
}

uint32_t ReadLE32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void SleepTenMs() {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace

uint32_t TarnPlatformError(int errnoValue) {
    switch (errnoValue) {
        case ENOSPC:
        case EDQUOT:
            return kTarnPlatformDiskFull;
        case ENAMETOOLONG:
            return kTarnPlatformPathTooLong;
        default:
            return kTarnPlatformErrnoBase + static_cast<uint32_t>(errnoValue);
    }
}

std::string TarnCleanOutputPath(std::string_view path) {
    std::string out(path);
    for (size_t i = 0; i < out.size(); ++i) {
        const char c = out[i];
        if (c == '*' || c == '<' || c == '>' || c == '?' || c == '|' || (c == ':' && i >= 3)) {
            out[i] = '_';
        }
    }
    // A component may neither end nor begin with white space: such names can't be opened again
    // on every system the files may travel to. Only '/' is looked at, which the loop never
    // writes, so the order of the walk makes no difference.
    for (size_t i = out.size(); i-- > 0;) {
        if (!IsWhiteSpace(out[i])) continue;
        const bool endsComponent = i + 1 == out.size() || out[i + 1] == '/';
        const bool followsSlash = i > 0 && out[i - 1] == '/';
        if (endsComponent || followsSlash) out[i] = '_';
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// CTarnInFileStreamWin

CTarnInFileStreamWin::CTarnInFileStreamWin() : pBuffer(new uint8_t[kBufferSize]) {}

CTarnInFileStreamWin::~CTarnInFileStreamWin() {
    Close();
}

uint32_t CTarnInFileStreamWin::QueryInterface(const TarnIID& iid, void** out) {
    return QueryIn(this, nullptr, iid, out);
}

bool CTarnInFileStreamWin::Open(const std::string& path) {
    Close();
    const int f = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (f < 0) return false;
    struct stat st {};
    if (fstat(f, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(f);
        return false;
    }
    posix_fadvise(f, 0, 0, POSIX_FADV_SEQUENTIAL);
    fd = f;
    nSize = st.st_size;
    nPos = 0;
    ClearBuffer();
    sPath = path;
    return true;
}

bool CTarnInFileStreamWin::Close() {
    if (fd >= 0) close(fd);
    fd = -1;
    nSize = nPos = 0;
    ClearBuffer();
    sPath.clear();
    return true;
}

int64_t CTarnInFileStreamWin::ReadFile(uint8_t* to, uint32_t size) {
    uint32_t got = 0;
    while (got < size) {
        const ssize_t n = read(fd, to + got, size - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        got += static_cast<uint32_t>(n);
    }
    return got;
}

bool CTarnInFileStreamWin::Read(void* buffer, uint32_t size) {
    if (size > kMaxExactRead) return false;
    uint32_t count = 0;
    return Read(buffer, size, &count) && count == size;
}

bool CTarnInFileStreamWin::Read(void* buffer, uint32_t size, uint32_t* count) {
    uint32_t dummy = 0;
    if (!count) count = &dummy;
    *count = 0;
    if (fd < 0 || (!buffer && size > 0)) return false;
    if (size == 0) return true;
    auto* to = static_cast<uint8_t*>(buffer);
    const uint32_t avail = nInBuffer - nReadIndex;
    if (size <= avail) {
        memcpy(to, pBuffer.get() + nReadIndex, size);
        nReadIndex += size;
        nPos += size;
        *count = size;
    } else {
        memcpy(to, pBuffer.get() + nReadIndex, avail);
        nPos += avail;
        ClearBuffer();
        const uint32_t rest = size - avail;
        uint32_t done = avail;
        if (rest < nCapacity) {
            const int64_t got = ReadFile(pBuffer.get(), nCapacity);
            if (got < 0) {
                *count = done;
                if (pFilter && done) pFilter->Filter(to, done);
                return false;
            }
            nInBuffer = static_cast<uint32_t>(got);
            const uint32_t take = std::min(rest, nInBuffer);
            memcpy(to + done, pBuffer.get(), take);
            nReadIndex = take;
            nPos += take;
            done += take;
        } else {
            // A large request goes straight to the destination; the buffer stays empty.
            const int64_t got = ReadFile(to + done, rest);
            if (got < 0) {
                nPos = lseek(fd, 0, SEEK_CUR);
                *count = done;
                if (pFilter && done) pFilter->Filter(to, done);
                return false;
            }
            done += static_cast<uint32_t>(got);
            nPos = lseek(fd, 0, SEEK_CUR);
        }
        *count = done;
    }
    if (pFilter && *count) pFilter->Filter(to, *count);
    return true;
}

int64_t CTarnInFileStreamWin::Seek(int64_t offset, int origin) {
    if (fd < 0) return -1;
    int64_t target;
    switch (origin) {
        case 0:
            target = offset;
            break;
        case 1: {
            if (offset == 0) return nPos;
            // Inside the buffered bytes only the read index moves; the file stays past them.
            const int64_t index = static_cast<int64_t>(nReadIndex) + offset;
            if (index >= 0 && index <= static_cast<int64_t>(nInBuffer)) {
                nReadIndex = static_cast<uint32_t>(index);
                nPos += offset;
                return nPos;
            }
            if (offset > 0 && nPos > INT64_MAX - offset) return -1;
            target = nPos + offset;
            break;
        }
        case 2:
            // The offset is a distance back from the end.
            if (offset < 0 && nSize > INT64_MAX + offset) return -1;
            target = nSize - offset;
            break;
        default:
            return -1;
    }
    if (target < 0) return -1;
    ClearBuffer();
    if (lseek(fd, target, SEEK_SET) < 0) {
        lseek(fd, nPos, SEEK_SET);
        return -1;
    }
    nPos = target;
    return nPos;
}

// ---------------------------------------------------------------------------------------------
// Volume sets

TarnVolumeType TarnClassifyVolumes(const std::string& path, ITarnInStream* stream) {
    std::string_view ext;
    if (!stream || !LastExtension(path, &ext)) return kTarnVolumeNone;
    if (ExtensionIs(ext, "001")) return kTarnVolumeNumbered;
    const bool zip = ExtensionIs(ext, "zip"), alz = ExtensionIs(ext, "alz");
    const bool egg = ExtensionIs(ext, "egg"), rar = ExtensionIs(ext, "rar");
    if (!zip && !alz && !egg && !rar) return kTarnVolumeNone;

    uint8_t head[22] = {}, tail[22] = {};
    uint32_t headCount = 0, tailCount = 0;
    stream->Seek(0, 0);
    if (!stream->Read(head, sizeof head, &headCount)) return kTarnVolumeNone;
    const int64_t size = stream->GetSize();
    if (size >= static_cast<int64_t>(sizeof tail) && stream->Seek(sizeof tail, 2) >= 0) {
        if (!stream->Read(tail, sizeof tail, &tailCount)) tailCount = 0;
    }
    const bool fullTail = tailCount == sizeof tail;

    if (zip) {
        // A split ZIP's last part holds only the end record; a whole archive begins with an
        // entry, and one with a comment doesn't end with the record's start.
        const bool entryFirst = headCount >= 4 && memcmp(head, "PK\3\4", 4) == 0;
        if (!entryFirst && fullTail && memcmp(tail, "PK\5\6", 4) == 0) return kTarnVolumeZip;
        return kTarnVolumeNone;
    }
    if (alz) {
        if (headCount >= 4 && memcmp(head, "ALZ\1", 4) == 0 && fullTail &&
            memcmp(tail + 18, "CLZ\3", 4) == 0) {
            return kTarnVolumeAlz;
        }
        return kTarnVolumeNone;
    }
    if (egg) {
        if (headCount >= 18 && memcmp(head, "EGGA", 4) == 0 && ReadLE32(head + 14) == 0x24F5A262) {
            return kTarnVolumeEgg;
        }
        return kTarnVolumeNone;
    }
    if (headCount >= 12 && memcmp(head, "Rar!\x1A\x07\x00", 7) == 0) {
        return (head[11] & 1) ? kTarnVolumeRarNew : kTarnVolumeRarOld;
    }
    return kTarnVolumeNone;
}

std::string TarnVolumeName(const std::string& path, TarnVolumeType type, int number) {
    if (path.size() < 5 || number < 0 || number > 999) return {};
    char part[16];
    size_t replace = 3;
    switch (type) {
        case kTarnVolumeNumbered:
            snprintf(part, sizeof part, "%03d", number);
            break;
        case kTarnVolumeZip:
        case kTarnVolumeRarOld:
            snprintf(part, sizeof part, "%c%02d", path[path.size() - 3], number);
            break;
        case kTarnVolumeAlz:
            // name.alz, name.a00 ... name.a99, name.b00 ...
            snprintf(part, sizeof part, "%c%02d", path[path.size() - 3] + number / 100,
                     number % 100);
            break;
        case kTarnVolumeEgg:
        case kTarnVolumeRarNew:
            // The digit before the extension counts; the extension keeps its own spelling, which
            // matters where names are case-sensitive.
            snprintf(part, sizeof part, "%d", number);
            return path.substr(0, path.size() - 5) + part + path.substr(path.size() - 4);
        default:
            return {};
    }
    return path.substr(0, path.size() - replace) + part;
}

uint32_t CTarnMultiInFileStream::QueryInterface(const TarnIID& iid, void** out) {
    return QueryIn(this, this, iid, out);
}

bool CTarnMultiInFileStream::Open(const std::string& path) {
    auto first = TarnPtr<ITarnInStream>::Adopt(new CTarnInFileStreamWin);
    if (!first->Open(path)) return false;
    const TarnVolumeType type = TarnClassifyVolumes(path, first.Get());
    return OpenSet(std::move(first), type);
}

bool CTarnMultiInFileStream::AddVolume(TarnPtr<ITarnInStream> stream) {
    Volume v;
    v.nRawSize = stream->GetSize();
    const bool first = volumes.empty();
    if (nType == kTarnVolumeAlz) {
        v.nHeadSkip = first ? 0 : 8;
        v.nTailSkip = 16;
    } else if (nType == kTarnVolumeEgg) {
        v.nHeadSkip = first ? 0 : 33;
    }
    // A volume too small for its skips (a damaged or hostile set) carries no data.
    v.nHeadSkip = static_cast<uint32_t>(std::min<int64_t>(v.nHeadSkip, v.nRawSize));
    v.nTailSkip = static_cast<uint32_t>(std::min<int64_t>(v.nTailSkip, v.nRawSize - v.nHeadSkip));
    stream->SetFilter(pFilter);
    nSize += v.nRawSize - v.nHeadSkip - v.nTailSkip;
    v.pStream = std::move(stream);
    volumes.push_back(std::move(v));
    return true;
}

bool CTarnMultiInFileStream::OpenSet(TarnPtr<ITarnInStream> first, TarnVolumeType type) {
    Close();
    if (!first) return false;
    nType = type;
    sPath = first->GetFilePathName();
    int firstNumber = 0;
    switch (type) {
        case kTarnVolumeNumbered:
        case kTarnVolumeEgg:
        case kTarnVolumeRarNew:
            firstNumber = 2;
            break;
        case kTarnVolumeZip:
            firstNumber = 1;
            break;
        default:
            break;
    }
    auto scan = [&] {
        if (type == kTarnVolumeNone) return;
        for (int number = firstNumber; number <= 999; ++number) {
            const std::string name = TarnVolumeName(sPath, type, number);
            if (name.empty()) return;
            struct stat st {};
            if (stat(name.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return;
            auto volume = TarnPtr<ITarnInStream>::Adopt(new CTarnInFileStreamWin);
            if (!volume->Open(name)) return;
            AddVolume(std::move(volume));
        }
    };
    if (type == kTarnVolumeZip) {
        // The .zip file is the last part of its set.
        scan();
        AddVolume(std::move(first));
    } else {
        AddVolume(std::move(first));
        scan();
    }
    if (type == kTarnVolumeAlz) {
        // Only the last volume's tail belongs to the archive: it holds the end record.
        Volume& last = volumes.back();
        nSize += last.nTailSkip;
        last.nTailSkip = 0;
    }
    Seek(0, 0);
    return true;
}

bool CTarnMultiInFileStream::Close() {
    volumes.clear();
    nCurrent = -1;
    nPos = nVolumePos = nSize = 0;
    bEnd = bVolumeChanged = false;
    sPath.clear();
    return true;
}

void CTarnMultiInFileStream::SetFilter(ITarnStreamFilter* filter) {
    pFilter = filter;
    for (Volume& v : volumes) v.pStream->SetFilter(filter);
}

const char* CTarnMultiInFileStream::GetCurrentVolumePath() {
    if (nCurrent < 0 || nCurrent >= static_cast<int>(volumes.size())) return nullptr;
    return volumes[nCurrent].pStream->GetFilePathName().c_str();
}

int64_t CTarnMultiInFileStream::GetVolumeOffset(uint32_t volume) {
    if (volume >= volumes.size()) return 0;
    int64_t offset = 0;
    for (uint32_t i = 0; i < volume; ++i) offset += volumes[i].nRawSize;
    return offset;
}

bool CTarnMultiInFileStream::ReadCore(uint8_t* to, uint32_t size, uint32_t* done, bool* failed) {
    *done = 0;
    *failed = false;
    while (*done < size) {
        if (nCurrent < 0) {
            bEnd = true;
            return false;
        }
        Volume* v = &volumes[nCurrent];
        const int64_t end = v->nRawSize - v->nTailSkip;
        const int64_t amount = std::min<int64_t>(size - *done, end - nVolumePos);
        if (amount <= 0) {
            bEnd = true;
            return false;
        }
        if (!v->pStream->Read(to + *done, static_cast<uint32_t>(amount))) {
            bEnd = true;
            *failed = true;
            return false;
        }
        *done += static_cast<uint32_t>(amount);
        nPos += amount;
        nVolumePos += amount;
        // Step on at the end of a volume, past any that carry no data.
        while (nVolumePos >= v->nRawSize - v->nTailSkip) {
            if (++nCurrent >= static_cast<int>(volumes.size())) {
                nCurrent = -1;
                bEnd = true;
                return *done == size;
            }
            v = &volumes[nCurrent];
            nVolumePos = v->nHeadSkip;
            v->pStream->Seek(nVolumePos, 0);
            bVolumeChanged = true;
        }
    }
    return true;
}

bool CTarnMultiInFileStream::Read(void* buffer, uint32_t size) {
    if (size == 0) return true;
    if (size > kMaxExactRead || !buffer) return false;
    uint32_t done = 0;
    bool failed = false;
    return ReadCore(static_cast<uint8_t*>(buffer), size, &done, &failed);
}

bool CTarnMultiInFileStream::Read(void* buffer, uint32_t size, uint32_t* count) {
    uint32_t dummy = 0;
    if (!count) count = &dummy;
    *count = 0;
    if (size == 0) return true;
    if (size > kMaxExactRead || !buffer) return false;
    bool failed = false;
    ReadCore(static_cast<uint8_t*>(buffer), size, count, &failed);
    return !failed;
}

int64_t CTarnMultiInFileStream::Seek(int64_t offset, int origin) {
    int64_t target;
    if (origin == 0) {
        target = offset;
    } else if (origin == 1) {
        if (offset > 0 && nPos > INT64_MAX - offset) return -1;
        target = nPos + offset;
    } else {
        return 0;  // from the end: not supported, readers ask GetSize
    }
    if (target < 0) return -1;
    int64_t rest = target;
    for (size_t i = 0; i < volumes.size(); ++i) {
        const Volume& v = volumes[i];
        const int64_t net = v.nRawSize - v.nHeadSkip - v.nTailSkip;
        if (rest < net) {
            nCurrent = static_cast<int>(i);
            nVolumePos = v.nHeadSkip + rest;
            v.pStream->Seek(nVolumePos, 0);
            bEnd = false;
            nPos = target;
            return nPos;
        }
        rest -= net;
    }
    bEnd = true;
    nCurrent = -1;
    if (rest != 0) return -1;
    nPos = target;
    return nPos;
}

TarnPtr<ITarnInStream> MakeInStream(const std::string& path) {
    auto file = TarnPtr<ITarnInStream>::Adopt(new CTarnInFileStreamWin);
    if (!file->Open(path)) return {};
    const TarnVolumeType type = TarnClassifyVolumes(path, file.Get());
    if (type == kTarnVolumeNone) {
        file->Seek(0, 0);
        return file;
    }
    auto set = TarnPtr<CTarnMultiInFileStream>::Adopt(new CTarnMultiInFileStream);
    if (!set->OpenSet(std::move(file), type)) return {};
    return TarnPtr<ITarnInStream>::Adopt(set.Detach());
}

// ---------------------------------------------------------------------------------------------
// CTarnBufOutFileStream

CTarnBufOutFileStream::CTarnBufOutFileStream() : pRing(new uint8_t[kBlock]), nCapacity(kBlock) {}

CTarnBufOutFileStream::~CTarnBufOutFileStream() {
    Close();
}

uint32_t CTarnBufOutFileStream::QueryInterface(const TarnIID& iid, void** out) {
    if (out && iid == IID_ITarnOutStream) {
        AddRef();
        *out = static_cast<ITarnOutStream*>(this);
        return 0;
    }
    if (out) *out = nullptr;
    return kTarnNoInterface;
}

size_t CTarnBufOutFileStream::GetRingCapacity() {
    std::lock_guard lock(cs);
    return nCapacity;
}

size_t CTarnBufOutFileStream::Pending() {
    std::lock_guard lock(cs);
    return nPending;
}

int64_t CTarnBufOutFileStream::GetWritten() {
    std::lock_guard lock(cs);
    return nWritten;
}

void CTarnBufOutFileStream::Append(const uint8_t* data, size_t size) {
    if (nCapacity - nPending <= size) {
        // Grow by whole blocks, enough for the new bytes, and lay the pending ones out from 0.
        const size_t steps = (nPending + size - nCapacity) / kBlock + 1;
        const size_t grown = nCapacity + steps * kBlock;
        std::unique_ptr<uint8_t[]> ring(new uint8_t[grown]);
        const size_t first = std::min(nPending, nCapacity - nReadIndex);
        memcpy(ring.get(), pRing.get() + nReadIndex, first);
        memcpy(ring.get() + first, pRing.get(), nPending - first);
        pRing = std::move(ring);
        nCapacity = grown;
        nReadIndex = 0;
        nWriteIndex = nPending;
    }
    const size_t first = std::min(size, nCapacity - nWriteIndex);
    memcpy(pRing.get() + nWriteIndex, data, first);
    memcpy(pRing.get(), data + first, size - first);
    nWriteIndex = (nWriteIndex + size) % nCapacity;
    nPending += size;
}

bool CTarnBufOutFileStream::Take(uint8_t* to, size_t size) {
    if (size > nPending) return false;
    const size_t first = std::min(size, nCapacity - nReadIndex);
    memcpy(to, pRing.get() + nReadIndex, first);
    memcpy(to + first, pRing.get(), size - first);
    nReadIndex = (nReadIndex + size) % nCapacity;
    nPending -= size;
    return true;
}

void CTarnBufOutFileStream::WakeWriter() {
    {
        std::lock_guard lock(eventLock);
        bEventSet = true;
    }
    event.notify_one();
}

void CTarnBufOutFileStream::WriterLoop() {
    std::unique_ptr<uint8_t[]> block(new uint8_t[kBlock]);
    for (;;) {
        size_t n = 0;
        bool last = false;
        {
            std::lock_guard lock(cs);
            if (bStop || bFlush) {
                n = std::min(nPending, kBlock);
            } else if (nPending >= kBlock) {
                n = kBlock;
            }
            if (n > 0) {
                Take(block.get(), n);
            } else if (bStop) {
                last = true;
            }
        }
        if (last) break;
        if (n == 0) {
            std::unique_lock lock(eventLock);
            event.wait_for(lock, std::chrono::milliseconds(10), [this] { return bEventSet; });
            bEventSet = false;
            continue;
        }
        if (bError) continue;  // after a failed write the rest is discarded
        size_t done = 0;
        int failure = 0;
        while (done < n) {
            const ssize_t w = write(fd, block.get() + done, n - done);
            if (w < 0) {
                if (errno == EINTR) continue;
                failure = errno;
                break;
            }
            if (w == 0) {
                failure = ENOSPC;
                break;
            }
            done += static_cast<size_t>(w);
        }
        if (failure != 0) {
            nPlatformError = TarnPlatformError(failure);
            bError = true;
        } else {
            std::lock_guard lock(cs);
            nWritten += static_cast<int64_t>(n);
        }
    }
}

bool CTarnBufOutFileStream::Open(const std::string& path, uint32_t* platformError) {
    Close();
    const std::string clean = TarnCleanOutputPath(path);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    int f = open(clean.c_str(), kFlags, 0666);
    if (f < 0) {
        // The folders of the entry may not exist yet.
        const auto parent = std::filesystem::path(clean).parent_path();
        std::error_code ec;
        if (!parent.empty()) std::filesystem::create_directories(parent, ec);
        f = open(clean.c_str(), kFlags, 0666);
    }
    if (f < 0) {
        const uint32_t error = TarnPlatformError(errno);
        nPlatformError = error;
        if (platformError) *platformError = error;
        return false;
    }
    fd = f;
    sPath = clean;
    bError = false;
    nPlatformError = 0;
    {
        std::lock_guard lock(cs);
        nWritten = 0;
        bStop = bFlush = false;
    }
    if (!writer.joinable()) writer = std::thread([this] { WriterLoop(); });
    if (platformError) *platformError = 0;
    return true;
}

bool CTarnBufOutFileStream::Write(const void* buffer, uint32_t size, uint32_t* written) {
    if (written) *written = 0;
    if (bError || fd < 0 || (!buffer && size > 0)) return false;
    size_t pending;
    {
        std::lock_guard lock(cs);
        Append(static_cast<const uint8_t*>(buffer), size);
        bFlush = false;
        pending = nPending;
    }
    WakeWriter();
    // Keep at most about 4 MB in memory; a disk that takes nothing for 400 looks has stalled.
    int unchanged = 0;
    while (pending > kPendingCeiling) {
        SleepTenMs();
        if (bError) return false;
        const size_t now = Pending();
        if (now == pending) {
            if (++unchanged >= kStallLooks) return false;
        } else {
            unchanged = 0;
            pending = now;
        }
    }
    if (written) *written = size;
    return true;
}

bool CTarnBufOutFileStream::Flush() {
    if (bError) return false;
    {
        std::lock_guard lock(cs);
        bFlush = true;
    }
    WakeWriter();
    size_t pending = Pending();
    int unchanged = 0;
    while (pending > 0) {
        SleepTenMs();
        if (bError) return false;
        const size_t now = Pending();
        if (now == pending) {
            if (++unchanged >= kFlushLooks) return false;
        } else {
            unchanged = 0;
            pending = now;
        }
    }
    return !bError;
}

bool CTarnBufOutFileStream::Close() {
    if (fd < 0) return true;
    if (writer.joinable()) {
        {
            std::lock_guard lock(cs);
            bStop = true;
        }
        WakeWriter();
        writer.join();
    }
    bool ok = !bError;
    if (ok && (nFileTime >> 32) != 0) {
        constexpr uint64_t kUnixEpoch = 116444736000000000ull;  // 1970 in 100 ns since 1601
        struct timespec times[2]{};
        times[0].tv_nsec = UTIME_OMIT;
        if (nFileTime >= kUnixEpoch) {
            const uint64_t since = nFileTime - kUnixEpoch;
            times[1].tv_sec = static_cast<time_t>(since / 10000000);
            times[1].tv_nsec = static_cast<long>(since % 10000000) * 100;
            futimens(fd, times);
        }
    }
    if (close(fd) != 0 && ok && errno != EINTR) {
        nPlatformError = TarnPlatformError(errno);
        ok = false;
    }
    fd = -1;
    sPath.clear();
    nFileTime = 0;
    bError = false;
    return ok;
}

bool CTarnBufOutFileStream::SetFileTime(uint32_t time, const uint64_t* fileTimeNT) {
    if (fileTimeNT && *fileTimeNT != 0) {
        nFileTime = *fileTimeNT;
    } else if (time != 0) {
        nFileTime = (static_cast<uint64_t>(time) + 11644473600ull) * 10000000ull;
    }
    return true;
}

bool CTarnBufOutFileStream::SetAttribute(uint32_t attributes) {
    if (sPath.empty()) return false;
    if (!(attributes & 1)) return true;  // hidden has no meaning here
    struct stat st {};
    if (stat(sPath.c_str(), &st) != 0) return false;
    return chmod(sPath.c_str(), st.st_mode & ~(S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

bool CTarnBufOutFileStream::CreateFolder(const std::string& path) {
    const std::string clean = TarnCleanOutputPath(path);
    std::error_code ec;
    std::filesystem::create_directories(clean, ec);
    if (std::filesystem::is_directory(clean)) return true;
    nPlatformError = TarnPlatformError(ec ? ec.value() : ENOTDIR);
    return false;
}

ITarnOutStream* MakeOutStream(const std::string& path, void*, bool isFolder,
                              uint32_t* platformError) {
    auto* stream = new CTarnBufOutFileStream;
    const bool ok = isFolder ? stream->CreateFolder(path) : stream->Open(path, platformError);
    if (!ok) {
        if (platformError) *platformError = stream->GetLastError();
        stream->Release();
        return nullptr;
    }
    return stream;
}

// ---------------------------------------------------------------------------------------------
// CTarnOutStream2SimpleStream

CTarnOutStream2SimpleStream::~CTarnOutStream2SimpleStream() {
    if (pTarget) pTarget->Close();
}

uint32_t CTarnOutStream2SimpleStream::QueryInterface(const TarnIID& iid, void** out) {
    if (out && iid == IID_ITarnOutStream) {
        AddRef();
        *out = static_cast<ITarnOutStream*>(this);
        return 0;
    }
    if (out) *out = nullptr;
    return kTarnNoInterface;
}

bool CTarnOutStream2SimpleStream::Open(const std::string& path, uint32_t* platformError) {
    if (platformError) *platformError = 0;
    nCount = 0;
    sPath = path;
    return pTarget && pTarget->Open(path.empty() ? nullptr : path.c_str());
}

bool CTarnOutStream2SimpleStream::Write(const void* buffer, uint32_t size, uint32_t* written) {
    if (written) *written = 0;
    if (!pTarget || !pTarget->Write(buffer, size)) return false;
    nCount += size;
    if (written) *written = size;
    return true;
}

bool CTarnOutStream2SimpleStream::Close() {
    return pTarget && pTarget->Close();
}

bool CTarnOutStream2SimpleStream::SetSize(int64_t size) {
    return pTarget && pTarget->SetSize(size);
}

bool CTarnOutStream2SimpleStream::CreateFolder(const std::string& path) {
    return pTarget && pTarget->CreateFolder(path.c_str());
}

ITarnOutStream* MakeSimpleOutStreamAdapter(ITarnSimpleOutStream* target) {
    return new CTarnOutStream2SimpleStream(target);
}
