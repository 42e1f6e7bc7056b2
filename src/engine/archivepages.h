// Pages from archives: the memory stream that receives one extracted entry, the walk that turns an
// archive's entries into pages, and the extraction of one archive page. The engine thread runs
// these over its own CTarnLibPair; tools run them over one of their own.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "archive/tarnman.h"
#include "archive/tarnstream.h"
#include "engine/pagelist.h"

// The largest entry that is taken into memory. An entry header may claim any size; a hostile one
// claiming gigabytes is refused before anything is allocated.
inline constexpr int64_t kMemOutCap = int64_t(1) << 30;

// One entry in memory. The block is sized by SetSize with the entry's announced size (refused
// above the cap) and then never grows: a write past its end fails, so an entry can't deliver
// more than its header promised. An entry whose size isn't known (no SetSize) grows under the
// cap as it is written.
class CMemTarnOutStream final : public ITarnSimpleOutStream {
public:
    explicit CMemTarnOutStream(int64_t cap = kMemOutCap) : nCap_(cap) {}
    CMemTarnOutStream(const CMemTarnOutStream&) = delete;
    CMemTarnOutStream& operator=(const CMemTarnOutStream&) = delete;
    ~CMemTarnOutStream() override = default;

    // Starts a new entry: nothing written, size not known.
    bool Open(const char* path) override;
    // Makes room for exactly `size` bytes; refused when negative or above the cap.
    bool SetSize(int64_t size) override;
    bool Write(const void* buffer, uint32_t size) override;
    bool Close() override { return true; }
    bool CreateFolder(const char*) override { return true; }

    // The bytes written so far.
    const uint8_t* data() const { return block_.data(); }
    size_t size() const { return nPos_; }
    bool empty() const { return nPos_ == 0; }
    std::span<const uint8_t> Bytes() const { return {block_.data(), nPos_}; }
    // Frees the block.
    void Clear();

private:
    std::vector<uint8_t> block_;
    size_t nPos_ = 0;
    bool bSized_ = false;  // SetSize announced the size: the block is fixed
    int64_t nCap_;
};

// What opening an archive gives the window: its pages, in archive order, to be appended to the
// page list (under its lock) and sorted; and the state the window reports on.
struct ArchiveListing {
    CPageList::EntryArray entries;
    bool bBroken = false;         // damaged, the entries found are used
    bool bNeedsPassword = false;  // encrypted; a password is wanted for its pages
    TarnFormat nFormat = TarnFormatNone;
    TarnArchiveInfo info;
};

// Results of opening an archive.
inline constexpr uint32_t kArchiveTooNew = 0x81000001;  // the format's version is refused
inline constexpr uint32_t kArchiveCantOpen = 0x80004005;

// Opens `path` through `pair` (anew when `force`) and lists its pages into `listing`: every entry
// of non-zero size with a picture's extension, and the pictures of archives one level inside it,
// named outer "?" inner "|" name. Gives 0, or one of the results above.
// `password` opens the archives inside.
uint32_t ListArchive(CTarnLibPair& pair, const std::string& path, const std::string& password,
                     bool force, ArchiveListing* listing);

// The archive part and the entry name of an archive page's path: split at the first "|".
// False when the path has none.
bool SplitArchivePath(std::string_view path, std::string* archive, std::string* entry);

enum class ArchiveExtract {
    kOk,       // `out` holds the entry
    kCorrupt,  // the data failed their check; `out` holds what was written
    kFailed,
};

// Extracts the page `entry` (its szPath names the archive, szName and szRawName the entry) into
// `out`, opening its archive through `pair` unless that has it open already.
ArchiveExtract ExtractArchivePage(CTarnLibPair& pair, const PageEntry& entry,
                                  CMemTarnOutStream* out);
