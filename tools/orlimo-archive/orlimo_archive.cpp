// orlimo-archive list ARCHIVE [--password P]
// orlimo-archive extract ARCHIVE INDEX OUTPUT [--password P]
//
// Looks into an archive the way the viewer's archive library sees it. `list` prints one line per
// entry:
//   INDEX SIZE PACKED METHOD ENCRYPTION FOLDER NAME
// with the compression and encryption words ("-" for none), FOLDER 1 or 0, and the entry's
// decoded name. `extract` writes entry INDEX to OUTPUT. The exit code is the library's last error,
// 0 when all went well; a usage error exits 2 and names nothing.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "archive/tarnman.h"

namespace {

constexpr const char* kUsage =
    "usage: orlimo-archive list ARCHIVE [--password P]\n"
    "       orlimo-archive extract ARCHIVE INDEX OUTPUT [--password P]\n";

int Usage(const char* problem) {
    if (problem) std::fprintf(stderr, "orlimo-archive: %s\n", problem);
    std::fputs(kUsage, stderr);
    return 2;
}

bool ParseIndex(const std::string& text, uint32_t& out) {
    if (text.empty() || text.size() > 9) return false;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + uint32_t(c - '0');
    }
    out = value;
    return true;
}

// The library's error, never 0 after a failure, so that the shell sees one.
int Failed(ITarn& archive, const char* what, const std::string& path) {
    const uint32_t error = archive.GetLastError();
    std::fprintf(stderr, "orlimo-archive: can't %s %s (error %u)\n", what, path.c_str(), error);
    return error ? int(error) : 1;
}

const char* Word(const char* word) {
    return word && *word ? word : "-";
}

int List(ITarn& archive) {
    const uint32_t count = archive.GetFileItemCount();
    for (uint32_t i = 0; i < count; ++i) {
        const TarnFileItem* item = archive.GetFileItem(i);
        if (!item) continue;
        std::printf("%u %lld %lld %s %s %d %s\n", i, static_cast<long long>(item->uncompressedSize),
                    static_cast<long long>(item->compressedSize),
                    Word(archive.CompressionMethod2Str(item->compressionMethod)),
                    Word(archive.EncryptionMethod2Str(item->encryptionMethod)),
                    item->IsFolder() ? 1 : 0, item->fileNameW.c_str());
    }
    return int(archive.GetLastError());
}

// Writes the entry straight to the output file, whatever size it turns out to have.
class FileSink final : public ITarnSimpleOutStream {
public:
    explicit FileSink(const std::string& path) : path_(path) {}
    ~FileSink() override { Close(); }
    bool Open(const char*) override {
        Close();
        file_ = std::fopen(path_.c_str(), "wb");
        return file_ != nullptr;
    }
    bool SetSize(int64_t) override { return true; }
    bool Write(const void* buffer, uint32_t size) override {
        return file_ && std::fwrite(buffer, 1, size, file_) == size;
    }
    bool Close() override {
        const bool ok = !file_ || std::fclose(file_) == 0;
        file_ = nullptr;
        return ok;
    }
    bool CreateFolder(const char*) override { return true; }

private:
    std::string path_;
    std::FILE* file_ = nullptr;
};

int Extract(ITarn& archive, uint32_t index, const std::string& output) {
    FileSink sink(output);
    if (!archive.ExtractOneTo(index, &sink)) {
        return Failed(archive, "extract from", archive.GetFilePathName());
    }
    return int(archive.GetLastError());
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args;
    std::string password;
    bool hasPassword = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--password") == 0) {
            if (i + 1 >= argc) return Usage("--password wants a value");
            password = argv[++i];
            hasPassword = true;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            return Usage("unknown option");
        } else {
            args.emplace_back(argv[i]);
        }
    }
    if (args.empty()) return Usage(nullptr);
    const bool list = args[0] == "list";
    if (!(list && args.size() == 2) && !(args[0] == "extract" && args.size() == 4)) {
        return Usage(nullptr);
    }
    uint32_t index = 0;
    if (!list && !ParseIndex(args[2], index)) return Usage("INDEX wants a number");

    CTarnLib archive;
    const char* secret = hasPassword ? password.c_str() : nullptr;
    if (!archive.Open(args[1], secret)) return Failed(archive, "open", args[1]);
    if (hasPassword) archive.SetPassword(secret);
    return list ? List(archive) : Extract(archive, index, args[3]);
}
