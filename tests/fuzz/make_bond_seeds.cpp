// Writes the seeds of the book container fuzz target: one book per scramble, one with metadata,
// one with a page list that ends in a stranger.
#include <cstdio>
#include <fstream>
#include <string>

#include "archive/bond_writer.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-bond-seeds FOLDER\n");
        return 2;
    }
    using namespace bondtest;
    const std::string folder = argv[1];
    auto write = [&](const std::string& name, const Book& book) {
        std::ofstream(folder + "/" + name, std::ios::binary) << book.Bytes();
    };
    Book book;
    book.pages = {{u"001.jpg", std::string(300, 'a')}, {u"002.jpg", "second page"}};
    for (uint32_t type = 0; type <= 3; ++type) {
        book.encr = type;
        write("scramble" + std::to_string(type) + ".orl3", book);
    }
    Book meta = book;
    meta.headAttrs = {{"TITL", Wide(u"Title", false)}, {"DIRE", U32(1)}, {"OWNR", Wide(u"O", 0)}};
    write("meta.orl3", meta);
    Book stranger = book;
    stranger.extraListChildren = {Chunk{"WHAT", {{"POS4", U32(0)}}, {}, {}}};
    write("stranger.orl3", stranger);
    return 0;
}
