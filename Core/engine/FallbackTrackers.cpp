#include "Core/engine/FallbackTrackers.h"

namespace skein {

std::vector<std::string> builtInFallbackTrackers() {
    return {
        "udp://tracker.opentrackr.org:1337/announce", "udp://open.demonii.com:1337/announce",
        "udp://open.stealth.si:80/announce",          "udp://tracker.torrent.eu.org:451/announce",
        "udp://exodus.desync.com:6969/announce",      "udp://explodie.org:6969/announce",
        "udp://tracker.dler.org:6969/announce",       "udp://tracker.tiny-vps.com:6969/announce",
        "udp://tracker.moeking.me:6969/announce",     "udp://opentracker.io:6969/announce",
        "udp://tracker.bittor.pw:1337/announce",      "udp://tracker.theoks.net:6969/announce",
        "udp://p4p.arenabg.com:1337/announce",        "udp://ttk2.nbaonlineservice.com:6969/announce",
        "udp://tracker.skyts.net:6969/announce",      "udp://bt1.archive.org:6969/announce",
    };
}

}  // namespace skein
