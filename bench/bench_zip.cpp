// The ZIP reader against libarchive on the same comic books, both reading from memory: listing a
// book of 50 pages and one of 5000, and opening a book to take out one deflated page and one
// stored page. The books are made once with Info-ZIP's zip under the build tree.
#include <archive.h>
#include <archive_entry.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "archive/zip.h"
#include "archive/zip_teststreams.h"

namespace fs = std::filesystem;

namespace {

std::string Noise(size_t size, uint32_t seed) {
    std::string s(size, '\0');
    for (char& c : s) {
        seed = seed * 1664525u + 1013904223u;
        c = char(seed >> 24);
    }
    return s;
}

std::string Text(size_t size) {
    std::string s;
    for (int i = 0; s.size() < size; ++i)
        s += "panel " + std::to_string(i * 7919 % 4093) + " ink\n";
    s.resize(size);
    return s;
}

std::string PageName(int page) {
    char name[32];
    std::snprintf(name, sizeof(name), "p%04d.%s", page, page % 2 ? "txt" : "jpg");
    return name;
}

// A book of `pages` entries: .jpg pages are stored (zip -n), .txt pages deflated.
const std::string& Book(int pages) {
    static std::map<int, std::string> books;
    std::string& book = books[pages];
    if (!book.empty()) return book;
    const fs::path dir = fs::path(ORLIMO_BENCH_ZIP_DIR) / ("book" + std::to_string(pages));
    const fs::path file = dir.string() + ".cbz";
    if (!fs::exists(file)) {
        fs::create_directories(dir);
        const size_t pageSize = pages <= 50 ? 400000 : 2000;
        for (int i = 0; i < pages; ++i) {
            std::ofstream(dir / PageName(i), std::ios::binary)
                << (i % 2 ? Text(pageSize) : Noise(pageSize, uint32_t(i)));
        }
        const std::string cmd =
            "cd '" + dir.string() + "' && zip -q -n .jpg -r '" + file.string() + "' . >/dev/null";
        if (std::system(cmd.c_str()) != 0) std::abort();
    }
    std::ifstream f(file, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    book = s.str();
    return book;
}

void OurList(benchmark::State& state) {
    auto* in = new ziptest::CMemIn<>(Book(int(state.range(0))));
    for (auto _ : state) {
        CTarnUnZip zip;
        zip.Open(in, 0);
        benchmark::DoNotOptimize(zip.GetFileList()->GetCount());
    }
    in->Release();
}

void LibarchiveList(benchmark::State& state) {
    const std::string& book = Book(int(state.range(0)));
    for (auto _ : state) {
        archive* a = archive_read_new();
        archive_read_support_format_zip(a);
        archive_read_open_memory(a, book.data(), book.size());
        archive_entry* e = nullptr;
        int n = 0;
        while (archive_read_next_header(a, &e) == ARCHIVE_OK) ++n;
        benchmark::DoNotOptimize(n);
        archive_read_free(a);
    }
}

// Opens the 50-page book and takes out one page (odd pages deflated, even ones stored).
void OurExtract(benchmark::State& state) {
    auto* in = new ziptest::CMemIn<>(Book(50));
    const std::string name = PageName(int(state.range(0)));
    for (auto _ : state) {
        CTarnUnZip zip;
        ziptest::MemSink sink;
        zip.SetOutStreamFactory(&ziptest::MakeMemOut, &sink);
        zip.Open(in, 0);
        const TarnFileList* list = zip.GetFileList();
        uint32_t index = 0;
        while (index < list->GetCount() && list->Get(index)->fileName != name) ++index;
        if (!zip.ExtractFiles(&index, 1, nullptr)) state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(sink.files.begin()->second.data());
    }
    in->Release();
}

void LibarchiveExtract(benchmark::State& state) {
    const std::string& book = Book(50);
    const std::string name = PageName(int(state.range(0)));
    std::string page;
    for (auto _ : state) {
        archive* a = archive_read_new();
        archive_read_support_format_zip(a);
        archive_read_open_memory(a, book.data(), book.size());
        archive_entry* e = nullptr;
        while (archive_read_next_header(a, &e) == ARCHIVE_OK) {
            if (name != archive_entry_pathname(e)) continue;
            page.resize(size_t(archive_entry_size(e)));
            if (archive_read_data(a, page.data(), page.size()) != la_ssize_t(page.size()))
                state.SkipWithError("extraction failed");
            break;
        }
        benchmark::DoNotOptimize(page.data());
        archive_read_free(a);
    }
}

}  // namespace

BENCHMARK(OurList)->Arg(50)->Arg(5000);
BENCHMARK(LibarchiveList)->Arg(50)->Arg(5000);
BENCHMARK(OurExtract)->Arg(1)->Arg(2);
BENCHMARK(LibarchiveExtract)->Arg(1)->Arg(2);
BENCHMARK_MAIN();
