// Writes the captures of the tests' corpus as inputs for pcap_fuzz:
//
//     pcap_seeds FOLDER
//
// Only those of at most 4 KiB, whose damage is of every kind but the very long ones.
#include "pcap_corpus.h"

#include <fstream>
#include <iostream>

int main(int argc, char **argv) {
    if (argc != 2) {
        std::cerr << "usage: pcap_seeds FOLDER\n";
        return 2;
    }
    int number = 0;
    for (const pcap_case &capture : pcap_corpus()) {
        if (capture.input.size() <= 4096) {
            std::ofstream file(argv[1] + ("/" + std::to_string(number++)), std::ios::binary);
            file << '\0' << capture.input;
            if (!file.flush()) {
                std::cerr << "could not write to " << argv[1] << '\n';
                return 1;
            }
        }
    }
    return 0;
}
