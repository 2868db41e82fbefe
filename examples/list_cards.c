/* Lists the media-network cards of this machine. */
#include <kiv/kiv_api.h>
#include <stdio.h>

int main(void) {
    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    if (kiv_open(&log) != KIV_OK) return 1;

    kiv_scan_t found = {0};
    const kiv_result_t result = kiv_scan(&found);
    if (result != KIV_OK) {
        fprintf(stderr, "scan failed: 0x%08X\n", result);
        return 1;
    }
    for (unsigned i = 0; i < found.count; ++i) {
        kiv_card_info_t info = {0};
        const uint8_t id = found.devices[i].device_id;
        if (kiv_get_card_info(id, &info) != KIV_OK) continue;
        printf("card %u: MAC %s and %s\n", id, info.port[0].mac_address, info.port[1].mac_address);
    }
    kiv_close();
    return 0;
}
