// Talks to one card's management server directly, without the driver: talk_to_card ADDRESS PORT
#include <kiv/hpsClient.h>

#include <cstdio>
#include <exception>

namespace {

int talk(const char* address, const char* port) {
    hpsClient card;
    if (card.open_config(address, port, false) != 0) {
        std::fprintf(stderr, "%s:%s does not answer\n", address, port);
        return 1;
    }
    for (const inteface_info& entry : card.interfaces()) {
        std::printf("%-8s %-15s %-15s %s\n", entry.if_name.c_str(), entry.ip_addr.c_str(),
                    entry.netmask.c_str(), entry.hw_addr.c_str());
    }

    std::string report;
    if (card.get_hwmon_info(report, false) == 0) std::printf("\n%s", report.c_str());

    PtpMaster master;
    if (card.get_ptp_master(master) == 0) {
        std::printf("\nPTP master %s, UTC offset %d s\n", master.grandmasterIdentity.c_str(),
                    master.currentUtcOffset);
    }

    const hps_igmp group{"239.1.2.3", "maceth0", ""};
    if (card.igmp_join(group) != 0) return 1;
    std::printf("\nMulticast memberships\n%s", card.get_igmp_list().c_str());
    return card.igmp_leave(group) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: talk_to_card ADDRESS PORT\n");
        return 2;
    }
    try {
        return talk(argv[1], argv[2]);
    } catch (const std::exception& error) {
        // A port that is no number, or an answer in a shape that no card gives.
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
