// A fresh folder for one test's fixtures, removed with everything in it when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

class ScratchFolder {
public:
    ScratchFolder() {
        const char* env = getenv("ORLIMO_TEST_TMP");
        const auto base =
            env && *env ? std::filesystem::path(env) : std::filesystem::temp_directory_path();
        std::error_code ec;
        std::filesystem::create_directories(base, ec);
        std::string pattern = (base / "scratch-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
        EXPECT_FALSE(path_.empty()) << "can't make a scratch folder under " << base;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }

    const std::string& Path() const { return path_; }
    // The full path of `relative` inside the folder.
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }
    // Writes a file of `size` bytes and gives its full path.
    std::string MakeFile(const std::string& relative, size_t size = 0) const {
        std::ofstream out(*this / relative, std::ios::binary);
        EXPECT_TRUE(out << std::string(size, 'x')) << relative;
        return *this / relative;
    }

private:
    std::string path_;
};
