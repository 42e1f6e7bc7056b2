// Turning one opened path into pages: a folder, an image with or without its neighbours, or an
// archive that the page engine is to list.
#pragma once

#include <string>

class CPageList;

struct OpenPathResult {
    enum class Kind {
        kNothing,  // an unknown kind opened as one of several paths
        kFolder,   // a folder was listed (see bFolderListed)
        kImages,   // image pages were added
        kArchive,  // an archive or a self-extracting candidate, for the engine to list
    };

    Kind kind = Kind::kNothing;
    bool bFolderListed = false;  // the folder could be listed (kFolder, and kImages with a scan)
    std::string sCurrentFolder;  // the folder that became current; empty when none did
};

// Opens `path` into `list`, taking `list.cs` for the whole sequence; the caller must not hold it.
// `bScanFolder` is set when a single file was opened: an image (or a file of unknown kind) then
// brings its folder's images along and becomes the current page at its sorted place, even when
// its extension alone wouldn't make it a page. Without it an image is added alone and an unknown
// file is passed over. The list is sorted whenever a folder was added.
OpenPathResult OpenPath(CPageList& list, const std::string& path, bool bScanFolder);
