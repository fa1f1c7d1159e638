#include "csv.h"
#include "fileutil.h"
#include "log_capture.h"
#include "sandbox.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

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
    for (int i = 0; i < 101; ++i) { // links are none
        EXPECT_EQ(get_subdirectories(folder.c_str()).size(), static_cast<std::size_t>(i));
        fs::create_directory(folder + "/d" + std::to_string(i));
    }
    bool are_all = true;
    EXPECT_EQ(get_subdirectories(folder.c_str(), &are_all).size(), 100U);
    EXPECT_FALSE(are_all);
    EXPECT_TRUE(get_subdirectories("/missing").empty());
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

// What others put on a card or a share in the place of a file, of a folder or of a temporary.
void try_everything_on_a_storage() {
    const std::string outside = fresh_folder();
    const std::string root = "/var/spool/storage/SD_DISK/";
    const auto everything = [&](const std::string &path) {
        const char *file = path.c_str();
        (void)file_put_string(file, "new");
        (void)file_copy_whole("/etc/passwd", file);
        (void)file_copy("/etc/passwd", file);
        (void)file_open(file, "a");
        (void)file_open(file, "w");
        (void)file_write_new(file, "new");
        (void)append_rows(path, "h\n", "r\n");
        (void)make_folder(file, 0777);
        (void)make_folder((path + "/below").c_str(), 0777);
        (void)file_rename(file, (root + "moved").c_str());
        (void)dir_remove_recursive((path + "/x").c_str());
        (void)file_remove(file);
    };
    write_file(outside + "/kept", "old");
    write_file(outside + "/x/kept", "old");
    // Below a folder that is a link nothing happens, and nothing can be read.
    fs::remove_all(root);
    fs::create_directories(root + "session");
    fs::create_directory_symlink(outside, root + "session/load");
    fs::create_directory_symlink(outside, root + "Vandrel_X");
    {
        log_capture log;
        for (const char *folder : {"session/load/", "Vandrel_X/"}) {
            for (const char *name : {"kept", "new", ".", "x", "x/kept"}) {
                everything(root + folder + name);
                EXPECT_FALSE(file_open((root + folder + name).c_str(), "r")) << name;
            }
            EXPECT_FALSE(can_append_or_warn((root + folder + "kept").c_str()));
            EXPECT_FALSE(folder_descriptor((root + folder).c_str()));
        }
    }
    EXPECT_EQ(read_file(outside + "/kept"), "old");
    EXPECT_EQ(read_file(outside + "/x/kept"), "old");
    EXPECT_EQ(list_folder(outside), (std::vector<std::string>{"kept", "x"}));

    // In the place of the file and of its temporary.
    for (const char *name : {"file", ".tmp_file"}) {
        for (const char *kind : {"link", "dangling", "pipe", "socket", "device", "folder"}) {
            const std::string path = root + name;
            fs::remove_all(path);
            const std::string_view what = kind;
            if (what == "link") {
                fs::create_symlink(outside + "/kept", path);
            } else if (what == "dangling") {
                fs::create_symlink(outside + "/made", path);
            } else if (what == "folder") {
                fs::create_directory(path);
            } else {
                ASSERT_EQ(::mknod(path.c_str(),
                                  (what == "pipe"     ? S_IFIFO
                                   : what == "socket" ? S_IFSOCK
                                                      : S_IFCHR) |
                                      0600,
                                  what == "device" ? makedev(1, 3) : 0),
                          0)
                    << kind;
            }
            log_capture log;
            EXPECT_FALSE(name == std::string("file") && file_open(path.c_str(), "r")) << kind;
            everything(root + "file");
            EXPECT_EQ(read_file(outside + "/kept"), "old") << kind;
            EXPECT_FALSE(fs::exists(outside + "/made"));
            fs::remove_all(root + "file");
        }
        fs::remove_all(root + name);
    }

    // Swept for an archive: links and the like go, what is just being written stays for a while.
    write_file(root + "session/.tmp_image", "live");
    write_file(root + "session/row.csv", "row");
    ASSERT_EQ(::mkfifo((root + "session/pipe").c_str(), 0600), 0);
    sweep_tree((root + "session").c_str(), 600);
    EXPECT_EQ(list_folder(root + "session"), (std::vector<std::string>{".tmp_image", "row.csv"}));
    sweep_tree((root + "session").c_str(), 0);
    EXPECT_EQ(list_folder(root + "session"), std::vector<std::string>{"row.csv"});
    EXPECT_EQ(read_file(outside + "/x/kept"), "old");
}

bool knows_openat2() {
    return ::syscall(SYS_openat2, AT_FDCWD, "/", nullptr, 0) != -1 || errno != ENOSYS;
}

// As a kernel that does not know openat2, nor do emulators, which have no filters; for the rest of
// the process.
void forget_openat2() {
    if (!knows_openat2()) {
        return;
    }
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
    ASSERT_FALSE(knows_openat2());
}

TEST(Fileutil, NothingOnAStorageLeadsElsewhereOrWaits) {
    try_everything_on_a_storage();
    forget_openat2();
    try_everything_on_a_storage();
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
