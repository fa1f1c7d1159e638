// Writes a good print for each parser of replies_fuzz, in the order of its table:
//
//     replies_seeds FOLDER
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

const char *const prints[] = {
    "   array [\n      dict entry(\n         int32 0\n         double 41.5\n      )\n"
    "      dict entry(\n         int32 1\n         string \"Running\"\n      )\n   ]\n   int32 3\n",
    "      string \"media=video/x-h264 fps=25\"\n      string \"a=1\"\nError string\n",
    "Mem: 1K used\n    1     1 root     S     8312   3%  17.5% /usr/Vandrel\n",
    "Timestamp: 2026-11-21T04:05:06.789012Z\n[tns1:topic0 = 'PTZ'] [tnstarvo:topic1 = 'Presets']\n"
    " [channel = '1'] {onvif-source}\n [on_preset = '1'] {onvif-data} {property-state}\n"
    "-----------------------------------\n",
    "(uint32 3, ['Home', 'Main gate', \"Bob's door\"])\n",
    "/com: org.freedesktop.DBus.Properties.PropertiesChanged ('com.tarvo.Ptz1.Channel', "
    "{'PresetStatus': <(uint32 2, uint32 2)>}, @as [])\n",
    "1920x1080,1280x720,640x360",
    "Inter-|   Receive  |  Transmit\n face |bytes    packets errs drop|bytes packets errs drop\n"
    "    lo: 12 1 0 0 12 1 0 0\nNode 0, zone   Normal    1    2\nload average: 1.00, 0.5, 2\n",
    "\"SD_DISK\"\n1\n2\n\"OK\"\n4\ntrue\ntrue\n8\nfalse\nfalse\n}\n",
    "does not answer\nsensor 0007 does not answer, attempt 3",
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::cerr << "usage: replies_seeds FOLDER\n";
        return 2;
    }
    for (std::size_t i = 0; i < std::size(prints); ++i) {
        std::ofstream file(argv[1] + ("/" + std::to_string(i)), std::ios::binary);
        file << static_cast<char>(i) << prints[i];
        if (!file.flush()) {
            std::cerr << "could not write to " << argv[1] << '\n';
            return 1;
        }
    }
    return 0;
}
