// File-system services: folder listing and the few facts about a path that the program asks for.
// Paths are the bytes the file system uses, separated by "/".
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace platform {

// One name of a folder listing. Valid only during the visit call that hands it out: it refers to
// the open folder and to the listing's own buffer.
class FolderItem {
public:
    // Passed as `size` when the listing didn't learn the size on its way.
    static constexpr int64_t kSizeNotFetched = -2;

    // `dirFd` is the open folder the name lives in; `isDirectory` is already resolved.
    FolderItem(int dirFd, const char* name, bool isDirectory, int64_t size = kSizeNotFetched)
        : dirFd_(dirFd), name_(name), isDirectory_(isDirectory), size_(size) {}

    std::string_view GetName() const { return name_; }
    // Symbolic links count as what they point at; a dangling link is no directory.
    bool IsDirectory() const { return isDirectory_; }
    // The size in bytes, -1 when it can't be had. Asked of the file system on the first call
    // only, so that listing a large folder costs no status call for names nobody looks at.
    int64_t GetSize() const;

private:
    int dirFd_;
    const char* name_;
    bool isDirectory_;
    mutable int64_t size_;
};

// Calls `visit` for every name of `folder` except "." and "..", in the order the file system
// gives them. No file is opened. False when the folder can't be opened for listing.
bool ListFolder(const std::string& folder, const std::function<void(const FolderItem&)>& visit);

// True when `path` names a directory (or a link to one).
bool IsDirectory(const std::string& path);

// The size of the file at `path` in bytes; -1 when it doesn't exist or can't be examined.
int64_t GetFileSize(const std::string& path);

// A file's size and times. Times are Windows-style file times, 100 ns steps since 1601-01-01
// UTC, which is the shape the image cache keys carry (high word, then low word).
struct FileFacts {
    int64_t nSize = 0;
    uint64_t ftLastWrite = 0;
    uint64_t ftCreation = 0;  // the birth time where the file system keeps one, else 0
};

// The file time of a POSIX time; times before 1601 give 0.
uint64_t FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds);

// The facts of the file at `path` (links followed) or of an open descriptor. False, with the
// facts left zero, when it can't be examined.
bool GetFileFacts(const std::string& path, FileFacts* facts);
bool GetFileFactsOf(int fd, FileFacts* facts);

// The folder of the running executable, without a trailing "/": the program folder, where the
// files that ship beside it (colour profiles, languages, skins) are found. Empty if unknown.
std::string GetProgramFolder();

}  // namespace platform
