// Shared pieces of the archive reader fuzz targets: the input as a stream in memory, and an output
// that takes everything up to a ceiling and forgets it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "archive/tarn.h"

class FuzzInStream final : public CTarnUnknownImp<ITarnInStream> {
public:
    FuzzInStream(const uint8_t* data, size_t size, std::string path)
        : data_(data), size_(static_cast<int64_t>(size)), path_(std::move(path)) {}
    uint32_t QueryInterface(const TarnIID& iid, void** out) override {
        if (iid != IID_ITarnInStream) return kTarnNoInterface;
        AddRef();
        *out = static_cast<ITarnInStream*>(this);
        return 0;
    }
    bool Open(const std::string&) override { return false; }
    bool Read(void* buffer, uint32_t size) override {
        uint32_t count = 0;
        return Read(buffer, size, &count) && count == size;
    }
    bool Read(void* buffer, uint32_t size, uint32_t* count) override {
        const int64_t n = std::clamp<int64_t>(size_ - pos_, 0, size);
        if (n > 0) memcpy(buffer, data_ + pos_, static_cast<size_t>(n));
        pos_ += n;
        *count = static_cast<uint32_t>(n);
        return true;
    }
    int64_t Seek(int64_t offset, int origin) override {
        const int64_t target = origin == 0 ? offset : origin == 1 ? pos_ + offset : size_ - offset;
        if (target < 0) return -1;
        return pos_ = target;
    }
    int64_t GetPos() override { return pos_; }
    int64_t GetSize() override { return size_; }
    bool Close() override { return true; }
    bool IsEOF() override { return pos_ == size_; }
    const std::string& GetFilePathName() override { return path_; }
    void SetFilter(ITarnStreamFilter*) override {}

private:
    const uint8_t* data_;
    int64_t size_;
    int64_t pos_ = 0;
    std::string path_;
};

// Takes at most 8 MiB an entry, so that a small bomb ends quickly.
class FuzzSink final : public ITarnSimpleOutStream {
public:
    bool Open(const char*) override {
        taken_ = 0;
        return true;
    }
    bool SetSize(int64_t) override { return true; }
    bool Write(const void* buffer, uint32_t size) override {
        if (size > 0) last_ = static_cast<const uint8_t*>(buffer)[size - 1];
        taken_ += size;
        return taken_ <= (8u << 20);
    }
    bool Close() override { return true; }
    bool CreateFolder(const char*) override { return true; }

private:
    uint64_t taken_ = 0;
    volatile uint8_t last_ = 0;
};

inline ITarnOutStream* FuzzOutFactory(const std::string& path, void* context, bool,
                                      uint32_t* platformError) {
    ITarnOutStream* out = MakeSimpleOutStreamAdapter(static_cast<FuzzSink*>(context));
    out->Open(path, platformError);
    return out;
}

// Opens `data` with `reader` under `path` and extracts everything it listed.
inline void FuzzExtractor(CTarnExtractorImpl& reader, const uint8_t* data, size_t size,
                          const char* path) {
    FuzzSink sink;
    reader.SetOutStreamFactory(&FuzzOutFactory, &sink);
    auto stream = TarnPtr<ITarnInStream>::Adopt(new FuzzInStream(data, size, path));
    reader.Open(stream.Get(), 0);
    stream.Reset();
    if (reader.GetFileList()->GetCount() > 0) reader.ExtractAll(nullptr);
    reader.Close();
}
