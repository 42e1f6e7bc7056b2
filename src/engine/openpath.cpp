#include "engine/openpath.h"

#include <mutex>

#include "engine/pagelist.h"
#include "platform/files.h"

namespace {

// A folder as the program names it: without a trailing "/", unless it is the root.
std::string FolderName(std::string folder) {
    while (folder.size() > 1 && folder.ends_with('/')) folder.pop_back();
    return folder;
}

}  // namespace

OpenPathResult OpenPath(CPageList& list, const std::string& path, bool bScanFolder) {
    OpenPathResult result;
    if (platform::IsDirectory(path)) {
        result.kind = OpenPathResult::Kind::kFolder;
        result.sCurrentFolder = FolderName(path);
        const std::lock_guard lock(list.cs);
        result.bFolderListed = list.AddFolder(result.sCurrentFolder);
        list.Sort();
        return result;
    }

    const FileKind kind = CPageList::GetFileKind(GetExtension(path));
    if (kind == FileKind::kArchive || kind == FileKind::kSelfExtracting) {
        result.kind = OpenPathResult::Kind::kArchive;
        return result;
    }
    if (kind == FileKind::kUnknown && !bScanFolder) return result;

    result.kind = OpenPathResult::Kind::kImages;
    const std::lock_guard lock(list.cs);
    if (!bScanFolder) {
        list.AddFile(path, -1);
        return result;
    }
    // A bare name lies in the working folder; naming it "./name" keeps the page's path the same
    // as the path the folder listing makes for it.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    const size_t slash = file.rfind('/');
    result.sCurrentFolder = slash == 0 ? std::string("/") : file.substr(0, slash);
    result.bFolderListed = list.AddFolder(result.sCurrentFolder);
    list.Sort();
    if (!list.FindByPath(file)) {
        // An extension the listing doesn't take, or a folder that can't be listed: the file the
        // user asked for still becomes a page.
        list.AddFile(file, -1);
        list.Sort();
        list.FindByPath(file);
    }
    return result;
}
