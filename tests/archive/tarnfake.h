// Test doubles of the archive library: an input stream over bytes in memory, an output stream
// that keeps what it gets, and a tiny reader of a made-up format.
//
// The made-up format: "OL30" (so that it sniffs as the book container), a byte count of entries,
// then per entry a name length byte, the name, a 32-bit little-endian size and the data. A size of
// 0xFFFFFFFF marks a folder entry. Names beginning with "bad" make ExtractItem fail with
// TARN_ERR_CORRUPT; names beginning with "short" write one byte less than their size.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "archive/tarn.h"

class CMemInStream : public CTarnUnknownImp<ITarnInStream> {
public:
    explicit CMemInStream(std::string bytes, std::string path = "mem")
        : data_(std::move(bytes)), path_(std::move(path)) {}
    uint32_t QueryInterface(const TarnIID& iid, void** out) override {
        if (iid != IID_ITarnInStream) return kTarnNoInterface;
        AddRef();
        *out = static_cast<ITarnInStream*>(this);
        return 0;
    }
    bool Open(const std::string&) override { return true; }
    bool Read(void* buffer, uint32_t size) override {
        uint32_t n = 0;
        return Read(buffer, size, &n) && n == size;
    }
    bool Read(void* buffer, uint32_t size, uint32_t* count) override {
        const size_t left = pos_ < data_.size() ? data_.size() - pos_ : 0;
        const size_t n = std::min<size_t>(size, left);
        if (n) std::memcpy(buffer, data_.data() + pos_, n);
        pos_ += n;
        *count = static_cast<uint32_t>(n);
        return true;
    }
    int64_t Seek(int64_t offset, int origin) override {
        const int64_t base = origin == 0 ? 0 : origin == 1 ? int64_t(pos_) : int64_t(data_.size());
        const int64_t to = origin == 2 ? base - offset : base + offset;
        if (to < 0) return -1;
        pos_ = static_cast<size_t>(to);
        return to;
    }
    int64_t GetPos() override { return int64_t(pos_); }
    int64_t GetSize() override { return int64_t(data_.size()); }
    bool Close() override { return true; }
    bool IsEOF() override { return pos_ >= data_.size(); }
    const std::string& GetFilePathName() override { return path_; }
    void SetFilter(ITarnStreamFilter*) override {}

private:
    std::string data_;
    std::string path_;
    size_t pos_ = 0;
};

// Where the fake output streams put their bytes, and how they are told to fail.
struct FakeSink {
    std::map<std::string, std::string> files;  // closed outputs by path
    std::set<std::string> folders;
    std::map<std::string, uint32_t> failCreate;  // path -> platform error of the factory
    std::set<std::string> refuseSize;
    std::set<std::string> failCloseDiskFull;
    std::map<std::string, uint32_t> attributes;
    std::map<std::string, uint32_t> times;
};

class CFakeOutStream : public CTarnUnknownImp<ITarnOutStream> {
public:
    CFakeOutStream(FakeSink* sink, std::string path) : sink_(sink), path_(std::move(path)) {}
    uint32_t QueryInterface(const TarnIID& iid, void** out) override {
        if (iid != IID_ITarnOutStream) return kTarnNoInterface;
        AddRef();
        *out = static_cast<ITarnOutStream*>(this);
        return 0;
    }
    bool Open(const std::string&, uint32_t*) override { return true; }
    bool Write(const void* buffer, uint32_t size, uint32_t* written) override {
        bytes_.append(static_cast<const char*>(buffer), size);
        if (written) *written = size;
        return true;
    }
    bool Flush() override { return true; }
    bool Close() override {
        if (closed_) return ok_;
        closed_ = true;
        sink_->files[path_] = bytes_;
        ok_ = !sink_->failCloseDiskFull.count(path_);
        return ok_;
    }
    bool SetSize(int64_t) override { return !sink_->refuseSize.count(path_); }
    bool SetFileTime(uint32_t time, const uint64_t*) override {
        sink_->times[path_] = time;
        return true;
    }
    bool SetAttribute(uint32_t attributes) override {
        sink_->attributes[path_] = attributes;
        return true;
    }
    int64_t GetWritten() override { return int64_t(bytes_.size()); }
    const std::string& GetFilePathName() override { return path_; }
    bool CreateFolder(const std::string& path) override {
        sink_->folders.insert(path);
        return true;
    }
    uint32_t GetLastError() override { return ok_ ? 0 : kTarnPlatformDiskFull; }

private:
    FakeSink* sink_;
    std::string path_;
    std::string bytes_;
    bool closed_ = false;
    bool ok_ = true;
};

inline ITarnOutStream* FakeFactory(const std::string& path, void* context, bool isFolder,
                                   uint32_t* platformError) {
    auto* sink = static_cast<FakeSink*>(context);
    if (auto it = sink->failCreate.find(path); it != sink->failCreate.end()) {
        *platformError = it->second;
        return nullptr;
    }
    if (isFolder) sink->folders.insert(path);
    return new CFakeOutStream(sink, path);
}

struct FakeEntry {
    std::string name;
    std::string data;
    bool folder = false;
};

inline std::string MakeFakeArchive(const std::vector<FakeEntry>& entries) {
    std::string s = "OL30";
    s += char(entries.size());
    for (const FakeEntry& e : entries) {
        s += char(e.name.size());
        s += e.name;
        const uint32_t size = e.folder ? 0xFFFFFFFFu : uint32_t(e.data.size());
        for (int i = 0; i < 4; ++i) s += char((size >> (8 * i)) & 0xFF);
        if (!e.folder) s += e.data;
    }
    // Sniffing wants 32 bytes at least; the filler reads as a name too long for what follows.
    s.resize(std::max<size_t>(s.size(), 64), '\xFF');
    return s;
}

class CFakeReader : public CTarnExtractorImpl {
public:
    CFakeReader() { InitFormat(); }
    ~CFakeReader() override { ReleaseFormat(); }
    int nReleased = 0;
    void MarkSolid() { bSolid = true; }
    std::vector<uint32_t> solidIndices;

protected:
    bool ReadHeader() override {
        char magic[5];
        if (!pStream->Read(magic, 5) || std::memcmp(magic, "OL30", 4) != 0) {
            nLastError = TARN_ERR_NOT_THIS_FORMAT;
            return false;
        }
        for (int i = 0; i < uint8_t(magic[4]); ++i) {
            uint8_t len = 0;
            char name[256];
            uint8_t size[4];
            if (!pStream->Read(&len, 1) || !pStream->Read(name, len) || !pStream->Read(size, 4)) {
                nLastError = TARN_ERR_HEADER;
                return false;
            }
            auto item = std::make_unique<TarnFileItem>();
            if (!TarnApplyNameRule(std::string_view(name, len), nCodePage, item.get())) {
                nLastError = TARN_ERR_NAME_REJECTED;
                return false;
            }
            const uint32_t n = size[0] | size[1] << 8 | size[2] << 16 | uint32_t(size[3]) << 24;
            item->dataPos = pStream->GetPos();
            item->fileTime = 1000000 + uint32_t(i);
            item->attributes = item->fileName.starts_with("ro") ? kTarnAttrReadOnly : 0;
            if (n == 0xFFFFFFFFu) {
                item->attributes |= kTarnAttrFolder;
            } else {
                item->uncompressedSize = item->compressedSize = n;
                pStream->Seek(n, 1);
            }
            if (item->fileName.starts_with("solid")) bSolid = true;
            if (!AddItem(std::move(item))) return false;
        }
        return true;
    }
    void ReleaseFormat() override { ++nReleased; }
    void InitFormat() override {}
    bool ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) override {
        if (item->fileName.starts_with("bad")) {
            ReportError(TARN_ERR_CORRUPT, item);
            return false;
        }
        std::string data(size_t(item->uncompressedSize), '\0');
        pStream->Seek(item->dataPos, 0);
        if (!pStream->Read(data.data(), uint32_t(data.size()))) return false;
        if (item->fileName.starts_with("short")) data.pop_back();
        if (!WriteOut(out, data.data(), uint32_t(data.size()))) return false;
        return ReportProgress(item->compressedSize, int64_t(data.size()));
    }
    // Decodes every entry up to the last one asked for, as a solid reader must.
    bool ExtractSolid(const uint32_t* indices, uint32_t count, const std::string* folder) override {
        solidIndices.assign(indices, indices + count);
        uint32_t last = 0;
        for (uint32_t i = 0; i < count; ++i) last = std::max(last, indices[i] + 1);
        for (uint32_t i = 0; i < last; ++i) {
            TarnFileItem* item = fileList.Get(i);
            if (!item || item->IsFolder()) continue;
            const std::string name = TarnSafeRelativePath(item->fileNameW);
            uint32_t error = 0;
            ITarnOutStream* out =
                pfnFactory(folder ? *folder + name : name, pFactoryContext, false, &error);
            if (!out) {
                nLastError = TARN_ERR_CREATE;
                return false;
            }
            const bool ok = ExtractItem(i, item, out);
            out->Close();
            out->Release();
            if (!ok) return false;
        }
        return true;
    }
};
