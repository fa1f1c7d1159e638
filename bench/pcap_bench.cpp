// The repair of capture files beside cp, tcpdump and memchr.
//
//     pcap_bench [FOLDER [MEBIBYTES]]
//
// Makes captures of the size (1,024) in a folder of its own below FOLDER (the current one) and
// takes it away again; needs three times the size there. Every time is the best of five rounds in
// which the peers take turns, with the input in the page cache.
#include "pcap.h"
#include "support/figures.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t mebibyte = 1024UL * 1024;
std::filesystem::path folder;

struct close_file {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using unique_file = std::unique_ptr<std::FILE, close_file>;

unique_file open_file(const std::string &path, const char *mode) {
    unique_file file(std::fopen(path.c_str(), mode));
    if (!file) {
        std::perror(path.c_str());
        std::exit(1);
    }
    return file;
}

void put(std::FILE *file, const void *bytes, std::size_t size) {
    if (std::fwrite(bytes, 1, size, file) != size) {
        std::perror("write");
        std::exit(1);
    }
}

void put_global_header(std::FILE *file) {
    const std::uint32_t header[] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    put(file, header, sizeof header);
}

// Packets of a millisecond each; of the first one in every `damage_every` bytes (0: none) the
// stored length is wrong.
void make_capture(const std::string &path, std::uint64_t size, std::uint32_t length,
                  std::uint64_t damage_every) {
    const unique_file file = open_file(path, "w");
    put_global_header(file.get());
    std::vector<unsigned char> packet(16 + length, 0xee);
    std::uint64_t next_damage = damage_every;
    for (std::uint64_t written = 0, number = 0; written < size; written += packet.size()) {
        std::uint32_t header[] = {static_cast<std::uint32_t>(1700000000 + number / 1000),
                                  static_cast<std::uint32_t>(number % 1000 * 1000), length, length};
        if (damage_every != 0 && written >= next_damage) {
            header[2] = 0x99999999;
            next_damage += damage_every;
        }
        std::memcpy(packet.data(), header, sizeof header);
        put(file.get(), packet.data(), packet.size());
        number++;
    }
}

// One packet, then nothing that is one.
void make_garbage(const std::string &path, std::uint64_t size) {
    make_capture(path, 1, 100, 0);
    const unique_file file = open_file(path, "a");
    std::mt19937_64 random(1); // NOLINT: the same garbage each time
    std::vector<std::uint64_t> block(mebibyte / 8);
    for (std::uint64_t written = 0; written < size; written += mebibyte) {
        for (auto &word : block) {
            word = random();
        }
        put(file.get(), block.data(), mebibyte);
    }
}

double seconds(const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void repair(const std::string &from, const std::string &to) {
    const unique_file in = open_file(from, "r");
    const unique_file out = open_file(to, "w");
    const unique_file log = open_file(to + ".log", "w");
    if (fix_pcap(in.get(), out.get(), log.get()) < 0) {
        std::cerr << "repair failed\n";
        std::exit(1);
    }
}

void command(const std::string &line) {
    if (std::system(line.c_str()) != 0) { // NOLINT: our own words
        std::cerr << "failed: " << line << '\n';
        std::exit(1);
    }
}

// The best time of each work over five rounds; each starts without an output file.
std::vector<double> race(const std::vector<std::function<void()>> &works) {
    std::vector<double> best(works.size(), 1e9);
    for (int round = 0; round < 5; round++) {
        for (std::size_t i = 0; i < works.size(); i++) {
            std::filesystem::remove(folder / "out");
            best[i] = std::min(best[i], seconds(works[i]));
        }
    }
    return best;
}

} // namespace

int main(int argc, char **argv) {
    std::string name = std::string(argc > 1 ? argv[1] : ".") + "/pcap_bench.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror(name.c_str());
        return 1;
    }
    folder = name;
    const std::uint64_t size = (argc > 2 ? std::stoull(argv[2]) : 1024) * mebibyte;
    const std::string in = name + "/in";
    const std::string out = name + "/out";
    const std::string damaged = name + "/damaged";
    const std::string tcpdump = "tcpdump -Z root 2>/dev/null -r '" + in + "' -w '" + out + "'";
    const std::string files = "'" + in + "' '" + out + "'";

    for (const std::uint32_t length : {60U, 1500U}) {
        make_capture(in, size, length, 0);
        make_capture(damaged, size, length, mebibyte);
        const auto best = race({[&] { repair(in, out); }, [&] { command("cp " + files); },
                                [&] { command(tcpdump); }, [&] { repair(damaged, out); }});
        const std::string what = "repair of packets of " + std::to_string(length) + " bytes";
        figure(what + ", intact", best[0], "s", "cp", best[1]);
        figure(what + ", intact", best[0], "s", "tcpdump", best[2], {.ratio = 1});
        figure(what + ", one damaged in every MiB", best[3], "s", "intact", best[0]);
    }
    // Garbage of which each piece is short, so that what a search costs to start would show.
    make_capture(damaged, size / 64, 60, std::uint64_t{2} * 76);
    const double dense = race({[&] { repair(damaged, out); }})[0];
    figure("repair of every other packet", dense * 64, "s");
    std::filesystem::remove(damaged);

    make_garbage(in, size);
    std::vector<unsigned char> bytes(size);
    const unique_file file = open_file(in, "r");
    if (std::fread(bytes.data(), 1, size, file.get()) != size) {
        return 1;
    }
    std::size_t found = 0;
    const auto best =
        race({[&] { repair(in, out); },
              [&] {
                  const unsigned char *p = bytes.data();
                  const unsigned char *const end = p + bytes.size();
                  while (p < end && (p = static_cast<const unsigned char *>(std::memchr(
                                         p, '\r', static_cast<std::size_t>(end - p))))) {
                      found++;
                      p++;
                  }
              }});
    figure("search for a header in garbage", best[0], "s",
           "memchr, " + std::to_string(found) + " hits,", best[1]);
    std::filesystem::remove_all(folder);
    return 0;
}
