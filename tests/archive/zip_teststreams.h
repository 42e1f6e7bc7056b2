// Archive streams over memory for the ZIP reader's tests and fuzz target: an input over bytes,
// a split input over several volumes, and an output factory that keeps every entry by name.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "archive/tarnstream.h"

namespace ziptest {

// Reads from a private copy of `data`.
template <class Base = ITarnInStream>
class CMemIn : public CTarnUnknownImp<Base> {
public:
    explicit CMemIn(std::string data) : data_(std::move(data)) {}
    uint32_t QueryInterface(const TarnIID& iid, void** out) override {
        if (iid == IID_ITarnInStream) {
            this->AddRef();
            *out = static_cast<ITarnInStream*>(this);
            return 0;
        }
        *out = nullptr;
        return kTarnNoInterface;
    }
    bool Open(const std::string&) override { return true; }
    bool Read(void* buffer, uint32_t size) override {
        uint32_t got = 0;
        return Read(buffer, size, &got) && got == size;
    }
    bool Read(void* buffer, uint32_t size, uint32_t* count) override {
        const int64_t left = std::max<int64_t>(0, int64_t(data_.size()) - pos_);
        const uint32_t n = uint32_t(std::min<int64_t>(left, size));
        if (n) std::memcpy(buffer, data_.data() + pos_, n);
        if (filter_ && n) filter_->Filter(static_cast<uint8_t*>(buffer), n);
        pos_ += n;
        *count = n;
        return true;
    }
    int64_t Seek(int64_t offset, int origin) override {
        if (origin == 0) pos_ = offset;
        if (origin == 1) pos_ += offset;
        if (origin == 2) pos_ = int64_t(data_.size()) - offset;
        pos_ = std::max<int64_t>(pos_, 0);
        return pos_;
    }
    int64_t GetPos() override { return pos_; }
    int64_t GetSize() override { return int64_t(data_.size()); }
    bool Close() override { return true; }
    bool IsEOF() override { return pos_ == int64_t(data_.size()); }
    const std::string& GetFilePathName() override { return path_; }
    void SetFilter(ITarnStreamFilter* filter) override { filter_ = filter; }

protected:
    std::string data_;
    int64_t pos_ = 0;
    std::string path_;
    ITarnStreamFilter* filter_ = nullptr;
};

// The volumes of a split archive joined; GetVolumeOffset as the file-backed one does it.
class CMemMultiIn : public CMemIn<ITarnMultiInStream> {
public:
    explicit CMemMultiIn(const std::vector<std::string>& volumes) : CMemIn(Join(volumes)) {
        int64_t at = 0;
        for (const std::string& v : volumes) {
            starts_.push_back(at);
            at += int64_t(v.size());
        }
    }
    uint32_t QueryInterface(const TarnIID& iid, void** out) override {
        if (iid == IID_ITarnMultiInStream) {
            AddRef();
            *out = static_cast<ITarnMultiInStream*>(this);
            return 0;
        }
        return CMemIn::QueryInterface(iid, out);
    }
    bool IsVolumeChanged() override { return false; }
    const char* GetCurrentVolumePath() override { return nullptr; }
    int64_t GetVolumeOffset(uint32_t volume) override {
        return volume < starts_.size() ? starts_[volume] : 0;
    }

private:
    static std::string Join(const std::vector<std::string>& volumes) {
        std::string all;
        for (const std::string& v : volumes) all += v;
        return all;
    }
    std::vector<int64_t> starts_;
};

// Where the memory outputs put the entries: by output path.
struct MemSink {
    std::map<std::string, std::string> files;
    int64_t writeLimit = -1;  // a write past this many bytes fails as a full disk
};

class CMemOut : public CTarnUnknownImp<ITarnOutStream> {
public:
    CMemOut(MemSink* sink, std::string path) : sink_(sink), path_(std::move(path)) {}
    uint32_t QueryInterface(const TarnIID&, void** out) override {
        *out = nullptr;
        return kTarnNoInterface;
    }
    bool Open(const std::string&, uint32_t*) override { return true; }
    bool Write(const void* buffer, uint32_t size, uint32_t* written) override {
        std::string& file = sink_->files[path_];
        if (sink_->writeLimit >= 0 && int64_t(file.size() + size) > sink_->writeLimit) {
            error_ = kTarnPlatformDiskFull;
            return false;
        }
        file.append(static_cast<const char*>(buffer), size);
        if (written) *written = size;
        return true;
    }
    bool Flush() override { return true; }
    bool Close() override { return error_ == 0; }
    bool SetSize(int64_t size) override {
        if (size > 0 && size < (int64_t(1) << 30)) sink_->files[path_].reserve(size_t(size));
        return true;
    }
    bool SetFileTime(uint32_t, const uint64_t*) override { return true; }
    bool SetAttribute(uint32_t) override { return true; }
    int64_t GetWritten() override {
        const auto it = sink_->files.find(path_);
        return it == sink_->files.end() ? 0 : int64_t(it->second.size());
    }
    const std::string& GetFilePathName() override { return path_; }
    bool CreateFolder(const std::string&) override { return true; }
    uint32_t GetLastError() override { return error_; }

private:
    MemSink* sink_;
    std::string path_;
    uint32_t error_ = 0;
};

// The output factory over a MemSink given as the context.
inline ITarnOutStream* MakeMemOut(const std::string& path, void* context, bool, uint32_t*) {
    auto* sink = static_cast<MemSink*>(context);
    sink->files[path].clear();  // a zero-size entry still shows up
    return new CMemOut(sink, path);
}

}  // namespace ziptest
