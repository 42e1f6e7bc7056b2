#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace platform {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

int64_t FolderItem::GetSize() const {
    if (size_ == kSizeNotFetched) {
        struct stat st;
        size_ = fstatat(dirFd_, name_, &st, 0) == 0 ? static_cast<int64_t>(st.st_size) : -1;
    }
    return size_;
}

bool ListFolder(const std::string& folder, const std::function<void(const FolderItem&)>& visit) {
    const std::unique_ptr<DIR, DirCloser> dir(opendir(folder.c_str()));
    if (!dir) return false;
    const int fd = dirfd(dir.get());
    while (const dirent* ent = readdir(dir.get())) {
        const char* name = ent->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        if (ent->d_type == DT_DIR) {
            visit(FolderItem(fd, name, true));
        } else if (ent->d_type == DT_REG) {
            visit(FolderItem(fd, name, false));
        } else {
            // A link, or a file system that doesn't fill in the type: follow it once, and keep
            // the size that the same call brings along.
            struct stat st;
            if (fstatat(fd, name, &st, 0) == 0) {
                visit(FolderItem(fd, name, S_ISDIR(st.st_mode), static_cast<int64_t>(st.st_size)));
            } else {
                visit(FolderItem(fd, name, false, -1));
            }
        }
    }
    return true;
}

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t GetFileSize(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}

uint64_t FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds) {
    // 1601-01-01 to 1970-01-01 is 11644473600 seconds.
    constexpr int64_t kEpochGap = 11644473600;
    if (seconds < -kEpochGap) return 0;
    return uint64_t(seconds + kEpochGap) * 10000000u + nanoseconds / 100;
}

namespace {

// statx gives the birth time where the file system keeps one; AT_EMPTY_PATH with an empty name
// examines the descriptor itself.
bool FactsFromStatx(int dirFd, const char* name, int flags, FileFacts* facts) {
    *facts = {};
    struct statx st;
    if (statx(dirFd, name, flags, STATX_SIZE | STATX_MTIME | STATX_BTIME, &st) != 0) return false;
    if (!S_ISREG(st.stx_mode) && !S_ISBLK(st.stx_mode)) return false;
    facts->nSize = static_cast<int64_t>(st.stx_size);
    facts->ftLastWrite = FileTimeFromUnix(st.stx_mtime.tv_sec, st.stx_mtime.tv_nsec);
    if (st.stx_mask & STATX_BTIME)
        facts->ftCreation = FileTimeFromUnix(st.stx_btime.tv_sec, st.stx_btime.tv_nsec);
    return true;
}

}  // namespace

bool GetFileFacts(const std::string& path, FileFacts* facts) {
    return FactsFromStatx(AT_FDCWD, path.c_str(), 0, facts);
}

bool GetFileFactsOf(int fd, FileFacts* facts) {
    return FactsFromStatx(fd, "", AT_EMPTY_PATH, facts);
}

std::string GetProgramFolder() {
    std::string path(4096, '\0');
    const ssize_t n = readlink("/proc/self/exe", path.data(), path.size());
    if (n <= 0 || size_t(n) >= path.size()) return {};
    path.resize(size_t(n));
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace platform
