// The inputs to start requests_fuzz from.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

constexpr char http_log = 17; // behind the files
constexpr char request = 'r';

const struct {
    char choice;
    const char *text;
} inputs[] = {
    {0, "NAME:link\nKEY:link down\n"},
    {1, "NAME:r\nKEY:down\nCOUNT:1\nLIMIT:3\nCOOLDOWN:60\n"},
    {2, "N:gate\nI:192.0.2.7\nP:80\nT:1\nL:3\n"},
    {3, "T:1440\n"},
    {4, "03:30,15:00\n"},
    {6, "S:2026-11-21 05:50:48\nP:/var/spool/storage/SD_DISK/Vandrel_02A5C41E90B7/rec1\nE:x\n"},
    {7, "SECS:SD_DISK\nACTI:20261121_17_48_38\n"},
    {9,
     "SECS:localdata\nACTI:20260101_00_00_00\nTIME:Sat Nov 21 17:48:38 UTC 2026\nCRAS:2\nCAPT:5\n"},
    {10, "Duration: 1 Days 2 hours 3 minutes\nCollected Data Points: 7\n"},
    {11, "param.cgi\nptz.cgi\n"},
    {12, "Date,Time,Load\r\n2026-11-21,05:00:00,0.1,0.2,0.3\r\n"},
    {13, "T:240\n"},
    {14, "2026-11-21 03:30\n"},
    {15, "192.0.2.1\n"},
    {16, "SSH:yes\nFTP:no\n"},
    {http_log,
     "192.0.2.1 - root [21/Nov/2026:05:00:00 +0000] \"GET /tarvo-cgi/param.cgi?action=list "
     "HTTP/1.1\" 200 12 0.001\n"},
    {request, "action=activate_monitor_session&storage=localdata&log_interval=2"},
    {request, "action=deactivate_monitor_session"},
    {request, "action=list_data"},
    {request, "action=get_ip_address&group=S0"},
    {request,
     "action=zip_monitor_data&storage=/var/spool/storage/SD_DISK/Vandrel_1/20260101_00_00_00"},
    {request,
     "action=get_monitor_data&storage=/usr/local/packages/Vandrel/localdata/20260101_00_00_00"},
    {request, "action=remove&storage=/var/spool/storage/x"},
    {request, "action=miscellaneous&rule=restart&status=on&argument=24"},
    {request, "action=miscellaneous&rule=syslog_server&status=udp&argument=192.0.2.1:514"},
    {request, "action=systemlog_trigger&do=add&name=a&key=b"},
    {request, "action=systemlog_trigger&name=a&subscription_message=b&limit=1&cooldown=60"},
    {request, "action=test&type=warn"},
    {request, "action=activate_wireshark_session&recording_id=rec1&storage=SD_DISK"},
    {request, "action=stop_wireshark_session"},
    {request,
     "action=download_wireshark_session&storage=/var/spool/storage/SD_DISK/Vandrel_1/rec1"},
    {request, "action=remove_wireshark_session&storage=/var/spool/storage/SD_DISK/Vandrel_1/rec1"},
    {request, "action=wireshark_direct&duration=60"},
    {request, "action=declare_nc_rule&name=gate&address=192.0.2.7&port=80&timer=1&nbr_of_fails=3"},
    {request, "action=remove_nc_rule&address=192.0.2.7&port=80"},
    {request, "action=download_nc_log&path=/etc/passwd"},
    {request, "action=traceroute&address=192.0.2.7&mode=icmp"},
    {request, "action=ping&address=192.0.2.7"},
    {request, "action=portcheck&address=192.0.2.7&port=80"},
    {request, "action=view_monitor_data&type=vmstat&name=sh&pid=1&storage="
              "/usr/local/packages/Vandrel/localdata/20260101_00_00_00"},
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::cerr << "usage: requests_seeds FOLDER\n";
        return 2;
    }
    for (std::size_t i = 0; i < std::size(inputs); ++i) {
        std::ofstream file(argv[1] + ("/" + std::to_string(i)), std::ios::binary);
        file << inputs[i].choice << inputs[i].text;
        if (!file.flush()) {
            std::cerr << "could not write to " << argv[1] << '\n';
            return 1;
        }
    }
    return 0;
}
