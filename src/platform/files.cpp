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

std::string GetProgramFolder() {
    std::string path(4096, '\0');
    const ssize_t n = readlink("/proc/self/exe", path.data(), path.size());
    if (n <= 0 || size_t(n) >= path.size()) return {};
    path.resize(size_t(n));
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace platform
