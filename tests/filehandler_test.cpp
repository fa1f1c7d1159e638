#include "csv.h"
#include "filehandler.h"
#include "fileutil.h"
#include "kernel_file.h"
#include "log_capture.h"
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string net_dev_head =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
    "fifo colls carrier compressed\n";

// With the times replaced, so that a whole file can be compared.
std::string without_times(const std::string &text) {
    static const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2},[0-9]{2}:[0-9]{2}:[0-9]{2}");
    return std::regex_replace(text, time, "D,T");
}

std::string session_with(const std::vector<std::string> &folders) {
    const std::string session = fresh_folder();
    for (const std::string &folder : folders) {
        fs::create_directories(session + "/system_monitoring/" + folder);
    }
    return session;
}

std::string text_of(const std::string &session, const std::string &file) {
    return without_times(read_file(session + "/system_monitoring/" + file));
}

} // namespace

TEST(Csv, AppendsWholeRowsOnly) {
    const std::string file = fresh_folder() + "/rows.csv";
    EXPECT_TRUE(append_rows(file, "head\n", "1\n"));
    EXPECT_TRUE(append_rows(file, "head\n", "2\n3\n"));
    EXPECT_EQ(read_file(file), "head\n1\n2\n3\n");
    // What a power cut left of a row goes, however long; a file of nothing else gets its header.
    write_file(file, "head\n1\n" + std::string(10'000, 'x'));
    EXPECT_TRUE(append_rows(file, "head\n", "2\n"));
    EXPECT_EQ(read_file(file), "head\n1\n2\n");
    write_file(file, "hea");
    EXPECT_TRUE(append_rows(file, "head\n", "1\n"));
    EXPECT_EQ(read_file(file), "head\n1\n");
}

TEST(Csv, TakesBackWhatAFullStorageCutAndWarnsOnce) {
    const std::string folder = fresh_folder();
    ASSERT_EQ(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=16k"), 0);
    const std::string row = std::string(999, 'x') + "\n";
    log_capture log;
    int whole = 0;
    while (append_rows(folder + "/a.csv", "", row)) {
        ++whole;
    }
    EXPECT_FALSE(append_rows(folder + "/a.csv", "", row));
    EXPECT_FALSE(append_rows(folder + "/b.csv", "head\n", row));
    EXPECT_EQ(filesize((folder + "/a.csv").c_str()), whole * 1000);
    EXPECT_EQ(filesize((folder + "/b.csv").c_str()), 0);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"WARNING Could not write to '" + folder +
                                                    "/a.csv': No space left on device"});
    // One file that can't be written, here a folder, hides no other's failure.
    fs::create_directory(folder + "/c.csv");
    (void)take_append_counts();
    EXPECT_FALSE(append_rows(folder + "/c.csv", "", row));
    EXPECT_FALSE(append_rows(folder + "/c.csv", "", row));
    EXPECT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(take_append_counts().failed, 2U);
    forget_append_failures();
    EXPECT_FALSE(append_rows(folder + "/c.csv", "", row));
    EXPECT_EQ(log.lines().size(), 3U);
    ::umount(folder.c_str());
}

TEST(Filehandler, WritesInterfaceCountersAndBandwidth) {
    const std::string session = session_with({"monitoring_network"});
    const std::string directory = session + "/system_monitoring/monitoring_network/";
    const std::string header =
        "Date, Time, Receive: bytes, compressed, drop, errs, fifo, frame, multicast, packets, "
        "Transmit: bytes, carrier, colls, compressed, drop, errs, fifo, packets, Failed packages "
        "total (receive), Failed packages total (transmit)\n";
    const auto store = [&session](const std::string &interfaces) {
        store_net_dev(session, (net_dev_head + interfaces).substr(0, 1023));
    };
    const std::string eth0 = "  eth0: 1000 2 3 4 5 6 7 8 9000 10 11 12 13 14 15 16\n";
    store("    lo: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n" + eth0);
    EXPECT_EQ(text_of(session, "monitoring_network/eth0.csv"),
              header + "D,T,1000,7,4,3,5,6,8,2,9000,15,14,16,12,11,13,10,13,23\n");
    EXPECT_EQ(list_folder(directory), (std::vector<std::string>{"eth0.csv", "lo.csv"}));

    store(eth0); // a second later at the most: nothing has moved
    store("  eth0: 0 2 3 4 5 6 7 8 0 10 11 12 13 14 15 16\n"); // began anew: no row
    store("  eth1: 5 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"); // no eth0: the baseline stays
    store("  eth0: 0 2 3 4 5 6 7 8 0 10 11 12 13 14 15 16\n");
    EXPECT_EQ(text_of(session, "monitoring_network/network.csv"),
              "Date,Time,Network Bandwidth (Mbit/s)\r\nD,T,0.0 Mbit/s\r\nD,T,0.0 Mbit/s\r\n");

    // Ten interfaces at the most, and what a cut read has of a line is left out.
    std::string many;
    for (int i = 0; i < 40; ++i) {
        many += "v" + std::to_string(10 + i) + ": 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n";
    }
    store(many);
    const auto files = list_folder(directory);
    EXPECT_EQ(std::count_if(files.begin(), files.end(),
                            [](const std::string &name) { return name[0] == 'v'; }),
              10);
    net_dev_values cut;
    const std::string text = net_dev_head + eth0 + "  eth1: 12 3";
    EXPECT_FALSE(parse_proc_net_dev(text, cut));
    EXPECT_EQ(cut.size(), 16U);

    // The kernel's own text.
    store_proc_net_dev(session);
    EXPECT_EQ(text_of(session, "monitoring_network/lo.csv").find(header), 0U);
}

TEST(Filehandler, ReportsWhatIsNoListOfInterfaces) {
    const std::string session = session_with({"monitoring_network"});
    const struct {
        std::string text;
        std::vector<std::string> log;
    } cases[] = {
        {"", {"parse_proc_net_dev FAILED 1\n", "Error on parsing: 1"}},
        {"one line\n", {"parse_proc_net_dev FAILED 1\n", "Error on parsing: 1"}},
        {"one\nno bar\n", {"parse_proc_net_dev FAILED 2\n", "Error on parsing: 2"}},
        {"one\n face |bytes pack",
         {"FAILED 3\nAttempted to find word stating at: [pack]", "Error on parsing: 3"}},
        {net_dev_head + "no colon\n", {"parse_proc_net_dev FAILED 4\n", "Error on parsing: 4"}},
    };
    for (const auto &c : cases) {
        log_capture log;
        store_net_dev(session, c.text);
        ASSERT_EQ(log.lines().size(), 2U) << c.text;
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(log.texts()[i], "ERR (filehandler:#, errno: None) " + c.log[i]);
        }
    }
    EXPECT_TRUE(list_folder(session + "/system_monitoring/monitoring_network").empty());
}

TEST(Filehandler, WritesMemoryAndSlabCaches) {
    const std::string session = session_with({"monitoring_meminfo", "monitoring_slabinfo"});
    {
        const kernel_file memory("/proc/meminfo", "MemFree:         1234567 kB\nActive(anon):   5 "
                                                  "kB\nHugePages_Total:       0\nno colon\n");
        log_capture log;
        store_proc_meminfo(session);
        store_proc_meminfo(session);
        EXPECT_EQ(log.texts(), std::vector<std::string>(2, "WARNING Skipping no colon"));
    }
    EXPECT_EQ(text_of(session, "monitoring_meminfo/MemFree.csv"),
              "Date,Time,Memory MemFree (kB)\r\nD,T,1234567\r\nD,T,1234567\r\n");
    EXPECT_EQ(text_of(session, "monitoring_meminfo/HugePages_Total.csv"),
              "Date,Time,Memory HugePages_Total (kB)\r\nD,T,0\r\nD,T,0\r\n");

    // With the columns of a kernel that debugs its slabs, and a name that is no file name.
    const kernel_file slab(
        "/proc/slabinfo",
        "slabinfo - version: 2.1 (statistics)\n"
        "# name <active_objs> <num_objs> <objsize> <objperslab> <pagesperslab> : tunables ...\n"
        "kmalloc-192  1302  1310  192  42  2 : tunables  0  0  0 : slabdata  31  32  0\n"
        "a/b  1  2  3  4  5 : tunables  6  7  8 : slabdata  9  10  11 : globalstat  12 : cpustat "
        "13\n"
        "short\n");
    store_slab_info(session);
    EXPECT_EQ(text_of(session, "monitoring_slabinfo/kmalloc-192.csv"),
              "Date, Time, Name, Active objects, Number of objects, Object size, Objects per slab, "
              "Pages per slab, Tunables: Limit, Batch count, Shared factor, Slab data : Active "
              "slabs, Number of slabs, Shared available\r\n"
              "D,T,kmalloc-192,1302,1310,192,42,2,0,0,0,31,32,0\r\n");
    EXPECT_NE(text_of(session, "monitoring_slabinfo/a_b.csv")
                  .find("D,T,a/b,1,2,3,4,5,6,7,8,9,10,11,12,13\r\n"),
              std::string::npos);
    EXPECT_EQ(text_of(session, "monitoring_slabinfo/.slab_names"),
              "[{\"Filler\":\"This file is used by the VELA\"},{\"name\":\"kmalloc-192\"},"
              "{\"name\":\"a/b\"}]");
    EXPECT_EQ(list_folder(session + "/system_monitoring/monitoring_slabinfo").size(), 3U);
}

TEST(Filehandler, WritesPageFaultsFreePagesAndLoad) {
    const std::string session = session_with({"monitoring_kernel", "monitoring_load"});
    const kernel_file vmstat("/proc/vmstat", "pgfaultx\npgfault 123456\npgmajfault 789\n");
    log_capture log;
    EXPECT_EQ(vmstat_get_val("nothing"), "");
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{
                  "ERR (filehandler:#, errno: None) fgets returned null reading output "
                  "of grep \"nothing\" /proc/vmstat"});
    EXPECT_EQ(vmstat_get_val("pgfault"), ""); // the first line found, which has no blank
    store_page_faults(session);
    EXPECT_EQ(text_of(session, "monitoring_kernel/pagefaults.csv"),
              "DATE,TIME,MINOR_FAULTS,MAJOR_FAULTS\nD,T,,789\n");

    // Two nodes: of a zone the later counts, the total is of all; 17 orders are one too many.
    const kernel_file buddy("/proc/buddyinfo",
                            "Node 0, zone      DMA      1      2\n"
                            "Node 0, zone    DMA32      3      4      5\n"
                            "Node 0, zone   Normal     10     20\n"
                            "Node 1, zone   Normal    100    200\n"
                            "Node 1, zone  Movable      7      7      7      7\n");
    store_buddyinfo(session);
    EXPECT_EQ(
        text_of(session, "monitoring_kernel/buddyinfo.csv"),
        "ZONE,DATE,TIME,4 kB,8 kB,16 kB\nDMA,D,T,1,2,0\nDMA32,D,T,3,4,5\nNormal,D,T,100,200,0\n"
        "HighMem,D,T,0,0,0\nTotal,D,T,114,226,5\n");
    std::string orders = "zone Normal";
    for (int i = 1; i <= 17; ++i) {
        orders += " " + std::to_string(i);
    }
    EXPECT_EQ(parse_buddyinfo(orders).highest_order, 15U);
    EXPECT_EQ(parse_buddyinfo(orders).totals[15], 16);
    EXPECT_EQ(parse_buddyinfo("DMA32").highest_order, 0U);

    install_tool("uptime", "echo ' 04:51:05 up 1:10,  0 users,  load average: 0.52, 0.58, 1.59'\n");
    store_load_avg_info_no_retention(session);
    install_tool("uptime", "echo 'no such thing: 1, 2'\n");
    store_load_avg_info_no_retention(session);
    store_load_avg_info_no_retention(session);
    EXPECT_EQ(text_of(session, "monitoring_load/load.csv"),
              "Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)\r\n"
              "D,T,0.52,0.58,1.59\r\n");
}
