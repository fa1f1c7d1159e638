#include "onvif.h"

#include "dateutil.h"
#include "fileutil.h"
#include "session_globals.h"
#include "strutil.h"

#include <cerrno>
#include <sys/stat.h>

namespace {

constexpr const char *media_configuration = "/etc/ws/onvif/media/media.conf";

} // namespace

void onvif_copy_media_conf(const std::string &session_directory) {
    const std::string stamp = date_format_now("%Y%m%d_%H%M%S");
    if (stamp.empty() || !is_file(media_configuration)) {
        return;
    }
    const std::string folder =
        format_bounded(session_directory_size, "%s/%s/%s", session_directory.c_str(),
                       "system_monitoring", "monitoring_onvif");
    make_folder(folder.c_str(), 0777);
    (void)file_copy_whole(media_configuration, (folder + "/" + stamp + "_media.conf").c_str());
}
