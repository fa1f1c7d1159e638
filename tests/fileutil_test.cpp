#include "fileutil.h"
#include "log_capture.h"
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

TEST(Fileutil, TellsFilesFromFolders) {
    const std::string folder = fresh_folder();
    write_file(folder + "/file", "x");
    fs::create_symlink(folder, folder + "/link");
    ::mkfifo((folder + "/pipe").c_str(), 0600);
    const struct {
        const char *name;
        bool directory, file;
    } cases[] = {{"", true, false},
                 {"/file", false, true},
                 {"/link", true, false},
                 {"/pipe", false, false},
                 {"/missing", false, false}};
    for (const auto &c : cases) {
        EXPECT_EQ(is_directory((folder + c.name).c_str()), c.directory) << c.name;
        EXPECT_EQ(is_file((folder + c.name).c_str()), c.file) << c.name;
        for (const char *mode : {"r", "a"}) {
            const bool made = c.name == std::string("/missing") && *mode == 'a';
            EXPECT_EQ(file_open((folder + c.name).c_str(), mode) != nullptr, c.file || made)
                << c.name << mode; // at once: the pipe has no other end
        }
    }
    EXPECT_EQ(file_open("/dev/zero", "r"), nullptr);
    fs::create_symlink(folder + "/file", folder + "/file_link");
    EXPECT_EQ(file_open((folder + "/file_link").c_str(), "a"), nullptr);
    EXPECT_NE(file_open((folder + "/file_link").c_str(), "r"), nullptr);
    {
        log_capture warnings;
        EXPECT_TRUE(can_append_or_warn((folder + "/file").c_str()));
        EXPECT_TRUE(can_append_or_warn((folder + "/none").c_str()));
        for (const char *name : {"", "/pipe", "/file_link", "/file/below"}) {
            EXPECT_FALSE(can_append_or_warn((folder + name).c_str())) << name;
        }
        EXPECT_EQ(warnings.texts().size(), 4U);
    }
    EXPECT_FALSE(is_executable((folder + "/file").c_str()));
    EXPECT_TRUE(is_executable("/bin/sh"));

    log_capture log;
    EXPECT_EQ(filesize((folder + "/file").c_str()), 1);
    EXPECT_EQ(filesize("/missing"), -1);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"ERR (fileutil:#, errno: No such file or directory) Failed "
                                       "getting filesize of /missing"});
}

TEST(Fileutil, WritesSizesWithTheirUnit) {
    const struct {
        long long bytes;
        const char *text;
    } cases[] = {{0, "0 B"},
                 {1024, "1024 B"},
                 {1025, "1 KiB"},
                 {1'048'577, "1024 KiB"},
                 {1'049'600, "1 MiB"},
                 {-5, "-5 B"},
                 {1LL << 50, "1024 TiB"},
                 {1LL << 60, "1048576 TiB"}};
    for (const auto &c : cases) {
        char buffer[24];
        suffix_bytes(buffer, sizeof buffer, c.bytes);
        EXPECT_STREQ(buffer, c.text);
    }
}

TEST(Fileutil, ReadsCopiesAndReplacesWholeFiles) {
    log_capture log;
    const std::string folder = fresh_folder();
    const std::string file = folder + "/file";
    const std::string binary("a\0b\n", 4);
    EXPECT_TRUE(file_put_string(file.c_str(), binary));
    EXPECT_EQ(file_get_contents(file.c_str()), binary);
    EXPECT_TRUE(file_copy(file.c_str(), (folder + "/copy").c_str()));
    EXPECT_EQ(read_file(folder + "/copy"), binary);
    EXPECT_TRUE(file_put_string(file.c_str(), ""));
    EXPECT_EQ(read_file(file), "");
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(file_copy(file.c_str(), (folder + "/copy").c_str())); // no overwriting
    EXPECT_EQ(read_file(folder + "/copy"), binary);
    EXPECT_FALSE(file_get_contents("/missing"));
    EXPECT_FALSE(file_put_string("/missing/file", "x"));
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), 3U);
    EXPECT_EQ(texts[0].find("WARNING Could not copy '" + file + "' to '" + folder + "/copy': "),
              0U);
    EXPECT_EQ(texts[1].find("WARNING Could not read contents of '/missing': "), 0U);
    EXPECT_EQ(texts[2].find("WARNING Could not put contents of '/missing/file': "), 0U);

    EXPECT_TRUE(file_rename((folder + "/copy").c_str(), file.c_str()));
    EXPECT_TRUE(empty_file_if_possible(file.c_str()));
    EXPECT_EQ(read_file(file), "");
    EXPECT_TRUE(file_remove(file.c_str()));
    EXPECT_FALSE(file_remove(file.c_str()));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.lines().size(), 3U);
}

TEST(Fileutil, ReadsLinesInPieces) {
    const std::string path = fresh_folder() + "/file";
    write_file(path, std::string("abcdefgh\nx\n\nn\0l\nend", 20));
    const unique_file file = file_open(path.c_str(), "r");
    std::vector<std::string> pieces;
    for (std::string piece; read_line(file.get(), 5, piece);) {
        pieces.push_back(piece);
    }
    EXPECT_EQ(pieces, (std::vector<std::string>{"abcde", "fgh\n", "x\n", "\n", "n", "end"}));
}

TEST(Fileutil, RemovesTreesAndNeverLeavesThem) {
    log_capture log;
    const std::string folder = fresh_folder();
    fs::create_directories(folder + "/tree/empty");
    write_file(folder + "/tree/file", "x");
    EXPECT_EQ(dir_remove_recursive((folder + "/tree").c_str()), 3);
    EXPECT_FALSE(fs::exists(folder + "/tree"));
    EXPECT_TRUE(log.lines().empty());

    // Links are entries like any other; where they lead nothing is touched.
    write_file(folder + "/outside/kept", "x");
    fs::create_directories(folder + "/tree");
    fs::create_directory_symlink(folder + "/outside", folder + "/tree/link");
    fs::create_directory_symlink(folder + "/outside", folder + "/direct");
    EXPECT_EQ(dir_remove_recursive((folder + "/tree").c_str()), 2);
    EXPECT_EQ(dir_remove_recursive((folder + "/direct").c_str()), 0);
    EXPECT_TRUE(fs::exists(folder + "/outside/kept"));

    std::string deep = folder + "/deep";
    for (int level = 0; level < 200; ++level) {
        deep += "/d";
    }
    fs::create_directories(deep);
    EXPECT_EQ(dir_remove_recursive((folder + "/deep").c_str()), 0);
    EXPECT_TRUE(fs::exists(deep));
    EXPECT_EQ(dir_remove_recursive("/missing"), 0);
    EXPECT_EQ(log.texts().back(), "WARNING Could not open dir for removal: /missing");
}
